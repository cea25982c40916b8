#pragma once

#include "VeltraneKit/Discovery/SystemRoots.hpp"
#include "VeltraneKit/Discovery/TunnelInterface.hpp"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace veltrane::kit {

// Lists the tunnel interfaces that are up in the calling thread's network
// namespace, each with the process that holds it, so that a user can pin a
// rule to the interface of a VPN client they know. Stateless: each call reads
// the system afresh, and what cannot be read yields fewer results, never an
// error.
//
// A tunnel is an interface that is up and either point-to-point with a name
// beginning "utun", "ppp" or "ipsec", or a Linux tunnel: named "tun", "tap",
// "wg", "tailscale", "zt" or "nordlynx" and a suffix, a tun/tap device
// (/sys/class/net/IF/tun_flags), or of the link type ARPHRD_NONE that tun and
// WireGuard devices have.
class TunnelInterfaceScanner {
public:
    struct Owner {
        std::int32_t pid = 0;
        std::string path; // the executable; empty when it could not be read

        friend bool operator==(const Owner&, const Owner&) = default;
    };

    // One entry of the system's interface list (getifaddrs): every interface
    // has one without an address, and one more per address.
    struct InterfaceEntry {
        std::string name;
        unsigned flags = 0;                    // IFF_*
        std::optional<std::uint16_t> linkType; // ARPHRD_*, on the link's entry
        std::optional<std::string> ipv4;       // numeric, on an IPv4 entry

        friend bool operator==(const InterfaceEntry&, const InterfaceEntry&) = default;
    };

    explicit TunnelInterfaceScanner(SystemRoots roots = {}) : roots_(std::move(roots)) {}

    // The tunnels that are up: foreign owners before system ones, then those
    // with an IPv4 address, then by name in byte order ("tun10" before "tun2").
    std::vector<TunnelInterface> scan() const;

    // Which process holds each tun/tap device, from the "iff:" line of its
    // fd's /proc/PID/fdinfo entry. Processes are read by id ascending and the
    // first holder of a device keeps it. Devices made by the kernel itself
    // (WireGuard) have no holder.
    std::map<std::string, Owner> utunOwners() const;

    // scan() over a given interface list and owner map.
    std::vector<TunnelInterface> tunnels(const std::vector<InterfaceEntry>& entries,
                                         const std::map<std::string, Owner>& owners) const;

    // The interface list of the calling thread's namespace; nullopt when it
    // cannot be read.
    static std::optional<std::vector<InterfaceEntry>> systemInterfaces();

private:
    SystemRoots roots_;
};

} // namespace veltrane::kit
