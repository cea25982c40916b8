#pragma once

#include <memory>
#include <string>
#include <utility>

namespace veltrane::platform {

class NWHostEndpoint;

// One end of a flow as the flow host names it. Hosts hand out NWHostEndpoint;
// any other kind of endpoint is one the callers do not understand, and they
// treat it as "no endpoint known".
class NWEndpoint {
public:
    virtual ~NWEndpoint() = default;

    // This endpoint as a host endpoint, or null for any other kind.
    virtual const NWHostEndpoint* hostEndpoint() const { return nullptr; }

protected:
    NWEndpoint() = default;
    NWEndpoint(const NWEndpoint&) = default;
    NWEndpoint& operator=(const NWEndpoint&) = default;
};

using NWEndpointRef = std::shared_ptr<const NWEndpoint>;

// A host name or address literal and a port, both as text, as the host
// reports them: nothing is parsed or checked here.
class NWHostEndpoint final : public NWEndpoint {
public:
    NWHostEndpoint(std::string hostname, std::string port)
        : hostname_(std::move(hostname)), port_(std::move(port)) {}

    static std::shared_ptr<const NWHostEndpoint> endpointWithHostname(std::string hostname,
                                                                      std::string port) {
        return std::make_shared<const NWHostEndpoint>(std::move(hostname), std::move(port));
    }

    const std::string& hostname() const { return hostname_; }
    const std::string& port() const { return port_; }

    const NWHostEndpoint* hostEndpoint() const override { return this; }

    friend bool operator==(const NWHostEndpoint& a, const NWHostEndpoint& b) {
        return a.hostname_ == b.hostname_ && a.port_ == b.port_;
    }

private:
    std::string hostname_;
    std::string port_;
};

// The host endpoint behind `endpoint`, or null when there is none or it is of
// another kind.
inline const NWHostEndpoint* hostEndpoint(const NWEndpointRef& endpoint) {
    return endpoint ? endpoint->hostEndpoint() : nullptr;
}

} // namespace veltrane::platform
