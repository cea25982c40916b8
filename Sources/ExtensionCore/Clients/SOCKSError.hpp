#pragma once

#include "VeltraneKit/Error.hpp"

#include <cstdint>
#include <string>

namespace veltrane::core {

// The only error of the SOCKS5 client (also reached as SOCKS5Client::SOCKSError).
class SOCKSError : public kit::Error {
public:
    static constexpr const char* errorDomain = "SOCKS5Client.SOCKSError";

    // In this order; code() is the position.
    enum class Case {
        connectionFailed,
        unsupportedAuth,
        requestRejected,
        handshakeFailed,
        authRequired,
        authFailed,
        shortRead,
        // A domain, user name or password longer than its one length byte
        // can express: refused before anything reaches the proxy.
        valueTooLong,
    };

    // Which value did not fit, for valueTooLong.
    enum class Field { domain, username, password };

    static SOCKSError connectionFailed(std::string reason);
    static SOCKSError unsupportedAuth(std::uint8_t method);
    static SOCKSError requestRejected(std::uint8_t reply);
    static SOCKSError handshakeFailed();
    static SOCKSError authRequired();
    static SOCKSError authFailed();
    static SOCKSError shortRead();
    static SOCKSError valueTooLong(Field field);

    Case kind() const { return kind_; }
    // connectionFailed's text.
    const std::string& reason() const { return reason_; }
    // unsupportedAuth's method or requestRejected's REP.
    std::uint8_t value() const { return value_; }
    Field field() const { return field_; }

    std::string errorDescription() const;

    std::string domain() const override;
    int code() const override;
    std::string localizedDescription() const override;

    friend bool operator==(const SOCKSError& a, const SOCKSError& b) {
        return a.kind_ == b.kind_ && a.reason_ == b.reason_ && a.value_ == b.value_ &&
               a.field_ == b.field_;
    }

private:
    explicit SOCKSError(Case kind) : kind_(kind) {}

    Case kind_;
    std::string reason_;
    std::uint8_t value_ = 0;
    Field field_ = Field::domain;
};

} // namespace veltrane::core
