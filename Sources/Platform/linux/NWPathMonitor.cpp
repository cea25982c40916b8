#include "Platform/NWPathMonitor.hpp"

#include "Platform/Logger.hpp"

#include <algorithm>
#include <array>
#include <asio.hpp>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <map>
#include <mutex>
#include <net/if.h>
#include <optional>
#include <set>
#include <sys/socket.h>
#include <thread>
#include <tuple>
#include <unistd.h>

namespace veltrane::platform {

namespace {

using Strand = asio::strand<asio::io_context::executor_type>;

struct Link {
    std::string name;
    unsigned flags = 0;

    friend bool operator==(const Link&, const Link&) = default;
};

// index, family, prefix length, address bytes
using AddressKey = std::tuple<unsigned, unsigned, unsigned, std::string>;

struct Table {
    std::map<unsigned, Link> links;
    std::set<AddressKey> addresses;

    friend bool operator==(const Table&, const Table&) = default;

    // Messages come from the kernel of our own namespace; they are still
    // read with bounds checks, as a short or odd message must not derail us.
    void apply(const nlmsghdr& header) {
        switch (header.nlmsg_type) {
        case RTM_NEWLINK:
        case RTM_DELLINK:
            applyLink(header);
            break;
        case RTM_NEWADDR:
        case RTM_DELADDR:
            applyAddress(header);
            break;
        default:
            break;
        }
    }

    NWPath path() const {
        NWPath path;
        for (const auto& [index, link] : links) {
            if ((link.flags & IFF_UP) != 0 && !link.name.empty()) {
                path.availableInterfaces.push_back(NWInterface{link.name, index});
            }
        }
        return path;
    }

private:
    void applyLink(const nlmsghdr& header) {
        if (header.nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg))) {
            return;
        }
        const auto* info = static_cast<const ifinfomsg*>(NLMSG_DATA(&header));
        // Bridge port messages share the group but describe no interface.
        if (info->ifi_family != AF_UNSPEC || info->ifi_index <= 0) {
            return;
        }
        const auto index = static_cast<unsigned>(info->ifi_index);
        if (header.nlmsg_type == RTM_DELLINK) {
            links.erase(index);
            std::erase_if(addresses,
                          [index](const AddressKey& key) { return std::get<0>(key) == index; });
            return;
        }
        Link& link = links[index];
        link.flags = info->ifi_flags;
        int length = static_cast<int>(IFLA_PAYLOAD(&header));
        for (auto* attr = IFLA_RTA(info); RTA_OK(attr, length); attr = RTA_NEXT(attr, length)) {
            if (attr->rta_type == IFLA_IFNAME) {
                const auto* text = static_cast<const char*>(RTA_DATA(attr));
                link.name.assign(text, strnlen(text, RTA_PAYLOAD(attr)));
            }
        }
    }

    void applyAddress(const nlmsghdr& header) {
        if (header.nlmsg_len < NLMSG_LENGTH(sizeof(ifaddrmsg))) {
            return;
        }
        const auto* info = static_cast<const ifaddrmsg*>(NLMSG_DATA(&header));
        std::string address;
        int length = static_cast<int>(IFA_PAYLOAD(&header));
        for (auto* attr = IFA_RTA(info); RTA_OK(attr, length); attr = RTA_NEXT(attr, length)) {
            // IFA_LOCAL is the interface's own address on point-to-point links.
            if (attr->rta_type == IFA_LOCAL || (attr->rta_type == IFA_ADDRESS && address.empty())) {
                address.assign(static_cast<const char*>(RTA_DATA(attr)), RTA_PAYLOAD(attr));
            }
        }
        AddressKey key{info->ifa_index, info->ifa_family, info->ifa_prefixlen, address};
        if (header.nlmsg_type == RTM_NEWADDR) {
            addresses.insert(std::move(key));
        } else {
            addresses.erase(key);
        }
    }
};

int openNetlink(unsigned groups) {
    int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0) {
        return -1;
    }
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = groups;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
        int saved = errno;
        ::close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

} // namespace

class NWPathMonitor::Impl : public std::enable_shared_from_this<NWPathMonitor::Impl> {
public:
    ~Impl() {
        if (requestFd_ >= 0) {
            ::close(requestFd_);
        }
    }

    void setHandler(PathUpdateHandler handler) {
        std::lock_guard lock(mutex_);
        if (!cancelled_) {
            handler_ = std::move(handler);
        }
    }

