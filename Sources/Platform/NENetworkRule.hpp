#pragma once

#include "Platform/NWHostEndpoint.hpp"

#include <optional>

namespace veltrane::platform {

// One rule of the tunnel settings: which flows the host hands to the
// provider. Plain data; the host that drives the provider reads it.
struct NENetworkRule {
    enum class Protocol : int { any = 0, tcp = 1, udp = 2 };
    enum class Direction : int { any = 0, inbound = 1, outbound = 2 };

    // No network means any address; a port of "0" or "" means any port.
    std::optional<NWHostEndpoint> remoteNetwork;
    int remotePrefix = 0;
    std::optional<NWHostEndpoint> localNetwork;
    int localPrefix = 0;
    Protocol protocol = Protocol::any;
    Direction direction = Direction::outbound;

    static NENetworkRule withRemoteNetwork(std::optional<NWHostEndpoint> remoteNetwork,
                                           int remotePrefix,
                                           std::optional<NWHostEndpoint> localNetwork,
                                           int localPrefix, Protocol protocol,
                                           Direction direction) {
        return NENetworkRule{std::move(remoteNetwork),
                             remotePrefix,
                             std::move(localNetwork),
                             localPrefix,
                             protocol,
                             direction};
    }

    // Outbound flows to `network` (its port included) within `prefix` bits.
    static NENetworkRule withDestinationNetwork(NWHostEndpoint network, int prefix,
                                                Protocol protocol) {
        return NENetworkRule{std::move(network), prefix, std::nullopt, 0, protocol,
                             Direction::outbound};
    }

    friend bool operator==(const NENetworkRule&, const NENetworkRule&) = default;
};

} // namespace veltrane::platform
