// The running system, our privileges and the kernel features the capture
// needs, each probed the way the capture itself would use it.
#include "ControlCommands.hpp"
#include "Platform/linux/SmallFile.hpp"
#include "Platform/linux/capture/CaptureTables.hpp"
#include "Platform/linux/capture/FlowQueue.hpp"
#include "doctor/DoctorCheck.hpp"
#include "mcp/AutomationConnection.hpp"
#include "run/NetworkNamespace.hpp"

#include <cerrno>
#include <cstring>
#include <linux/bpf.h>
#include <linux/capability.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

namespace veltrane::app::doctor {
namespace {

constexpr const char* startFix = "start it: sudo veltrane run (Ctrl-C stops it)";

bool exists(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

std::string joinedPaths(const std::vector<std::string>& paths) {
    std::string text;
    for (const auto& path : paths) {
        text += (text.empty() ? "" : " or ") + path;
    }
    return text;
}

// How far we can tell that the kernel has a module: loaded (or built in
// with a /sys entry), loadable on first use, or unknown when there is no
// module index to ask.
enum class Presence { loaded, loadable, absent, unknown };

Presence modulePresence(const std::vector<std::string>& names) {
    for (const auto& name : names) {
        if (exists("/sys/module/" + name)) {
            return Presence::loaded;
        }
    }
    utsname system{};
    ::uname(&system);
    const std::string index = std::string("/lib/modules/") + system.release;
    bool indexed = false;
    for (const char* file : {"/modules.builtin", "/modules.dep"}) {
        const auto text = platform::readSmallFile(index + file, 16 << 20);
        if (!text) {
            continue;
        }
        indexed = true;
        for (const auto& name : names) {
            if (text->find("/" + name + ".ko") != std::string::npos) {
                return Presence::loadable;
            }
        }
    }
    return indexed ? Presence::absent : Presence::unknown;
}

// Without a module index (a container's view of the kernel), a feature is
// tried as the capture itself would use it, in a network namespace that a
// child makes and drops on exit: the kernel's answer is the answer. `tryIt`
// runs in the child and says loaded, absent or unknown. Needs root, and no
// thread of ours yet (the child allocates).
Presence probeInFreshNamespace(Presence (*tryIt)()) {
    if (::geteuid() != 0) {
        return Presence::unknown;
    }
    const pid_t child = ::fork();
    if (child < 0) {
        return Presence::unknown;
    }
    if (child == 0) {
        bool wasDown = false;
        if (::unshare(CLONE_NEWNET) != 0 || !bringLoopbackUp(wasDown)) {
            ::_exit(static_cast<int>(Presence::unknown));
        }
        ::_exit(static_cast<int>(tryIt()));
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status)) {
        return Presence::unknown;
    }
    const auto answer = static_cast<Presence>(WEXITSTATUS(status));
    return answer == Presence::loaded || answer == Presence::absent ? answer : Presence::unknown;
}

Finding netfilterQueue() {
    const char* check = "netfilter queue";
    // The file is there in every network namespace once the queue is in
    // the kernel, built in or loaded.
    if (exists("/proc/net/netfilter/nfnetlink_queue")) {
        return Finding::good(check, "nfnetlink_queue is in the kernel");
    }
    auto presence = modulePresence({"nfnetlink_queue"});
    if (presence == Presence::unknown) {
        // Binding a queue loads the module where the kernel can.
        presence = probeInFreshNamespace([] {
            std::string whyNot;
            if (platform::capture::FlowQueue::open(0, whyNot)) {
                return Presence::loaded;
            }
            return whyNot.find("has no netfilter queues") != std::string::npos ? Presence::absent
                                                                               : Presence::unknown;
        });
    }
    switch (presence) {
    case Presence::loaded:
        return Finding::good(check, "nfnetlink_queue is in the kernel");
    case Presence::loadable:
        return Finding::good(check, "nfnetlink_queue loads on first use");
    case Presence::unknown:
        return Finding::warning(check, "cannot tell whether the kernel has nfnetlink_queue",
                                "sudo modprobe nfnetlink_queue, then run doctor again");
    case Presence::absent:
        break;
    }
    return Finding::failure(check, "the kernel has no nfnetlink_queue, so no flow can be decided",
                            "use a kernel built with CONFIG_NETFILTER_NETLINK_QUEUE");
}

Finding transparentProxy() {
    const char* check = "TPROXY";
    auto presence = modulePresence({"nft_tproxy", "nf_tproxy_ipv4"});
    if (presence == Presence::unknown) {
        // The capture's own tables, UDP carried: the tproxy rule is refused
        // where the kernel has no TPROXY.
        presence = probeInFreshNamespace([] {
            platform::capture::TableConfig config;
            config.name = "veltrane-doctor";
            config.tcpListenerPort = 1;
            config.udpTransparentPort = 1;
            std::string whyNot;
            if (platform::capture::CaptureTables::install(config, whyNot)) {
                return Presence::loaded;
            }
            return whyNot.find("tproxy") != std::string::npos ? Presence::absent
                                                              : Presence::unknown;
        });
    }
    switch (presence) {
    case Presence::loaded:
        return Finding::good(check, "nft_tproxy is in the kernel");
    case Presence::loadable:
        return Finding::good(check, "nft_tproxy loads on first use");
    case Presence::unknown:
        return Finding::warning(check, "cannot tell whether the kernel has nft_tproxy",
                                "sudo modprobe nft_tproxy, then run doctor again");
    case Presence::absent:
        break;
    }
    return Finding::warning(check, "the kernel has no nft_tproxy: QUIC (UDP/443) cannot be carried",
                            "use a kernel built with CONFIG_NFT_TPROXY; TCP is carried without it");
}

// One dump request for listening TCP sockets, as the owner lookups make.
Finding ownerTables() {
    const char* check = "owner tables";
    const std::string fix =
        "load sock_diag support: sudo modprobe inet_diag tcp_diag udp_diag (CONFIG_INET_DIAG)";
    const int fd = ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (fd < 0) {
        return Finding::failure(check, std::string("no sock_diag socket: ") + std::strerror(errno),
                                fix);
    }
    struct {
        nlmsghdr header;
        inet_diag_req_v2 request;
    } message{};
    message.header.nlmsg_len = sizeof message;
    message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    message.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    message.request.sdiag_family = AF_INET;
    message.request.sdiag_protocol = IPPROTO_TCP;
    message.request.idiag_states = 1U << 10; // TCP_LISTEN
    timeval timeout{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    alignas(nlmsghdr) char reply[8192];
    ssize_t got = -1;
    if (::send(fd, &message, sizeof message, 0) == static_cast<ssize_t>(sizeof message)) {
        got = ::recv(fd, reply, sizeof reply, 0);
    }
    const int error = errno;
    ::close(fd);
    if (got < static_cast<ssize_t>(sizeof(nlmsghdr))) {
        return Finding::failure(check,
                                std::string("sock_diag did not answer: ") +
                                    (got < 0 ? std::strerror(error) : "short reply"),
                                fix);
    }
    const auto* header = reinterpret_cast<const nlmsghdr*>(reply);
    if (header->nlmsg_type == NLMSG_ERROR &&
        got >= static_cast<ssize_t>(NLMSG_LENGTH(sizeof(nlmsgerr)))) {
        const auto* failed = static_cast<const nlmsgerr*>(NLMSG_DATA(header));
        if (failed->error != 0) {
            return Finding::failure(
                check, std::string("sock_diag refused a dump: ") + std::strerror(-failed->error),
                fix);
        }
    }
    return Finding::good(check, "sock_diag answers: connections are matched to their sockets");
}

// A tiny map is the cheapest thing the bpf syscall makes; where it is
// refused, the connect hook would be too.
Finding extendedBPF() {
    const char* check = "eBPF";
    bpf_attr attributes{};
    attributes.map_type = BPF_MAP_TYPE_ARRAY;
    attributes.key_size = 4;
    attributes.value_size = 4;
    attributes.max_entries = 1;
    const auto fd = ::syscall(SYS_bpf, BPF_MAP_CREATE, &attributes, sizeof attributes);
    if (fd < 0) {
        return Finding::warning(check,
                                std::string("the kernel refuses eBPF (") + std::strerror(errno) +
                                    "): a new process's first connection may be named late",
                                "run as root on a kernel with CONFIG_BPF_SYSCALL and "
                                "CONFIG_CGROUP_BPF; connections are still matched through /proc");
    }
    ::close(static_cast<int>(fd));
    return Finding::good(check, "the bpf syscall works: the connect hook can name processes");
}

} // namespace

std::vector<Finding> runningSystemChecks() {
    std::vector<Finding> findings;
    try {
        auto client = connectAutomation("");
        findings.push_back(Finding::good("running system", "the automation service answers on " +
                                                               client->socketPath()));
    } catch (const kit::AutomationClientError& error) {
        if (error.kind() == kit::AutomationClientError::Kind::notRunning) {
            findings.push_back(Finding::failure(
                "running system", "no automation service answers at " + error.socketPath(),
                startFix));
        } else {
            findings.push_back(
                Finding::failure("running system", error.localizedDescription(),
                                 error.kind() == kit::AutomationClientError::Kind::permissionDenied
                                     ? "run doctor as root, or as a member of "
                                       "the socket's group (veltrane)"
                                     : "restart veltrane run"));
        }
    }
    const auto paths = control::defaultSocketPaths();
    std::string lastError;
    for (const auto& path : paths) {
        kit::ExtensionControlClient client(path, std::chrono::seconds(2));
        try {
            client.connect();
            if (client.ping()) {
                findings.push_back(Finding::good("extension", "the extension answers on " + path));
                return findings;
            }
            lastError = path + " does not answer a ping";
        } catch (const kit::ExtensionControlError& error) {
            if (error.kind() != kit::ExtensionControlError::Kind::notRunning) {
                lastError = error.localizedDescription();
            }
        }
    }
    findings.push_back(Finding::failure(
        "extension",
        lastError.empty() ? "no extension answers at " + joinedPaths(paths) : lastError,
        findings.front().status == Finding::Status::ok
            ? "routing is switched off or the extension stopped: restart veltrane run"
            : startFix));
    return findings;
}

Finding privilegeCheck() {
    if (::geteuid() == 0) {
        return Finding::good("privileges", "running as root");
    }
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3]{};
    if (::syscall(SYS_capget, &header, data) == 0 &&
        (data[CAP_NET_ADMIN / 32].effective & (1U << (CAP_NET_ADMIN % 32))) != 0) {
        return Finding::good("privileges", "CAP_NET_ADMIN is in the effective set");
    }
    return Finding::failure("privileges",
                            "neither root nor CAP_NET_ADMIN: tables, queue and sockets are "
                            "out of reach, and the checks below see less",
                            "run as root: sudo veltrane doctor");
}

std::vector<Finding> kernelChecks() {
    return {netfilterQueue(), transparentProxy(), ownerTables(), extendedBPF()};
}

} // namespace veltrane::app::doctor
