#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <vector>

struct mnl_socket;

namespace veltrane::platform::capture {

// Packet and connection marks the capture rules read and write. Only the bits
// under `mask` are ours, so the values coexist with the fwmarks of VPNs and
// containers. Each value lies under the mask, is non-zero and differs from the
// others.
struct Marks {
    std::uint32_t mask = 0x00700000;
    // Carried by the system's own upstream sockets (SO_MARK): never captured.
    std::uint32_t bypass = 0x00100000;
    // A verdict: the flow goes to the host's listener or transparent socket.
    std::uint32_t carry = 0x00200000;
    // A verdict: the application's connect() fails at once.
    std::uint32_t refuse = 0x00300000;

    friend bool operator==(const Marks&, const Marks&) = default;
};

// An address prefix of one family.
struct Network {
    int family = AF_INET; // AF_INET or AF_INET6
    std::array<std::uint8_t, 16> address{};
    unsigned length = 32;

    // "192.0.2.0/24", "2001:db8::/32", or a lone address; nothing otherwise.
    static std::optional<Network> parse(const std::string& text);
    friend bool operator==(const Network&, const Network&) = default;
};

struct TableConfig {
    std::string name = "veltrane";
    std::uint16_t queueNumber = 4242;
    // Where carried TCP is redirected: the host listens on it on 127.0.0.1 and ::1.
    std::uint16_t tcpListenerPort = 0;
    // Where carried UDP/443 arrives through TPROXY (an IP_TRANSPARENT socket
    // on 127.0.0.1 and ::1). 0: UDP is neither queued nor carried.
    std::uint16_t udpTransparentPort = 0;
    // Also queue new UDP flows to port 53 (and carry them like UDP/443):
    // the queries of applications and of a local stub resolver's upstream
    // side. Those to loopback (the stub itself) stay untouched. Only with a
    // udpTransparentPort.
    bool captureDNS = false;
    // Policy routing that loops carried UDP back through lo, so TPROXY sees it
    // in prerouting. Used only with a udpTransparentPort.
    std::uint32_t routeTable = 4242;
    std::uint32_t routeRulePriority = 4242;
    Marks marks;
    // Connections to the machine's own non-loopback addresses are left alone
    // except inside these networks; loopback never is decided.
    std::vector<Network> localIncluded;
    // Connections of these users' processes are never decided: a local
    // proxy's own, which would otherwise cost a decision each for nothing.
    std::vector<std::uint32_t> exemptUsers;

    friend bool operator==(const TableConfig&, const TableConfig&) = default;
};

// One inet table that decides where new outbound flows go:
//
//   decide  (filter, output, -150)  new TCP connections (a lone SYN) and new
//                                   UDP/443 flows (and UDP/53 ones, when DNS
//                                   is captured) go to the queue, unless the
//                                   packet carries the bypass mark, the
//                                   connection was decided before, or the
//                                   destination is this machine;
//   steer   (nat, output, -100)     a carry verdict is remembered in the
//                                   connection mark; carried TCP is redirected
//                                   to the listener;
//   refuse  (filter, output, 0)     a refuse verdict resets TCP and answers
//                                   UDP with port unreachable;
//   remark  (route, output, -150)   later UDP packets of a carried flow get
//                                   the carry mark again, which policy routing
//                                   sends through lo;
//   divert  (filter, prerouting, -150) where TPROXY hands them to the host.
//
// The table is created with the owner flag on a netlink socket this object
// keeps open: if the process dies, the kernel removes the table with the
// socket, and packets flow as if we had never been there. The policy routing
// rule (UDP only) is plain routing state and is removed by the destructor.
//
// Everything belongs to the network namespace of the thread that calls
// install(); the object may be destroyed on any thread.
class CaptureTables {
public:
    // Null, with the reason in `whyNot`, when the configuration is unusable,
    // the process lacks CAP_NET_ADMIN, the kernel cannot queue from nftables,
    // or another instance owns the tables.
    static std::unique_ptr<CaptureTables> install(const TableConfig& config, std::string& whyNot);

    ~CaptureTables();
    CaptureTables(const CaptureTables&) = delete;
    CaptureTables& operator=(const CaptureTables&) = delete;

    const TableConfig& config() const { return config_; }

private:
    struct SocketCloser {
        void operator()(mnl_socket* socket) const;
    };
    using Socket = std::unique_ptr<mnl_socket, SocketCloser>;

    CaptureTables(TableConfig config, Socket tables);

    TableConfig config_;
    Socket tables_;
    Socket routes_;                   // rtnetlink, for the policy routing of UDP
    std::vector<int> routedFamilies_; // where that routing is in place
    std::uint32_t sequence_ = 0;
};

} // namespace veltrane::platform::capture
