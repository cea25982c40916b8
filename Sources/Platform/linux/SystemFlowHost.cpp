#include "Platform/NEFlowHost.hpp"
#include "Platform/linux/Cgroup2.hpp"
#include "Platform/linux/SmallFile.hpp"
#include "Platform/linux/capture/LinuxFlowHost.hpp"

#include <algorithm>
#include <pwd.h>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/mount.h>
#include <unistd.h>

namespace veltrane::platform {

namespace {

// The application that starts the extension hands it the provider
// configuration's profile on standard input, as the configuration a host
// keeps for its provider; a terminal or an empty input means none.
std::optional<Bytes> configuredProfile() {
    if (::isatty(STDIN_FILENO)) {
        return std::nullopt;
    }
    Bytes bytes;
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (n <= 0) {
            break;
        }
        bytes.insert(bytes.end(), buffer, buffer + n);
    }
    if (bytes.empty()) {
        return std::nullopt;
    }
    return bytes;
}

// `ip netns exec` runs its command with a fresh /sys that has no cgroup
// mounts, and without the cgroup2 hierarchy owners are found only by reading
// every process. The hierarchy is still there: mount it again, in a mount
// namespace of our own so that the machine's mounts stay as they are. Done
// before any thread starts, as unshare requires.
void mountCgroup2IfMissing() {
    const auto mountinfo = readSmallFile("/proc/self/mountinfo", 64 << 20);
    if (!mountinfo || cgroup2MountIn(*mountinfo)) {
        return;
    }
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return;
    }
    ::mount("cgroup2", "/sys/fs/cgroup", "cgroup2", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr);
}

// A user by name, or a uid given as a number (a user need not exist to own
// processes, in a container for one).
std::optional<std::uint32_t> userID(const std::string& text) {
    if (!text.empty() &&
        std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        try {
            const unsigned long uid = std::stoul(text);
            if (uid < 0xffffffffUL) {
                return static_cast<std::uint32_t>(uid);
            }
        } catch (const std::exception&) {
        }
        return std::nullopt;
    }
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwnam_r(text.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found) {
        return std::nullopt;
    }
    return found->pw_uid;
}

} // namespace

std::shared_ptr<NEFlowHost> systemFlowHost(std::span<char* const> arguments) {
    capture::LinuxFlowHost::Options options;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string argument = arguments[i];
        if (argument == "--include-local" && i + 1 < arguments.size()) {
            const std::string value = arguments[++i];
            auto network = capture::Network::parse(value);
            if (!network) {
                throw std::invalid_argument("--include-local takes an address or a network "
                                            "(192.0.2.0/24, 2001:db8::/32), not " +
                                            value);
            }
            options.localIncluded.push_back(*network);
        } else if (argument == "--listen-port" && i + 1 < arguments.size()) {
            const std::string value = arguments[++i];
            std::size_t used = 0;
            unsigned long port = 0;
            try {
                port = std::stoul(value, &used);
            } catch (const std::exception&) {
            }
            if (used != value.size() || port == 0 || port > 65535) {
                throw std::invalid_argument("--listen-port takes a port from 1 to 65535, not " +
                                            value);
            }
            options.listenerPort = static_cast<std::uint16_t>(port);
        } else if (argument == "--exempt-user" && i + 1 < arguments.size()) {
            const std::string value = arguments[++i];
            auto uid = userID(value);
            if (!uid) {
                throw std::invalid_argument("--exempt-user takes a user name or a uid, not " +
                                            value);
            }
            options.exemptUsers.push_back(*uid);
        } else if (argument == "--capture-dns") {
            options.captureDNS = true;
        } else {
            throw std::invalid_argument("unknown argument " + argument);
        }
    }
    options.profile = configuredProfile();
    mountCgroup2IfMissing();
    return std::make_shared<capture::LinuxFlowHost>(std::move(options));
}

} // namespace veltrane::platform
