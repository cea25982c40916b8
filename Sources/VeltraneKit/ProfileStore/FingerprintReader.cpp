#include "VeltraneKit/ProfileStore/FingerprintReader.hpp"

#include <arpa/inet.h>
#include <array>
#include <bit>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace veltrane::kit {

namespace {

using Fingerprint = NetworkEnvironment::Fingerprint;
using InterfaceAddress = FingerprintReader::InterfaceAddress;

constexpr std::size_t maximumTableSize = 4 << 20;

std::optional<std::string> readText(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return std::nullopt;
    }
    std::string text;
    std::array<char, 8192> buffer{};
    while (file.read(buffer.data(), buffer.size()) || file.gcount() > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(file.gcount()));
        if (text.size() > maximumTableSize) {
            return std::nullopt;
        }
    }
    return text;
}

bool present(const std::filesystem::path& path) {
    std::error_code error;
    return std::filesystem::exists(path, error);
}

Fingerprint::InterfaceType interfaceType(const std::filesystem::path& device) {
    if (present(device / "wireless") || present(device / "phy80211")) {
        return Fingerprint::InterfaceType::wifi;
    }
    auto type = readText(device / "type");
    if (type) {
        auto end = type->find_last_not_of(" \t\r\n");
        if (end != std::string::npos && type->substr(0, end + 1) == "1") { // ARPHRD_ETHER
            return Fingerprint::InterfaceType::wired;
        }
    }
    return Fingerprint::InterfaceType::other;
}

std::vector<InterfaceAddress> systemAddresses() {
    std::vector<InterfaceAddress> out;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        return out;
    }
    for (auto* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_netmask == nullptr ||
            entry->ifa_addr->sa_family != AF_INET || entry->ifa_name == nullptr) {
            continue;
        }
        const auto* address = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
        const auto* mask = reinterpret_cast<const sockaddr_in*>(entry->ifa_netmask);
        out.push_back({entry->ifa_name, ntohl(address->sin_addr.s_addr),
                       std::popcount(ntohl(mask->sin_addr.s_addr))});
    }
    freeifaddrs(list);
    return out;
}

std::optional<std::string> findIw() {
    for (const char* candidate : {"/usr/sbin/iw", "/sbin/iw", "/usr/bin/iw", "/bin/iw"}) {
        if (::access(candidate, X_OK) == 0) {
            return std::string(candidate);
        }
    }
    return std::nullopt;
}

// The standard output of `iw dev IF link`, or nullopt when iw is missing,
// fails or takes longer than a moment.
std::optional<std::string> runIwLink(const std::string& interface) {
    auto iw = findIw();
    if (!iw) {
        return std::nullopt;
    }
    int pipeFDs[2];
    if (::pipe2(pipeFDs, O_CLOEXEC) != 0) {
        return std::nullopt;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, pipeFDs[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    std::string device = interface;
    std::array<char*, 6> argv{iw->data(), const_cast<char*>("dev"), device.data(),
                              const_cast<char*>("link"), nullptr};
    std::array<char*, 2> envp{const_cast<char*>("LC_ALL=C"), nullptr};
    pid_t pid = 0;
    int rc = posix_spawn(&pid, iw->c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFDs[1]);
    if (rc != 0) {
        ::close(pipeFDs[0]);
        return std::nullopt;
    }

    std::string output;
    bool complete = false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            break;
        }
        pollfd wait{pipeFDs[0], POLLIN, 0};
        int ready = ::poll(&wait, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            break;
        }
        char buffer[4096];
        ssize_t n = ::read(pipeFDs[0], buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            complete = n == 0;
            break;
        }
        output.append(buffer, static_cast<std::size_t>(n));
        if (output.size() > 65536) {
            break;
        }
    }
    ::close(pipeFDs[0]);
    if (!complete) {
        ::kill(pid, SIGKILL);
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!complete || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return std::nullopt;
    }
    return output;
}

} // namespace

FingerprintReader::Sources FingerprintReader::systemSources() {
    return {systemAddresses, [](const std::string& interface) -> std::optional<std::string> {
                auto output = runIwLink(interface);
                if (!output) {
                    return std::nullopt;
                }
                return FingerprintParsing::iwLinkSSID(*output);
            }};
}

FingerprintReader::FingerprintReader(std::filesystem::path root, Sources sources)
    : root_(std::move(root)), sources_(std::move(sources)) {}

std::optional<Fingerprint> FingerprintReader::read() const {
    auto routes = readText(root_ / "proc/net/route");
    if (!routes) {
        return std::nullopt;
    }
    auto route = FingerprintParsing::defaultRoute(*routes);
    if (!route) {
        return std::nullopt;
    }
    Fingerprint fingerprint;
    fingerprint.interfaceType = interfaceType(root_ / "sys/class/net" / route->interface);
    if (fingerprint.interfaceType == Fingerprint::InterfaceType::wifi && sources_.ssid) {
        fingerprint.ssid = sources_.ssid(route->interface);
    }
    if (route->gateway) {
        if (auto neighbours = readText(root_ / "proc/net/arp")) {
            fingerprint.gatewayMAC =
                FingerprintParsing::neighbourMAC(*neighbours, *route->gateway, route->interface);
        }
    }
    if (sources_.addresses) {
        std::optional<InterfaceAddress> chosen;
        for (const auto& candidate : sources_.addresses()) {
            if (candidate.interface != route->interface) {
                continue;
            }
            const int prefix = candidate.prefixLength;
            const std::uint32_t mask =
                prefix <= 0 ? 0 : (prefix >= 32 ? ~0u : ~0u << (32 - prefix));
            const bool holdsGateway =
                route->gateway && (candidate.address & mask) == (*route->gateway & mask);
            if (!chosen || holdsGateway) {
                chosen = candidate;
                if (holdsGateway) {
                    break;
                }
            }
        }
        if (chosen) {
            fingerprint.subnet =
                FingerprintParsing::subnetText(chosen->address, chosen->prefixLength);
        }
    }
    return fingerprint;
}

std::optional<Fingerprint> currentFingerprint(const std::filesystem::path& root) {
    return FingerprintReader(root).read();
}

} // namespace veltrane::kit