    void start(DispatchQueue& queue) {
        std::lock_guard lock(mutex_);
        if (started_ || cancelled_) {
            return;
        }
        started_ = true;
        strand_.emplace(asio::make_strand(queue));
        // Both sockets are made here, on the caller's thread, so they belong
        // to the caller's network namespace.
        int eventsFd = openNetlink(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR);
        requestFd_ = openNetlink(0);
        if (eventsFd < 0 || requestFd_ < 0) {
            log::error("path monitor: cannot open a netlink socket: {}", std::strerror(errno));
            if (eventsFd >= 0) {
                ::close(eventsFd);
            }
            return;
        }
        int bufferSize = 1 << 20;
        ::setsockopt(eventsFd, SOL_SOCKET, SO_RCVBUF, &bufferSize, sizeof bufferSize);
        timeval timeout{5, 0};
        ::setsockopt(requestFd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        events_.emplace(*strand_, eventsFd);
        events_->non_blocking(true);
        // Subscribed before the dump, so nothing that happens in between is
        // lost; events replayed over the dump end in the same final state.
        asio::post(*strand_, [self = shared_from_this()] {
            self->resync();
            self->report();
            self->arm();
        });
    }

    void cancel() {
        std::unique_lock lock(mutex_);
        if (!cancelled_) {
            cancelled_ = true;
            handler_ = nullptr;
            if (strand_) {
                asio::post(*strand_, [self = shared_from_this()] {
                    if (self->events_) {
                        asio::error_code ignored;
                        self->events_->close(ignored);
                    }
                });
            }
        }
        // What the handler uses may go away once we return; a handler that
        // cancels its own monitor does not wait for itself.
        idle_.wait(lock, [this] {
            return reporter_ == std::thread::id() || reporter_ == std::this_thread::get_id();
        });
    }

    NWPath currentPath() const {
        std::lock_guard lock(mutex_);
        return current_;
    }

private:
    // ---- strand only ----

    void arm() {
        if (!events_ || !events_->is_open()) {
            return;
        }
        events_->async_wait(asio::posix::stream_descriptor::wait_read,
                            [self = shared_from_this()](const asio::error_code& ec) {
                                if (!ec) {
                                    self->readable();
                                }
                            });
    }

    void readable() {
        const Table before = table_;
        bool lost = false;
        for (;;) {
            ssize_t count = ::recv(events_->native_handle(), buffer_.data(), buffer_.size(), 0);
            if (count < 0) {
                if (errno == EINTR) {
                    continue;
                }
                if (errno == ENOBUFS) {
                    lost = true; // the kernel dropped events: read the state anew
                    continue;
                }
                if (errno != EAGAIN && errno != EWOULDBLOCK) {
                    log::error("path monitor: netlink receive failed: {}", std::strerror(errno));
                    return;
                }
                break;
            }
            applyAll(static_cast<std::size_t>(count), 0);
        }
        if (lost) {
            resync();
        }
        if (!(table_ == before)) {
            report();
        }
        arm();
    }

    // Applies the messages in buffer_; with a sequence number, also says
    // whether that dump is complete (true) or failed (nullopt).
    std::optional<bool> applyAll(std::size_t size, std::uint32_t sequence) {
        for (std::size_t offset = 0; offset + sizeof(nlmsghdr) <= size;) {
            const auto* header = reinterpret_cast<const nlmsghdr*>(buffer_.data() + offset);
            if (header->nlmsg_len < sizeof(nlmsghdr) || header->nlmsg_len > size - offset) {
                break;
            }
            offset += NLMSG_ALIGN(header->nlmsg_len);
            const bool ours = sequence != 0 && header->nlmsg_seq == sequence;
            if (header->nlmsg_type == NLMSG_DONE && ours) {
                return true;
            }
            if (header->nlmsg_type == NLMSG_ERROR && ours) {
                return std::nullopt;
            }
            table_.apply(*header);
        }
        return false;
    }

    bool dump(std::uint16_t type) {
        struct {
            nlmsghdr header;
            rtgenmsg body;
        } request{};
        request.header.nlmsg_len = sizeof request;
        request.header.nlmsg_type = type;
        request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
        request.header.nlmsg_seq = ++sequence_;
        request.body.rtgen_family = AF_UNSPEC;
        if (::send(requestFd_, &request, sizeof request, 0) < 0) {
            return false;
        }
        for (;;) {
            ssize_t count = ::recv(requestFd_, buffer_.data(), buffer_.size(), 0);
            if (count < 0 && errno == EINTR) {
                continue;
            }
            if (count <= 0) {
                return false;
            }
            auto done = applyAll(static_cast<std::size_t>(count), sequence_);
            if (!done) {
                return false;
            }
            if (*done) {
                return true;
            }
        }
    }

    void resync() {
        table_ = Table{};
        if (!dump(RTM_GETLINK) || !dump(RTM_GETADDR)) {
            log::error("path monitor: reading the interfaces failed: {}", std::strerror(errno));
        }
    }

    void report() {
        NWPath path = table_.path();
        PathUpdateHandler handler;
        {
            std::lock_guard lock(mutex_);
            if (cancelled_) {
                return;
            }
            current_ = path;
            handler = handler_;
            reporter_ = std::this_thread::get_id();
        }
        if (handler) {
            handler(path);
        }
        std::lock_guard lock(mutex_);
        reporter_ = std::thread::id();
        idle_.notify_all();
    }

    mutable std::mutex mutex_;
    std::condition_variable idle_;
    std::thread::id reporter_; // the thread in the handler, if any
    PathUpdateHandler handler_;
    NWPath current_;
    bool started_ = false;
    bool cancelled_ = false;
    std::optional<Strand> strand_;

    // Strand only (and start(), before the strand runs anything).
    std::optional<asio::posix::stream_descriptor> events_;
    int requestFd_ = -1;
    std::uint32_t sequence_ = 0;
    Table table_;
    alignas(nlmsghdr) std::array<char, 65536> buffer_{};
};

NWPathMonitor::NWPathMonitor() : impl_(std::make_shared<Impl>()) {}

NWPathMonitor::~NWPathMonitor() {
    impl_->cancel();
}

void NWPathMonitor::setPathUpdateHandler(PathUpdateHandler handler) {
    impl_->setHandler(std::move(handler));
}

void NWPathMonitor::start(DispatchQueue& queue) {
    impl_->start(queue);
}

void NWPathMonitor::cancel() {
    impl_->cancel();
}

NWPath NWPathMonitor::currentPath() const {
    return impl_->currentPath();
}

} // namespace veltrane::platform
