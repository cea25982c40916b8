#include "Platform/linux/capture/SocketOwners.hpp"

#include "Platform/linux/Cgroup2.hpp"
#include "Platform/linux/SmallFile.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace veltrane::platform::capture {

namespace {

// Most connections come from a few processes (a browser's network process,
// a package manager); remembering those is enough to try them first.
constexpr std::size_t hotPidLimit = 16;
// cgroup trees are shallow; the limit only guards against a pathological one.
constexpr int cgroupDepthLimit = 64;

template <typename Number>
std::optional<Number> parseNumber(std::string_view text) {
    Number value{};
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc{} || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

template <typename Visit>
void forEachLine(std::string_view text, Visit visit) {
    while (!text.empty()) {
        auto end = text.find('\n');
        visit(text.substr(0, end));
        if (end == std::string_view::npos) {
            break;
        }
        text.remove_prefix(end + 1);
    }
}

std::vector<std::string_view> fields(std::string_view line) {
    std::vector<std::string_view> result;
    while (!line.empty()) {
        auto start = line.find_first_not_of(" \t");
        if (start == std::string_view::npos) {
            break;
        }
        line.remove_prefix(start);
        auto end = line.find_first_of(" \t");
        result.push_back(line.substr(0, end));
        if (end == std::string_view::npos) {
            break;
        }
        line.remove_prefix(end);
    }
    return result;
}

const std::optional<std::string>& systemCgroup2Mount() {
    return platform::cgroup2Mount();
}

std::string procPath(pid_t pid, std::string_view entry) {
    std::string result = "/proc/" + std::to_string(pid) + "/";
    result += entry;
    return result;
}

std::string socketLink(std::uint64_t inode) {
    return "socket:[" + std::to_string(inode) + "]";
}

bool linkEquals(int directory, const char* name, std::string_view expected) {
    // Socket links are under 30 bytes; a link filling the buffer is no match.
    std::array<char, 64> buffer{};
    auto length = ::readlinkat(directory, name, buffer.data(), buffer.size());
    return length >= 0 && static_cast<std::size_t>(length) == expected.size() &&
           std::memcmp(buffer.data(), expected.data(), expected.size()) == 0;
}

// The descriptor under which `pid` holds the socket whose link is `link`.
std::optional<int> descriptorHolding(pid_t pid, std::string_view link) {
    int directory = ::open(procPath(pid, "fd").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0) {
        return std::nullopt; // gone, or not ours to look at
    }
    DIR* entries = ::fdopendir(directory);
    if (entries == nullptr) {
        ::close(directory);
        return std::nullopt;
    }
    std::optional<int> found;
    while (!found) {
        const dirent* entry = ::readdir(entries);
        if (entry == nullptr) {
            break;
        }
        if (entry->d_name[0] != '.' && linkEquals(::dirfd(entries), entry->d_name, link)) {
            found = parseNumber<int>(entry->d_name);
        }
    }
    ::closedir(entries);
    return found;
}

std::vector<pid_t> readPids(const std::string& procsPath) {
    std::vector<pid_t> pids;
    if (auto procs = readSmallFile(procsPath, 16 << 20)) {
        forEachLine(*procs, [&](std::string_view line) {
            if (auto pid = parseNumber<pid_t>(line); pid && *pid > 0) {
                pids.push_back(*pid);
            }
        });
    }
    std::sort(pids.begin(), pids.end());
    return pids;
}

// Any of the real, effective, saved and file-system uids: a socket carries
// the uid its creator had then, and set-uid programs switch between them.
bool runsAs(pid_t pid, std::uint32_t uid) {
    auto status = readSmallFile(procPath(pid, "status"), 1 << 16);
    if (!status) {
        return false;
    }
    bool matches = false;
    forEachLine(*status, [&](std::string_view line) {
        if (!line.starts_with("Uid:")) {
            return;
        }
        auto parts = fields(line.substr(4));
        matches = std::any_of(parts.begin(), parts.end(), [&](std::string_view part) {
            return parseNumber<std::uint32_t>(part) == uid;
        });
    });
    return matches;
}

std::vector<pid_t> processesOfUid(std::uint32_t uid, const std::vector<pid_t>& skip) {
    std::vector<pid_t> pids;
    DIR* proc = ::opendir("/proc");
    if (proc == nullptr) {
        return pids;
    }
    while (const dirent* entry = ::readdir(proc)) {
        auto pid = parseNumber<pid_t>(entry->d_name);
        if (pid && *pid > 0 && !std::binary_search(skip.begin(), skip.end(), *pid) &&
            runsAs(*pid, uid)) {
            pids.push_back(*pid);
        }
    }
    ::closedir(proc);
    std::sort(pids.begin(), pids.end());
    return pids;
}

// Every cgroup below `directory` (which this takes over), keyed by the
// directory's inode number: for cgroup2 that number is the cgroup id.
void walkCgroups(int directory, const std::string& path, int depth,
                 std::unordered_map<std::uint64_t, std::string>& found) {
    DIR* entries = ::fdopendir(directory);
    if (entries == nullptr) {
        ::close(directory);
        return;
    }
    while (const dirent* entry = ::readdir(entries)) {
        std::string_view name = entry->d_name;
        if (entry->d_type != DT_DIR || name == "." || name == "..") {
            continue;
        }
        std::string child = path + "/" + entry->d_name;
        found[entry->d_ino] = child;
        if (depth < cgroupDepthLimit) {
            int next = ::openat(::dirfd(entries), entry->d_name,
                                O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
            if (next >= 0) {
                walkCgroups(next, child, depth + 1, found);
            }
        }
    }
    ::closedir(entries);
}

std::unordered_map<std::uint64_t, std::string> readCgroupTree(const std::string& mount) {
    std::unordered_map<std::uint64_t, std::string> found;
    int root = ::open(mount.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (root < 0) {
        return found;
    }
    struct stat info {};
    if (::fstat(root, &info) == 0) {
        found[info.st_ino] = "";
    }
    walkCgroups(root, "", 0, found);
    return found;
}

std::atomic<std::uint32_t> nextSequence{1};

} // namespace

int openSocketDiagnosis() {
    return ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
}

namespace {

std::optional<SocketOwner> askKernel(const inet_diag_req_v2& request, int protocol,
                                     int diagSocket) {
    struct {
        nlmsghdr header;
        inet_diag_req_v2 body;
    } message{};
    auto sequence = nextSequence.fetch_add(1, std::memory_order_relaxed);
    message.header.nlmsg_len = sizeof(message);
    message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    message.header.nlmsg_flags = NLM_F_REQUEST;
    message.header.nlmsg_seq = sequence;
    message.body = request;

    // Without the caller's socket, one for this look-up: a socket belongs to
    // the network namespace of the thread that makes it, and callers (tests,
    // the host) may switch namespaces.
    const int fd = diagSocket >= 0 ? diagSocket : openSocketDiagnosis();
    if (fd < 0) {
        return std::nullopt;
    }
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    ssize_t sent = -1;
    do {
        sent = ::sendto(fd, &message, sizeof(message), 0, reinterpret_cast<sockaddr*>(&kernel),
                        sizeof(kernel));
    } while (sent < 0 && errno == EINTR);

    alignas(nlmsghdr) std::array<std::uint8_t, 8192> buffer{};
    sockaddr_nl from{};
    socklen_t fromLength = sizeof(from);
    ssize_t received = -1;
    if (sent == static_cast<ssize_t>(sizeof(message))) {
        // The kernel answers sock_diag requests inside sendto, so the reply
        // is queued already; not blocking keeps a surprise from hanging us.
        // On a kept socket, replies to earlier requests that were never read
        // are passed over.
        for (;;) {
            received = ::recvfrom(fd, buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC,
                                  reinterpret_cast<sockaddr*>(&from), &fromLength);
            if (received < 0 && errno == EINTR) {
                continue;
            }
            if (received >= static_cast<ssize_t>(sizeof(nlmsghdr)) &&
                static_cast<std::size_t>(received) <= buffer.size() &&
                reinterpret_cast<const nlmsghdr*>(buffer.data())->nlmsg_seq != sequence) {
                continue;
            }
            break;
        }
    }
    if (fd != diagSocket) {
        ::close(fd);
    }
    // Only the kernel (port 0) answers; a cut-off reply is no reply.
    if (received <= 0 || static_cast<std::size_t>(received) > buffer.size() || from.nl_pid != 0) {
        return std::nullopt;
    }
    auto socket = parseInetDiagReply(
        std::span<const std::uint8_t>(buffer.data(), static_cast<std::size_t>(received)), sequence);
    // An exact TCP look-up falls back to a listener on the source port, and
    // TIME_WAIT or half-open remnants have no inode: none of them is the
    // socket a process is connecting with.
    if (!socket || socket->owner.inode == 0 ||
        (protocol == IPPROTO_TCP && socket->state == TCP_LISTEN)) {
        return std::nullopt;
    }
    return socket->owner;
}

std::optional<DiagnosedSocket> parseDiagMessage(std::span<const std::uint8_t> body) {
    inet_diag_msg message{};
    if (body.size() < sizeof(message)) {
        return std::nullopt;
    }
    std::memcpy(&message, body.data(), sizeof(message));
    DiagnosedSocket socket;
    socket.state = message.idiag_state;
    socket.owner.uid = message.idiag_uid;
    socket.owner.inode = message.idiag_inode;
    socket.owner.cookie =
        message.id.idiag_cookie[0] | (std::uint64_t{message.id.idiag_cookie[1]} << 32);

    auto attributes =
        body.subspan(std::min<std::size_t>(NLMSG_ALIGN(sizeof(message)), body.size()));
    while (attributes.size() >= sizeof(nlattr)) {
        nlattr attribute{};
        std::memcpy(&attribute, attributes.data(), sizeof(attribute));
        if (attribute.nla_len < sizeof(attribute) || attribute.nla_len > attributes.size()) {
            break;
        }
        // The kernel sends the cgroup id unasked (5.7 and later, with
        // socket cgroup data); older kernels leave it out.
        std::uint64_t cgroupId = 0;
        if ((attribute.nla_type & NLA_TYPE_MASK) == INET_DIAG_CGROUP_ID &&
            attribute.nla_len >= sizeof(attribute) + sizeof(cgroupId)) {
            std::memcpy(&cgroupId, attributes.data() + sizeof(attribute), sizeof(cgroupId));
            socket.owner.cgroupId = cgroupId;
        }
        attributes = attributes.subspan(
            std::min<std::size_t>(NLA_ALIGN(attribute.nla_len), attributes.size()));
    }
    return socket;
}

} // namespace

std::optional<DiagnosedSocket> parseInetDiagReply(std::span<const std::uint8_t> reply,
                                                  std::uint32_t sequence) {
    while (reply.size() >= sizeof(nlmsghdr)) {
        nlmsghdr header{};
        std::memcpy(&header, reply.data(), sizeof(header));
        if (header.nlmsg_len < sizeof(header) || header.nlmsg_len > reply.size()) {
            return std::nullopt;
        }
        if (header.nlmsg_seq == sequence) {
            if (header.nlmsg_type == SOCK_DIAG_BY_FAMILY) {
                return parseDiagMessage(
                    reply.subspan(sizeof(header), header.nlmsg_len - sizeof(header)));
            }
            if (header.nlmsg_type == NLMSG_ERROR || header.nlmsg_type == NLMSG_DONE) {
                return std::nullopt;
            }
        }
        reply = reply.subspan(std::min<std::size_t>(NLMSG_ALIGN(header.nlmsg_len), reply.size()));
    }
    return std::nullopt;
}

std::optional<SocketOwner> lookupSocket(int family, int protocol, const std::string& source,
                                        std::uint16_t sourcePort, const std::string& destination,
                                        std::uint16_t destinationPort, int diagSocket) {
    if ((family != AF_INET && family != AF_INET6) ||
        (protocol != IPPROTO_TCP && protocol != IPPROTO_UDP)) {
        return std::nullopt;
    }
    inet_diag_req_v2 request{};
    request.sdiag_family = static_cast<std::uint8_t>(family);
    request.sdiag_protocol = static_cast<std::uint8_t>(protocol);
    request.idiag_states = ~0U;
    request.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    request.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    // UDP sockets are looked up as for an arriving datagram, so for UDP the
    // request's source is the far end and its destination the socket's own.
    const bool fromFarEnd = protocol == IPPROTO_UDP;
    const auto& requestSource = fromFarEnd ? destination : source;
    const auto& requestDestination = fromFarEnd ? source : destination;
    request.id.idiag_sport = htons(fromFarEnd ? destinationPort : sourcePort);
    request.id.idiag_dport = htons(fromFarEnd ? sourcePort : destinationPort);
    if (::inet_pton(family, requestSource.c_str(), request.id.idiag_src) != 1 ||
        ::inet_pton(family, requestDestination.c_str(), request.id.idiag_dst) != 1) {
        return std::nullopt;
    }
    return askKernel(request, protocol, diagSocket);
}

ProcessResolver::ProcessResolver() : ProcessResolver(systemCgroup2Mount()) {}

ProcessResolver::ProcessResolver(std::optional<std::string> cgroup2Mount, std::size_t capacity)
    : mount_(std::move(cgroup2Mount)), capacity_(std::max<std::size_t>(capacity, 2)) {}

ProcessResolver::Counters ProcessResolver::counters() const {
    std::lock_guard lock(mutex_);
    return counters_;
}

void ProcessResolver::setCookieLookup(std::function<std::optional<pid_t>(std::uint64_t)> lookup) {
    byCookie_ = std::move(lookup);
}

std::optional<pid_t> ProcessResolver::pidFor(const SocketOwner& owner) {
    auto count = [this](std::uint64_t Counters::*counter) {
        std::lock_guard lock(mutex_);
        ++(counters_.*counter);
    };
    // The caller of connect() itself: exact for a process that has just
    // started, and no /proc read at all.
    if (byCookie_ && owner.cookie != 0) {
        if (auto pid = byCookie_(owner.cookie)) {
            count(&Counters::fromHook);
            return pid;
        }
    }
    if (owner.inode == 0) {
        count(&Counters::notFound);
        return std::nullopt;
    }
    const std::string link = socketLink(owner.inode);

    // The same socket is asked about again for every datagram flow it opens.
    if (auto holder = remembered(owner)) {
        // The descriptor still naming the socket proves the holder, whatever
        // happened to the process id meanwhile.
        auto descriptor = procPath(holder->pid, "fd/" + std::to_string(holder->fd));
        if (linkEquals(AT_FDCWD, descriptor.c_str(), link)) {
            count(&Counters::fromCache);
            return holder->pid;
        }
        std::lock_guard lock(mutex_);
        recent_.erase(owner.inode);
        older_.erase(owner.inode);
    }

    auto search = [&](const std::vector<pid_t>& candidates) -> std::optional<pid_t> {
        for (pid_t pid : ordered(candidates)) {
            if (auto fd = descriptorHolding(pid, link)) {
                remember(owner, Holder{pid, *fd, owner.cookie});
                return pid;
            }
        }
        return std::nullopt;
    };

    // The common path: only the members of the cgroup the socket was made in.
    std::vector<pid_t> members;
    if (owner.cgroupId != 0 && mount_) {
        if (auto path = cgroupPath(owner.cgroupId)) {
            members = readPids(*mount_ + *path + "/cgroup.procs");
            if (auto pid = search(members)) {
                count(&Counters::fromCgroup);
                return pid;
            }
        }
    }

    // The slow path: every process of the socket's uid, each read from /proc.
    // Taken when the kernel reports no cgroup, without a cgroup2 hierarchy,
    // and when the socket's holder left the cgroup the socket was made in (a
    // process that moved, or a socket passed to another process).
    if (auto pid = search(processesOfUid(owner.uid, members))) {
        count(&Counters::fromUid);
        return pid;
    }
    count(&Counters::notFound);
    return std::nullopt;
}

std::optional<ProcessResolver::Holder> ProcessResolver::remembered(const SocketOwner& owner) {
    std::lock_guard lock(mutex_);
    std::optional<Holder> holder;
    if (auto entry = recent_.find(owner.inode); entry != recent_.end()) {
        holder = entry->second;
    } else if (auto old = older_.find(owner.inode); old != older_.end()) {
        holder = old->second;
        older_.erase(old);
        recent_[owner.inode] = *holder; // in use again: keep it past the next turnover
        if (recent_.size() >= capacity_ / 2) {
            older_ = std::move(recent_);
            recent_.clear();
        }
    }
    // Inode numbers come round again; cookies do not.
    if (holder && holder->cookie != 0 && owner.cookie != 0 && holder->cookie != owner.cookie) {
        return std::nullopt;
    }
    return holder;
}

void ProcessResolver::remember(const SocketOwner& owner, const Holder& holder) {
    std::lock_guard lock(mutex_);
    older_.erase(owner.inode);
    recent_[owner.inode] = holder;
    if (recent_.size() >= capacity_ / 2) {
        older_ = std::move(recent_);
        recent_.clear();
    }
    std::erase(hotPids_, holder.pid);
    hotPids_.insert(hotPids_.begin(), holder.pid);
    if (hotPids_.size() > hotPidLimit) {
        hotPids_.pop_back();
    }
}

std::vector<pid_t> ProcessResolver::ordered(std::vector<pid_t> candidates) {
    std::vector<pid_t> hot;
    {
        std::lock_guard lock(mutex_);
        hot = hotPids_;
    }
    // A process that just opened a socket is the likeliest to open the next.
    std::vector<pid_t> result;
    result.reserve(candidates.size());
    for (pid_t pid : hot) {
        if (std::binary_search(candidates.begin(), candidates.end(), pid)) {
            result.push_back(pid);
        }
    }
    for (pid_t pid : candidates) {
        if (std::find(hot.begin(), hot.end(), pid) == hot.end()) {
            result.push_back(pid);
        }
    }
    return result;
}

std::optional<std::string> ProcessResolver::cgroupPath(std::uint64_t cgroupId) {
    {
        std::lock_guard lock(mutex_);
        if (auto entry = cgroupPaths_.find(cgroupId); entry != cgroupPaths_.end()) {
            return entry->second;
        }
    }
    // New cgroups appear with every launched application; the tree has a few
    // hundred directories at most, so reading it again on a miss is cheap.
    auto tree = readCgroupTree(*mount_);
    std::lock_guard lock(mutex_);
    cgroupPaths_ = std::move(tree);
    if (auto entry = cgroupPaths_.find(cgroupId); entry != cgroupPaths_.end()) {
        return entry->second;
    }
    return std::nullopt;
}

} // namespace veltrane::platform::capture
