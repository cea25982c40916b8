#include "VeltraneKit/Discovery/TunnelInterfaceScanner.hpp"

#include "VeltraneKit/Discovery/ProcTables.hpp"
#include "VeltraneKit/Discovery/ProcessOwner.hpp"

#include <algorithm>
#include <array>
#include <ifaddrs.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <span>
#include <string_view>
#include <sys/socket.h>
#include <system_error>

namespace veltrane::kit {

namespace {

constexpr std::array<std::string_view, 3> pointToPointPrefixes{"utun", "ppp", "ipsec"};
constexpr std::array<std::string_view, 6> linuxTunnelPrefixes{"tun",       "tap", "wg",
                                                              "tailscale", "zt",  "nordlynx"};

bool startsWithAny(std::string_view name, std::span<const std::string_view> prefixes) {
    return std::any_of(prefixes.begin(), prefixes.end(),
                       [&](std::string_view prefix) { return name.starts_with(prefix); });
}

struct Link {
    unsigned flags = 0;
    std::optional<std::uint16_t> linkType;
    std::optional<std::string> ipv4;
};

} // namespace

std::optional<std::vector<TunnelInterfaceScanner::InterfaceEntry>>
TunnelInterfaceScanner::systemInterfaces() {
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) {
        return std::nullopt;
    }
    std::vector<InterfaceEntry> entries;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_name == nullptr) {
            continue;
        }
        InterfaceEntry row{entry->ifa_name, entry->ifa_flags, std::nullopt, std::nullopt};
        const sockaddr* address = entry->ifa_addr;
        if (address != nullptr && address->sa_family == AF_PACKET) {
            row.linkType = reinterpret_cast<const sockaddr_ll*>(address)->sll_hatype;
        } else if (address != nullptr && address->sa_family == AF_INET) {
            std::array<char, 1025> host{};
            if (::getnameinfo(address, sizeof(sockaddr_in), host.data(), host.size(), nullptr, 0,
                              NI_NUMERICHOST) == 0) {
                row.ipv4 = std::string(host.data());
            }
        }
        entries.push_back(std::move(row));
    }
    ::freeifaddrs(list);
    return entries;
}

std::map<std::string, TunnelInterfaceScanner::Owner> TunnelInterfaceScanner::utunOwners() const {
    std::map<std::string, Owner> owners;
    for (auto pid : ProcTables::processIDs(roots_.proc)) {
        for (const auto& [fd, target] : ProcTables::openFiles(roots_.proc, pid)) {
            // Only a tun fd has an "iff:" line; the link saves reading the rest.
            if (target != "/dev/net/tun") {
                continue;
            }
            auto info = ProcTables::readSmallFile(roots_.proc / std::to_string(pid) / "fdinfo" /
                                                  std::to_string(fd));
            auto name = info ? ProcTables::tunInterfaceName(*info) : std::nullopt;
            if (name && !owners.contains(*name)) {
                owners.emplace(
                    *name, Owner{pid, ProcessOwner::executablePath(pid, roots_.proc).value_or("")});
            }
        }
    }
    return owners;
}

std::vector<TunnelInterface>
TunnelInterfaceScanner::tunnels(const std::vector<InterfaceEntry>& entries,
                                const std::map<std::string, Owner>& owners) const {
    std::map<std::string, Link> links; // sorted by name
    for (const auto& entry : entries) {
        auto& link = links[entry.name];
        link.flags |= entry.flags;
        if (entry.linkType) {
            link.linkType = entry.linkType;
        }
        if (entry.ipv4) {
            link.ipv4 = entry.ipv4; // a later address replaces an earlier one
        }
    }

    std::vector<TunnelInterface> found;
    for (const auto& [name, link] : links) {
        if (!(link.flags & IFF_UP)) {
            continue;
        }
        std::error_code ignored;
        const bool tunnel =
            ((link.flags & IFF_POINTOPOINT) && startsWithAny(name, pointToPointPrefixes)) ||
            startsWithAny(name, linuxTunnelPrefixes) || link.linkType == ARPHRD_NONE ||
            (name.find('/') == std::string::npos && !name.starts_with(".") &&
             std::filesystem::exists(roots_.sys / "class/net" / name / "tun_flags", ignored));
        if (!tunnel) {
            continue;
        }
        TunnelInterface interface { name, link.ipv4, std::nullopt, std::nullopt, false };
        if (auto owner = owners.find(name); owner != owners.end()) {
            const auto& path = owner->second.path;
            interface.ownerName = ProcessOwner::displayName(path);
            interface.ownerPath = ProcessOwner::bundleOrExecutable(path);
            interface.isSystemOwned = ProcessOwner::isSystemExecutable(path);
        }
        found.push_back(std::move(interface));
    }
    std::stable_sort(found.begin(), found.end(), [](const auto& a, const auto& b) {
        if (a.isSystemOwned != b.isSystemOwned) {
            return !a.isSystemOwned;
        }
        if (a.ipv4.has_value() != b.ipv4.has_value()) {
            return a.ipv4.has_value();
        }
        return a.name < b.name;
    });
    return found;
}

std::vector<TunnelInterface> TunnelInterfaceScanner::scan() const {
    auto owners = utunOwners();
    auto entries = systemInterfaces();
    if (!entries || entries->empty()) {
        return {};
    }
    return tunnels(*entries, owners);
}

} // namespace veltrane::kit
