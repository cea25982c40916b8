#pragma once

#include "VeltraneKit/Error.hpp"

#include <cstdint>
#include <string>

namespace veltrane::core {

// The only error of the HTTP CONNECT client (also reached as
// HTTPConnectClient::HTTPProxyError).
class HTTPProxyError : public kit::Error {
public:
    static constexpr const char* errorDomain = "HTTPConnectClient.HTTPProxyError";

    // In this order; code() is the position.
    enum class Case { connectionFailed, rejected, malformedResponse };

    static HTTPProxyError connectionFailed(std::string reason);
    static HTTPProxyError rejected(std::int64_t status, std::string reason);
    static HTTPProxyError malformedResponse();

    Case kind() const { return kind_; }
    // connectionFailed's text, or rejected's reason phrase.
    const std::string& reason() const { return reason_; }
    std::int64_t status() const { return status_; }

    std::string errorDescription() const;

    std::string domain() const override;
    int code() const override;
    std::string localizedDescription() const override;

    friend bool operator==(const HTTPProxyError& a, const HTTPProxyError& b) {
        return a.kind_ == b.kind_ && a.reason_ == b.reason_ && a.status_ == b.status_;
    }

private:
    explicit HTTPProxyError(Case kind) : kind_(kind) {}

    Case kind_;
    std::string reason_;
    std::int64_t status_ = 0;
};

} // namespace veltrane::core
