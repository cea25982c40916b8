#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <sys/types.h>
#include <unordered_map>
#include <vector>

namespace veltrane::platform::capture {

// What the kernel keeps about a socket's origin. `inode` is what the owner's
// /proc/PID/fd links name; `cgroupId` is the cgroup2 group the socket was
// created in (0 when the kernel does not say); `cookie` is never reused while
// the machine runs, unlike inode numbers.
struct SocketOwner {
    std::uint32_t uid = 0;
    std::uint64_t inode = 0;
    std::uint64_t cgroupId = 0;
    std::uint64_t cookie = 0;

    friend bool operator==(const SocketOwner&, const SocketOwner&) = default;
};

// The socket of this 4-tuple as seen from its own side (source is the local
// end), asked of the kernel with one exact sock_diag request: a TCP socket in
// any state from SYN_SENT on, a UDP socket connected or not. Addresses as text
// ("192.0.2.1", "2001:db8::1"). Nothing when no process owns such a socket
// (none, a listener, or a TIME_WAIT remnant), or for an address that is not of
// `family`. The lookup happens in the calling thread's network namespace, or
// in that of `diagSocket` (from openSocketDiagnosis(); one caller at a time)
// when one is given.
std::optional<SocketOwner> lookupSocket(int family, int protocol, const std::string& source,
                                        std::uint16_t sourcePort, const std::string& destination,
                                        std::uint16_t destinationPort, int diagSocket = -1);

// A sock_diag socket of the calling thread's network namespace, kept by a
// caller that looks up often; -1 on failure.
int openSocketDiagnosis();

// One socket as a sock_diag reply describes it.
struct DiagnosedSocket {
    SocketOwner owner;
    std::uint8_t state = 0; // TCP_* from <netinet/tcp.h>; UDP uses TCP_CLOSE and TCP_ESTABLISHED

    friend bool operator==(const DiagnosedSocket&, const DiagnosedSocket&) = default;
};

// The socket in the netlink reply to request `sequence`; nothing for an error
// reply, another request's reply, or bytes that do not hold a whole message.
std::optional<DiagnosedSocket> parseInetDiagReply(std::span<const std::uint8_t> reply,
                                                  std::uint32_t sequence);

// Finds the process holding a socket without reading every process on the
// machine: the socket's cgroup names the few processes to look at. Safe to
// share between threads; the lock is never held while reading /proc.
//
// When several processes hold the socket (it was inherited across fork), the
// answer is the first found: processes that owned a socket recently are
// tried first, most recent first, then the rest by ascending pid.
class ProcessResolver {
public:
    // How lookups were answered, for statistics and tests.
    struct Counters {
        std::uint64_t fromHook = 0;   // named by the connect hook, by cookie
        std::uint64_t fromCache = 0;  // a remembered owner still holding the socket
        std::uint64_t fromCgroup = 0; // found among the socket's cgroup members
        std::uint64_t fromUid = 0;    // found among all processes of the uid
        std::uint64_t notFound = 0;

        friend bool operator==(const Counters&, const Counters&) = default;
    };

    // Uses this machine's cgroup2 hierarchy, found once per process.
    ProcessResolver();
    // `cgroup2Mount` absent: every look-up takes the uid path. `capacity`
    // bounds the remembered socket owners.
    explicit ProcessResolver(std::optional<std::string> cgroup2Mount, std::size_t capacity = 4096);

    // Asked first, by the socket's cookie, when set (the connect hook); set
    // before the resolver is shared between threads.
    void setCookieLookup(std::function<std::optional<pid_t>(std::uint64_t)> lookup);

    std::optional<pid_t> pidFor(const SocketOwner& owner);
    Counters counters() const;

private:
    struct Holder {
        pid_t pid = 0;
        int fd = -1;
        std::uint64_t cookie = 0;
    };

    std::optional<Holder> remembered(const SocketOwner& owner);
    std::optional<std::string> cgroupPath(std::uint64_t cgroupId);
    std::vector<pid_t> ordered(std::vector<pid_t> candidates);
    void remember(const SocketOwner& owner, const Holder& holder);

    const std::optional<std::string> mount_;
    const std::size_t capacity_;
    std::function<std::optional<pid_t>(std::uint64_t)> byCookie_;

    mutable std::mutex mutex_;
    // cgroup id (the directory's inode number) to its path under mount_.
    std::unordered_map<std::uint64_t, std::string> cgroupPaths_;
    // Socket inode to holder, in two generations: when `recent_` fills up
    // it becomes `older_` and the previous `older_` is dropped, so entries in
    // use survive and memory stays bounded without per-entry bookkeeping.
    std::unordered_map<std::uint64_t, Holder> recent_;
    std::unordered_map<std::uint64_t, Holder> older_;
    // Processes that owned a socket lately, most recent first.
    std::vector<pid_t> hotPids_;
    Counters counters_;
};

} // namespace veltrane::platform::capture
