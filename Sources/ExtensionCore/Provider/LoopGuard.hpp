#pragma once

#include "VeltraneKit/AppIdentity.hpp"
#include "VeltraneKit/Profile.hpp"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace veltrane::core {

// Says which flows must be left alone before any rule is asked: connections
// to the profile's own proxies (carrying them would send them to the proxy
// again, for ever) and the product's own applications. A plain value,
// rebuilt with each profile.
struct LoopGuard {
    struct Endpoint {
        std::string host;
        std::uint16_t port = 0;
        friend bool operator==(const Endpoint&, const Endpoint&) = default;
    };

    std::vector<Endpoint> proxyEndpoints;
    bool enabled = true;

    // One endpoint per proxy of the profile, used by a rule or not.
    static LoopGuard forProfile(const kit::Profile& profile);

    // Names are compared as text, never resolved; ports exactly.
    bool shouldBypass(const kit::AppIdentity& app, std::string_view host, std::uint16_t port) const;

    // "host:port" per endpoint, in order.
    std::vector<std::string> exemptionDescriptions() const;

    friend bool operator==(const LoopGuard&, const LoopGuard&) = default;
};

} // namespace veltrane::core
