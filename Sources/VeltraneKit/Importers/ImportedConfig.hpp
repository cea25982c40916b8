#pragma once

#include "VeltraneKit/Profile.hpp"

#include <vector>

namespace veltrane::kit {

// What an adapter took over from another tool's configuration, in the
// source's order. Every proxy and rule has a fresh id of its own, and proxy
// actions of the rules name proxies of this same value.
struct ImportedConfig {
    std::vector<ProxyServer> proxies;
    std::vector<Rule> rules;

    friend bool operator==(const ImportedConfig&, const ImportedConfig&) = default;
};

} // namespace veltrane::kit
