#pragma once

#include <optional>
#include <string>

namespace veltrane::kit {

// A tunnel interface that is up, with the process that holds it where known.
struct TunnelInterface {
    std::string name;
    std::optional<std::string> ipv4;      // dotted form
    std::optional<std::string> ownerName; // display name of the owning process
    std::optional<std::string> ownerPath; // its application bundle or executable
    bool isSystemOwned = false;           // the owner is one of the system's programs

    // The name, then " · " and the IPv4 address when there is one.
    std::string displayDescription() const;

    friend bool operator==(const TunnelInterface&, const TunnelInterface&) = default;
};

} // namespace veltrane::kit
