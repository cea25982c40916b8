#include "Platform/linux/LinkWatch.hpp"

#include "Platform/Logger.hpp"

#include <array>
#include <cerrno>
#include <cstring>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace veltrane::platform {

namespace {

// Whether the interface still exists and is up, asked of the kernel directly.
bool usable(unsigned interfaceIndex) {
    std::array<char, IF_NAMESIZE> name{};
    if (::if_indextoname(interfaceIndex, name.data()) == nullptr) {
        return false;
    }
    const int probe = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (probe < 0) {
        return true; // cannot tell: only removal is noticed then
    }
    ifreq request{};
    std::memcpy(request.ifr_name, name.data(), IF_NAMESIZE);
    const bool up =
        ::ioctl(probe, SIOCGIFFLAGS, &request) != 0 || (request.ifr_flags & IFF_UP) != 0;
    ::close(probe);
    return up;
}

} // namespace

LinkWatch& LinkWatch::shared() {
    // Never destroyed: its thread blocks in the kernel until the process ends.
    static auto* instance = new LinkWatch();
    return *instance;
}

LinkWatch::Token LinkWatch::watch(unsigned interfaceIndex, std::function<void()> gone) {
    Token token = 0;
    {
        std::lock_guard guard(lock_);
        if (!startLocked()) {
            return 0;
        }
        token = next_++;
        watchers_.emplace(token, std::make_pair(interfaceIndex, std::move(gone)));
    }
    // Gone between the connection's binding and now: no event will come.
    if (!usable(interfaceIndex)) {
        tell(interfaceIndex);
    }
    return token;
}

void LinkWatch::unwatch(Token token) {
    std::lock_guard guard(lock_);
    watchers_.erase(token);
}

bool LinkWatch::startLocked() {
    if (started_ || failed_) {
        return started_;
    }
    const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = RTMGRP_LINK;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
        log::error("interface watch unavailable: {}", std::strerror(errno));
        if (fd >= 0) {
            ::close(fd);
        }
        failed_ = true;
        return false;
    }
    std::thread([this, fd] { run(fd); }).detach();
    started_ = true;
    return true;
}

void LinkWatch::run(int fd) {
    std::vector<char> buffer(64 * 1024);
    for (;;) {
        const ssize_t n = ::recv(fd, buffer.data(), buffer.size(), 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && errno == ENOBUFS) {
            // Events were dropped: ask about each watched interface instead.
            tellWhereUnusable();
            continue;
        }
        if (n <= 0) {
            log::error("interface watch stopped: {}", std::strerror(errno));
            return;
        }
        auto length = static_cast<unsigned>(n);
        for (auto* header = reinterpret_cast<nlmsghdr*>(buffer.data()); NLMSG_OK(header, length);
             header = NLMSG_NEXT(header, length)) {
            if ((header->nlmsg_type != RTM_DELLINK && header->nlmsg_type != RTM_NEWLINK) ||
                header->nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg))) {
                continue;
            }
            const auto* info = static_cast<const ifinfomsg*>(NLMSG_DATA(header));
            if (header->nlmsg_type == RTM_DELLINK || (info->ifi_flags & IFF_UP) == 0) {
                tell(static_cast<unsigned>(info->ifi_index));
            }
        }
    }
}

void LinkWatch::tell(unsigned interfaceIndex) {
    std::vector<std::function<void()>> told;
    {
        std::lock_guard guard(lock_);
        for (auto it = watchers_.begin(); it != watchers_.end();) {
            if (it->second.first == interfaceIndex) {
                told.push_back(std::move(it->second.second));
                it = watchers_.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (auto& gone : told) {
        gone();
    }
}

void LinkWatch::tellWhereUnusable() {
    std::vector<unsigned> watched;
    {
        std::lock_guard guard(lock_);
        for (const auto& [token, watcher] : watchers_) {
            watched.push_back(watcher.first);
        }
    }
    for (unsigned index : watched) {
        if (!usable(index)) {
            tell(index);
        }
    }
}

} // namespace veltrane::platform
