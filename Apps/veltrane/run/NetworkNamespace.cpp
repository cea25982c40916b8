#include "run/NetworkNamespace.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

namespace veltrane::app {

bool bringLoopbackUp(bool& wasDown) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    bool up = fd >= 0 && ::ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    wasDown = up && (request.ifr_flags & IFF_UP) == 0;
    if (wasDown) {
        request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
        up = ::ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    }
    const int error = errno;
    if (fd >= 0) {
        ::close(fd);
    }
    errno = error;
    return up;
}

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
    // A namespace fresh from `ip netns add` has its loopback down, and every
    // carried connection is looped through it to the listener: without it
    // the capture cannot start at all.
    bool wasDown = false;
    if (!bringLoopbackUp(wasDown)) {
        std::cerr << "veltrane run: loopback is down in " << name
                  << " and cannot be brought up: " << std::strerror(errno) << "\n";
    } else if (wasDown) {
        std::cerr << "veltrane run: loopback was down in " << name << "; brought it up\n";
    }
    return true;
}

} // namespace veltrane::app
