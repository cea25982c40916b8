#pragma once

#include "Platform/NENetworkRule.hpp"

#include <string>
#include <vector>

namespace veltrane::platform {

// What the provider asks the host to capture. A flow is handed over when an
// included rule matches it and no excluded rule does.
struct NETransparentProxyNetworkSettings {
    std::string tunnelRemoteAddress;
    std::vector<NENetworkRule> includedNetworkRules;
    std::vector<NENetworkRule> excludedNetworkRules;

    NETransparentProxyNetworkSettings() = default;
    explicit NETransparentProxyNetworkSettings(std::string tunnelRemoteAddress)
        : tunnelRemoteAddress(std::move(tunnelRemoteAddress)) {}

    friend bool operator==(const NETransparentProxyNetworkSettings&,
                           const NETransparentProxyNetworkSettings&) = default;
};

} // namespace veltrane::platform
