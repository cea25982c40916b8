#include "run/NetworkNamespace.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

namespace veltrane::app {

bool enterNetworkNamespace(const std::string& name) {
    const std::string path = "/run/netns/" + name;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        std::cerr << "veltrane run: no network namespace " << name << " (" << std::strerror(errno)
                  << ")\n";
        return false;
    }
    const bool entered = ::setns(fd, CLONE_NEWNET) == 0;
    const int error = errno;
    ::close(fd);
    if (!entered) {
        std::cerr << "veltrane run: cannot enter " << name << ": " << std::strerror(error) << "\n";
        return false;
    }
    // sysfs shows the interfaces of the namespace that mounted it. Our own
    // mounts stay ours: nothing of this reaches the machine's mount table.
    if (::unshare(CLONE_NEWNS) != 0 || ::mount("", "/", nullptr, MS_SLAVE | MS_REC, nullptr) != 0) {
        std::cerr << "veltrane run: cannot make a private mount namespace: " << std::strerror(errno)
                  << "\n";
        return false;
    }
    // As `ip netns exec` does: the namespace's own resolv.conf, hosts and
    // the like (/etc/netns/NAME/FILE) stand in for the machine's.
    std::error_code none;
    for (const auto& entry : std::filesystem::directory_iterator("/etc/netns/" + name, none)) {
        const auto target = "/etc/" + entry.path().filename().string();
        if (::mount(entry.path().c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0) {
            std::cerr << "veltrane run: cannot bind " << entry.path().string() << " over " << target
                      << ": " << std::strerror(errno) << "; the machine's is used\n";
        }
    }
    ::umount2("/sys", MNT_DETACH);
    if (::mount(name.c_str(), "/sys", "sysfs", 0, nullptr) != 0) {
        std::cerr << "veltrane run: cannot mount /sys for " << name << ": " << std::strerror(errno)
                  << "\n";
        return false;
    }
    return true;
}

} // namespace veltrane::app
