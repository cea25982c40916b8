#include "exec/CommandScope.hpp"

#include "Platform/linux/Cgroup2.hpp"
#include "Platform/linux/SmallFile.hpp"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace veltrane::app {
namespace {

std::string describeErrno(int error) {
    return std::strerror(error);
}

// The cgroup2 hierarchy as this mount namespace sees it. `ip netns exec`
// mounts a fresh /sys without it; the hierarchy itself is global, so one
// mounted in a mount namespace of our own shows the same cgroups that the
// running system reads.
std::optional<std::string> hierarchy(std::string& whyNot) {
    const auto mountinfo = platform::readSmallFile("/proc/self/mountinfo", 64 << 20);
    if (!mountinfo) {
        whyNot = "cannot read /proc/self/mountinfo";
        return std::nullopt;
    }
    if (auto mount = platform::cgroup2MountIn(*mountinfo)) {
        return mount;
    }
    constexpr const char* target = "/sys/fs/cgroup";
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("cgroup2", target, "cgroup2", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
        whyNot =
            "no cgroup2 hierarchy is mounted, and mounting one failed: " + describeErrno(errno);
        return std::nullopt;
    }
    return target;
}

// This process's cgroup in the unified hierarchy, "/" at its root.
std::string ownCgroup() {
    const auto membership = platform::readSmallFile("/proc/self/cgroup", 1 << 16);
    if (!membership) {
        return "/";
    }
    std::string_view text = *membership;
    while (!text.empty()) {
        const auto end = text.find('\n');
        const auto line = text.substr(0, end);
        if (line.starts_with("0::/")) {
            return std::string(line.substr(3));
        }
        if (end == std::string_view::npos) {
            break;
        }
        text.remove_prefix(end + 1);
    }
    return "/";
}

std::string parentOf(const std::string& cgroup) {
    const auto slash = cgroup.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : cgroup.substr(0, slash);
}

bool populated(const std::string& path) {
    const auto events = platform::readSmallFile(path + "/cgroup.events", 4096);
    return events && events->find("populated 1") != std::string::npos;
}

// Every process still inside gets `signal`: the command's own children,
// left behind when it ended.
void signalEveryone(const std::string& path, int signal) {
    const auto procs = platform::readSmallFile(path + "/cgroup.procs", 1 << 20);
    if (!procs) {
        return;
    }
    std::size_t start = 0;
    while (start < procs->size()) {
        auto end = procs->find('\n', start);
        if (end == std::string::npos) {
            end = procs->size();
        }
        try {
            ::kill(static_cast<pid_t>(std::stol(procs->substr(start, end - start))), signal);
        } catch (const std::exception&) {
        }
        start = end + 1;
    }
}

} // namespace

std::string escapedUnitPiece(std::string_view name) {
    static constexpr char hex[] = "0123456789abcdef";
    std::string piece;
    for (std::size_t i = 0; i < name.size(); ++i) {
        const auto byte = static_cast<unsigned char>(name[i]);
        const bool plain = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
                           (byte >= '0' && byte <= '9') || byte == ':' || byte == '_' ||
                           (byte == '.' && i > 0);
        if (plain) {
            piece += static_cast<char>(byte);
        } else {
            piece += "\\x";
            piece += hex[byte >> 4];
            piece += hex[byte & 0xf];
        }
    }
    return piece;
}

CommandScope::CommandScope(std::string path, int procsFd)
    : path_(std::move(path)), procsFd_(procsFd) {}

CommandScope::~CommandScope() {
    if (procsFd_ >= 0) {
        ::close(procsFd_);
    }
    if (!removed_) {
        ::rmdir(path_.c_str()); // only succeeds when nothing ever entered
    }
}

std::unique_ptr<CommandScope> CommandScope::make(const std::string& name, std::string& whyNot) {
    const std::string unit =
        "app-veltrane-" + escapedUnitPiece(name) + "-" + std::to_string(::getpid()) + ".scope";
    if (unit.size() > 255) {
        whyNot = "the name is too long for a cgroup (" + std::to_string(unit.size()) +
                 " bytes, 255 at most)";
        return nullptr;
    }
    const auto mount = hierarchy(whyNot);
    if (!mount) {
        return nullptr;
    }
    // Beside the caller's own cgroup, as a launcher places its scopes. Root
    // may fall back to the top; others only to their own (delegated) cgroup.
    const std::string own = ownCgroup();
    std::vector<std::string> places{parentOf(own)};
    const std::string fallback = ::geteuid() == 0 ? "/" : own;
    if (fallback != places.front()) {
        places.push_back(fallback);
    }
    int lastError = 0;
    for (const auto& place : places) {
        const std::string path = *mount + (place == "/" ? "" : place) + "/" + unit;
        // A directory of this name is left from an earlier run whose pid we
        // now have; empty, it is ours to take.
        if (::mkdir(path.c_str(), 0755) != 0 &&
            (errno != EEXIST || ::rmdir(path.c_str()) != 0 || ::mkdir(path.c_str(), 0755) != 0)) {
            lastError = errno;
            continue;
        }
        const int procs = ::open((path + "/cgroup.procs").c_str(), O_WRONLY | O_CLOEXEC);
        if (procs < 0) {
            lastError = errno;
            ::rmdir(path.c_str());
            continue;
        }
        return std::unique_ptr<CommandScope>(new CommandScope(path, procs));
    }
    whyNot = "cannot make " + unit + " under " + *mount + parentOf(own) + ": " +
             describeErrno(lastError);
    return nullptr;
}

bool CommandScope::enter() const noexcept {
    // getpid() as decimal text, without the allocator.
    char digits[16];
    char text[16];
    auto pid = static_cast<unsigned long>(::getpid());
    std::size_t count = 0;
    do {
        digits[count++] = static_cast<char>('0' + pid % 10);
        pid /= 10;
    } while (pid != 0 && count < sizeof digits);
    for (std::size_t i = 0; i < count; ++i) {
        text[i] = digits[count - 1 - i];
    }
    return ::write(procsFd_, text, count) == static_cast<ssize_t>(count);
}

bool CommandScope::removeWhenEmpty(int signalFd, std::string& whyNot) {
    const int notify = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (notify >= 0) {
        ::inotify_add_watch(notify, (path_ + "/cgroup.events").c_str(), IN_MODIFY);
    }
    while (populated(path_)) {
        pollfd waits[2] = {{signalFd, POLLIN, 0}, {notify, POLLIN, 0}};
        // The time-out only guards against a change notice that never comes.
        if (::poll(waits, notify >= 0 ? 2 : 1, 1000) <= 0) {
            continue;
        }
        if ((waits[0].revents & POLLIN) != 0) {
            signalfd_siginfo info{};
            if (::read(signalFd, &info, sizeof info) == sizeof info && info.ssi_signo != SIGCHLD) {
                signalEveryone(path_, static_cast<int>(info.ssi_signo));
            }
        }
        if (notify >= 0 && (waits[1].revents & POLLIN) != 0) {
            char drained[4096];
            while (::read(notify, drained, sizeof drained) > 0) {
            }
        }
    }
    if (notify >= 0) {
        ::close(notify);
    }
    // The last process may still be on its way out of the cgroup for a
    // moment after the kernel reports the cgroup empty.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (::rmdir(path_.c_str()) != 0) {
        if (errno != EBUSY || std::chrono::steady_clock::now() > deadline) {
            whyNot = "cannot remove " + path_ + ": " + describeErrno(errno);
            return false;
        }
        ::poll(nullptr, 0, 10);
    }
    removed_ = true;
    return true;
}

} // namespace veltrane::app
