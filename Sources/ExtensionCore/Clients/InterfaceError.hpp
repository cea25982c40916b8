#pragma once

#include "VeltraneKit/Error.hpp"

#include <string>

namespace veltrane::core {

// The error of an interface-pinned connection (also reached as
// InterfaceBoundClient::InterfaceError).
class InterfaceError : public kit::Error {
public:
    static constexpr const char* errorDomain = "InterfaceBoundClient.InterfaceError";

    // In this order; code() is the position.
    enum class Case { unavailable, connectionFailed };

    // The interface is not in the registry (raised by the pinned-flow handler).
    static InterfaceError unavailable(std::string interfaceName);
    static InterfaceError connectionFailed(std::string interfaceName, std::string reason);

    Case kind() const { return kind_; }
    const std::string& interfaceName() const { return interfaceName_; }
    const std::string& reason() const { return reason_; }

    std::string errorDescription() const;

    std::string domain() const override;
    int code() const override;
    std::string localizedDescription() const override;

    friend bool operator==(const InterfaceError& a, const InterfaceError& b) {
        return a.kind_ == b.kind_ && a.interfaceName_ == b.interfaceName_ && a.reason_ == b.reason_;
    }

private:
    InterfaceError(Case kind, std::string interfaceName, std::string reason)
        : kind_(kind), interfaceName_(std::move(interfaceName)), reason_(std::move(reason)) {}

    Case kind_;
    std::string interfaceName_;
    std::string reason_;
};

} // namespace veltrane::core
