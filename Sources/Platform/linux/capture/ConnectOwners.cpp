#include "Platform/linux/capture/ConnectOwners.hpp"

#include "Platform/linux/Cgroup2.hpp"
#include "Platform/linux/capture/bpf/ConnectOwners.skel.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace veltrane::platform::capture {

namespace {

#ifndef SO_NETNS_COOKIE
#define SO_NETNS_COOKIE 71
#endif

// libbpf narrates loading on stderr; the reason for a failure reaches the
// caller through errno instead, once.
int quietLibbpf(enum libbpf_print_level, const char*, va_list) {
    return 0;
}

// 0 when the kernel cannot tell (before 5.14): then every namespace's
// sockets are remembered, which costs memory in the map, not correctness.
std::uint64_t currentNetnsCookie() {
    const int probe = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (probe < 0) {
        return 0;
    }
    std::uint64_t cookie = 0;
    socklen_t length = sizeof cookie;
    if (::getsockopt(probe, SOL_SOCKET, SO_NETNS_COOKIE, &cookie, &length) != 0) {
        cookie = 0;
    }
    ::close(probe);
    return cookie;
}

std::string failure(const char* step, int error) {
    return std::string("eBPF connect hook unavailable: ") + step + ": " + std::strerror(error);
}

} // namespace

std::unique_ptr<ConnectOwners> ConnectOwners::attach(std::string& whyNot) {
    const auto& mount = cgroup2Mount();
    if (!mount) {
        whyNot = "eBPF connect hook unavailable: no cgroup2 hierarchy";
        return nullptr;
    }
    libbpf_set_print(quietLibbpf);
    auto* skeleton = connect_owners__open();
    if (!skeleton) {
        whyNot = failure("open", errno);
        return nullptr;
    }
    skeleton->rodata->netns_cookie = currentNetnsCookie();
    if (const int error = connect_owners__load(skeleton); error != 0) {
        connect_owners__destroy(skeleton);
        whyNot = failure("load", -error);
        return nullptr;
    }
    const int root = ::open(mount->c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (root < 0) {
        connect_owners__destroy(skeleton);
        whyNot = failure(mount->c_str(), errno);
        return nullptr;
    }
    // Links, not legacy attachments: other programs' hooks on the same
    // cgroup stay as they are, and ours go when our descriptors close.
    struct Hook {
        bpf_program* program;
        bpf_link** link;
    };
    const Hook hooks[] = {{skeleton->progs.connect4, &skeleton->links.connect4},
                          {skeleton->progs.connect6, &skeleton->links.connect6},
                          {skeleton->progs.sendmsg4, &skeleton->links.sendmsg4},
                          {skeleton->progs.sendmsg6, &skeleton->links.sendmsg6}};
    for (const auto& hook : hooks) {
        *hook.link = bpf_program__attach_cgroup(hook.program, root);
        if (!*hook.link) {
            const int error = errno;
            ::close(root);
            connect_owners__destroy(skeleton);
            whyNot = failure("attach", error);
            return nullptr;
        }
    }
    ::close(root);
    return std::unique_ptr<ConnectOwners>(new ConnectOwners(skeleton));
}

ConnectOwners::ConnectOwners(::connect_owners* skeleton)
    : skeleton_(skeleton), mapFd_(bpf_map__fd(skeleton->maps.owners)) {}

ConnectOwners::~ConnectOwners() {
    connect_owners__destroy(skeleton_);
}

std::optional<pid_t> ConnectOwners::pidOf(std::uint64_t cookie) const {
    std::uint32_t pid = 0;
    if (cookie == 0 || bpf_map_lookup_elem(mapFd_, &cookie, &pid) != 0 || pid == 0) {
        return std::nullopt;
    }
    return static_cast<pid_t>(pid);
}

} // namespace veltrane::platform::capture
