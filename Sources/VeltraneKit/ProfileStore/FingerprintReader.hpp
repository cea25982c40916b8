#pragma once

#include "VeltraneKit/ProfileStore/Fingerprint.hpp"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace veltrane::kit {

// Reads the fingerprint of the network this machine is on now, from the
// kernel's own tables; it needs no daemon and no privileges:
//   - the interface of the default IPv4 route (lowest metric) and its gateway
//     from <root>/proc/net/route;
//   - the interface's type from <root>/sys/class/net/<if>: "wireless" or
//     "phy80211" there makes it wifi, an Ethernet "type" (1) wired, anything
//     else (tunnels, PPP) other;
//   - the gateway's hardware address from the neighbour table,
//     <root>/proc/net/arp, when the kernel has resolved it;
//   - the subnet, "192.168.1.0/24", from the interface's IPv4 address and
//     prefix (getifaddrs), preferring the address whose network holds the
//     gateway;
//   - for wifi, the SSID from `iw dev <if> link` when iw is installed. Without
//     iw the SSID stays absent: reading it otherwise would take nl80211
//     through a netlink socket of its own or a daemon such as NetworkManager,
//     and a wifi environment then simply does not match.
// Without a usable default route there is no fingerprint at all (nullopt),
// rather than one that could bind the wrong profile.
class FingerprintReader {
public:
    struct InterfaceAddress {
        std::string interface;
        std::uint32_t address = 0; // first octet most significant
        int prefixLength = 0;
    };

    // What does not come from files under the root. Tests replace them.
    struct Sources {
        std::function<std::vector<InterfaceAddress>()> addresses;
        std::function<std::optional<std::string>(const std::string& interface)> ssid;
    };
    // getifaddrs and iw.
    static Sources systemSources();

    explicit FingerprintReader(std::filesystem::path root = "/", Sources sources = systemSources());

    std::optional<NetworkEnvironment::Fingerprint> read() const;

private:
    std::filesystem::path root_;
    Sources sources_;
};

// FingerprintReader(root).read(): this machine's network when root is "/".
std::optional<NetworkEnvironment::Fingerprint>
currentFingerprint(const std::filesystem::path& root = "/");

// The steps of the reader that work on text alone. None throws.
namespace FingerprintParsing {

struct DefaultRoute {
    std::string interface;
    std::optional<std::uint32_t> gateway; // absent for a route without one
};

// The usable default route of /proc/net/route with the lowest metric (the
// first of equals); reject and down routes are not usable.
std::optional<DefaultRoute> defaultRoute(std::string_view procNetRoute);

// The complete, non-zero hardware address of `address` on `interface` in
// /proc/net/arp, as the kernel writes it ("aa:bb:cc:dd:ee:ff").
std::optional<std::string> neighbourMAC(std::string_view procNetArp, std::uint32_t address,
                                        std::string_view interface);

// The SSID from the output of `iw dev IF link`, its \xNN escapes undone;
// nullopt when not connected or the SSID is empty.
std::optional<std::string> iwLinkSSID(std::string_view output);

// "192.168.1.0/24" for 192.168.1.20 with prefix 24.
std::string subnetText(std::uint32_t address, int prefixLength);

} // namespace FingerprintParsing

} // namespace veltrane::kit
