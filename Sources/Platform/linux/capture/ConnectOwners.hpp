#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>

struct connect_owners;

namespace veltrane::platform::capture {

// An eBPF program on the cgroup2 root that notes, at every connect() and
// sendmsg() of the calling thread's network namespace, which process made the
// call, keyed by the socket's cookie. The sock_diag look-up of a queued
// packet gives that cookie, so the owner of a new connection is known exactly
// even when the process has already exited, and without reading /proc.
//
// The program only observes. It is tied to this object's link descriptors:
// when the process ends, the kernel detaches it.
class ConnectOwners {
public:
    // Nothing, with the reason, when the kernel or privileges do not allow it
    // (no BPF syscall, no cgroup2 hierarchy, not root).
    static std::unique_ptr<ConnectOwners> attach(std::string& whyNot);
    ~ConnectOwners();

    ConnectOwners(const ConnectOwners&) = delete;
    ConnectOwners& operator=(const ConnectOwners&) = delete;

    // The process that last connected or sent on the socket with `cookie`.
    std::optional<pid_t> pidOf(std::uint64_t cookie) const;

private:
    explicit ConnectOwners(::connect_owners* skeleton);
    ::connect_owners* skeleton_;
    int mapFd_;
};

} // namespace veltrane::platform::capture
