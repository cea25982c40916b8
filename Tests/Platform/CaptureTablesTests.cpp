#include "Platform/linux/capture/CaptureTables.hpp"
#include "Platform/linux/capture/FlowQueue.hpp"
#include "Support/NetNamespace.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/netfilter_ipv4.h>
#include <linux/netfilter_ipv6/ip6_tables.h>
#include <netinet/in.h>
#include <optional>
#include <ostream>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <vector>

namespace veltrane::platform::capture {

std::ostream& operator<<(std::ostream& out, const QueuedPacket& p) {
    return out << "#" << p.id << " family " << p.family << " protocol " << p.protocol << " "
               << p.source << " port " << p.sourcePort << " to " << p.destination << " port "
               << p.destinationPort << " mark " << p.mark;
}

namespace {

using test::NetNamespace;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Bytes = std::vector<std::uint8_t>;

constexpr auto deadline = 10s;

// Packets built field by field: 198.51.100.1 to 203.0.113.9, 2001:db8::1 to 2001:db8::2.
Bytes header(std::initializer_list<std::uint8_t> start, std::size_t length) {
    Bytes bytes(start);
    bytes.resize(length);
    return bytes;
}
Bytes ports(std::uint16_t from, std::uint16_t to, std::size_t length) {
    Bytes bytes(length);
    bytes[0] = from >> 8, bytes[1] = from & 0xff, bytes[2] = to >> 8, bytes[3] = to & 0xff;
    return bytes;
}
Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}
Bytes ipv4(std::uint8_t protocol, const Bytes& payload, std::uint16_t fragment = 0,
           std::uint8_t words = 5) {
    Bytes bytes = header({198, 51, 100, 1, 203, 0, 113, 9}, std::max(words, std::uint8_t{5}) * 4u);
    std::rotate(bytes.begin(), bytes.begin() + 8, bytes.begin() + 20); // addresses to 12..19
    bytes[0] = 0x40 | words, bytes[6] = fragment >> 8, bytes[7] = fragment & 0xff;
    bytes[9] = protocol;
    return bytes + payload;
}
Bytes ipv6(std::uint8_t next, const Bytes& rest) {
    Bytes bytes(40);
    bytes[0] = 0x60, bytes[6] = next, bytes[23] = 1, bytes[39] = 2;
    for (std::size_t at : {8, 24}) {
        bytes[at] = 0x20, bytes[at + 1] = 0x01, bytes[at + 2] = 0x0d, bytes[at + 3] = 0xb8;
    }
    return bytes + rest;
}

TEST(CapturePacketHeaders, ReadsAddressesAndPortsWithinTheBytesGiven) {
    const Bytes tcp = ports(40000, 443, 20);
    const Bytes udp = ports(5353, 53, 8);
    const QueuedPacket tcp4{7, AF_INET, IPPROTO_TCP, "198.51.100.1", 40000, "203.0.113.9", 443};
    const QueuedPacket udp4{7, AF_INET, IPPROTO_UDP, "198.51.100.1", 5353, "203.0.113.9", 53};
    const QueuedPacket tcp6{7, AF_INET6, IPPROTO_TCP, "2001:db8::1", 40000, "2001:db8::2", 443};
    const QueuedPacket udp6{7, AF_INET6, IPPROTO_UDP, "2001:db8::1", 5353, "2001:db8::2", 53};
    const struct {
        const char* name;
        Bytes packet;
        std::optional<QueuedPacket> expected;
    } cases[] = {
        {"IPv4 TCP", ipv4(IPPROTO_TCP, tcp), tcp4},
        {"IPv4 UDP after options", ipv4(IPPROTO_UDP, udp, 0, 7), udp4},
        {"IPv4 first fragment", ipv4(IPPROTO_TCP, tcp, 0x2000), tcp4},
        {"IPv4 later fragment", ipv4(IPPROTO_TCP, tcp, 0x0003), std::nullopt},
        {"IPv4 header length under 20", ipv4(IPPROTO_TCP, tcp, 0, 4), std::nullopt},
        {"IPv4 ICMP", ipv4(IPPROTO_ICMP, udp), std::nullopt},
        {"IPv6 TCP", ipv6(IPPROTO_TCP, tcp), tcp6},
        // Hop-by-hop and routing count in 8 bytes beyond the first 8, AH in 4 beyond 8.
        {"IPv6 UDP after hop-by-hop, routing and AH",
         ipv6(IPPROTO_HOPOPTS, header({IPPROTO_ROUTING, 0}, 8) + header({IPPROTO_AH, 1}, 16) +
                                   header({IPPROTO_UDP, 2}, 16) + udp),
         udp6},
        {"IPv6 first fragment", ipv6(IPPROTO_FRAGMENT, header({IPPROTO_TCP, 0, 0, 0}, 8) + tcp),
         tcp6},
        {"IPv6 later fragment", ipv6(IPPROTO_FRAGMENT, header({IPPROTO_TCP, 0, 0, 8}, 8) + tcp),
         std::nullopt},
        {"version 5", header({0x55}, 60), std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(parsePacketHeaders(c.packet, 7), c.expected);
        // Each prefix in a buffer of its own size, so reading past it is caught.
        for (std::size_t length = 0; length < c.packet.size(); ++length) {
            const Bytes prefix(c.packet.begin(), c.packet.begin() + length);
            EXPECT_EQ(parsePacketHeaders(prefix, 7), std::nullopt) << length << " bytes";
        }
    }
}

class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Fd() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_;
};

int familyOf(const std::string& host) {
    return host.find(':') == std::string::npos ? AF_INET : AF_INET6;
}
std::size_t slot(int family) {
    return family == AF_INET ? 0 : 1;
}

socklen_t toAddress(const std::string& host, std::uint16_t port, sockaddr_storage& address) {
    address = {};
    auto& in = reinterpret_cast<sockaddr_in&>(address);
    auto& in6 = reinterpret_cast<sockaddr_in6&>(address);
    if (familyOf(host) == AF_INET) {
        in.sin_family = AF_INET, in.sin_port = htons(port);
        ::inet_pton(AF_INET, host.c_str(), &in.sin_addr);
        return sizeof in;
    }
    in6.sin6_family = AF_INET6, in6.sin6_port = htons(port);
    ::inet_pton(AF_INET6, host.c_str(), &in6.sin6_addr);
    return sizeof in6;
}

// "192.0.2.2 port 80", to compare.
std::string endpoint(const std::string& host, std::uint16_t port) {
    return host + " port " + std::to_string(port);
}
std::string endpoint(const sockaddr_storage& address) {
    const auto& in = reinterpret_cast<const sockaddr_in&>(address);
    const auto& in6 = reinterpret_cast<const sockaddr_in6&>(address);
    const bool v4 = address.ss_family == AF_INET;
    char text[INET6_ADDRSTRLEN] = {};
    ::inet_ntop(address.ss_family, v4 ? static_cast<const void*>(&in.sin_addr) : &in6.sin6_addr,
                text, sizeof text);
    return endpoint(text, ntohs(v4 ? in.sin_port : in6.sin6_port));
}

Fd boundSocket(int family, int type, std::uint16_t port, bool transparent = false) {
    Fd fd(::socket(family, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int on = 1;
    if (family == AF_INET6) {
        ::setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    }
    if (transparent) {
        const bool v4 = family == AF_INET;
        const int level = v4 ? SOL_IP : SOL_IPV6;
        ::setsockopt(fd.get(), level, v4 ? IP_TRANSPARENT : IPV6_TRANSPARENT, &on, sizeof on);
        ::setsockopt(fd.get(), level, v4 ? IP_RECVORIGDSTADDR : IPV6_RECVORIGDSTADDR, &on,
                     sizeof on);
    }
    sockaddr_storage address;
    const socklen_t length = toAddress(family == AF_INET ? "0.0.0.0" : "::", port, address);
    if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        (type == SOCK_STREAM && ::listen(fd.get(), 16) != 0)) {
        ADD_FAILURE() << "bind: " << std::strerror(errno);
    }
    return fd;
}

std::uint16_t localPort(const Fd& fd) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(reinterpret_cast<sockaddr_in&>(address).sin_port); // where sin6_port is too
}

Fd connectTo(const std::string& host, std::uint16_t port, int type = SOCK_STREAM,
             std::optional<std::uint32_t> mark = {}) {
    Fd fd(::socket(familyOf(host), type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (mark) {
        ::setsockopt(fd.get(), SOL_SOCKET, SO_MARK, &*mark, sizeof *mark);
    }
    sockaddr_storage address;
    const socklen_t length = toAddress(host, port, address);
    if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), length) != 0 &&
        errno != EINPROGRESS) {
        ADD_FAILURE() << "connect: " << std::strerror(errno);
    }
    return fd;
}

bool waitFor(const Fd& fd, short events, std::chrono::milliseconds wait) {
    pollfd ready{fd.get(), events, 0};
    return ::poll(&ready, 1, static_cast<int>(wait.count())) == 1;
}

// 0 once connected, else why not.
int connectOutcome(const Fd& fd) {
    int error = ETIMEDOUT;
    socklen_t length = sizeof error;
    if (waitFor(fd, POLLOUT, deadline)) {
        ::getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &length);
    }
    return error;
}

Fd acceptFrom(const Fd& listener) {
    return waitFor(listener, POLLIN, deadline)
               ? Fd(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC))
               : Fd();
}

std::string originalDestination(const Fd& fd, int family) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    ::getsockopt(fd.get(), family == AF_INET ? SOL_IP : SOL_IPV6,
                 family == AF_INET ? SO_ORIGINAL_DST : IP6T_SO_ORIGINAL_DST, &address, &length);
    return endpoint(address);
}

// "payload to destination" of a datagram that TPROXY handed over.
std::string receiveDiverted(const Fd& fd) {
    char data[64];
    alignas(cmsghdr) char control[128];
    iovec part{data, sizeof data};
    msghdr message{nullptr, 0, &part, 1, control, sizeof control, 0};
    const ssize_t size = waitFor(fd, POLLIN, deadline) ? ::recvmsg(fd.get(), &message, 0) : -1;
    if (size < 0) {
        return "nothing";
    }
    sockaddr_storage original{};
    for (cmsghdr* c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
        if (c->cmsg_type == (c->cmsg_level == SOL_IP ? IP_ORIGDSTADDR : IPV6_ORIGDSTADDR)) {
            std::memcpy(&original, CMSG_DATA(c), c->cmsg_len - CMSG_LEN(0));
        }
    }
    return std::string(data, size) + " to " + endpoint(original);
}

// This namespace (192.0.2.1, 2001:db8::1) runs the tables, the queue and a
// listener on every local address; a veth leads to the remote one
// (192.0.2.2, 2001:db8::2) and its server.
class CaptureTablesTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string whyNot;
        host = NetNamespace::create(whyNot);
        remote = host ? NetNamespace::create(whyNot) : nullptr;
        if (!remote) {
            GTEST_SKIP() << whyNot;
        }
        ASSERT_TRUE(host->addVeth("vt0", *remote, "vt1"));
        // Fixed neighbours: the first IPv6 neighbour solicitation on a fresh
        // veth is lost, and a connection would wait a second for the retry.
        for (const auto& [side, link, self, peer] :
             {std::tuple{host.get(), "vt0", "1", "2"}, std::tuple{remote.get(), "vt1", "2", "1"}}) {
            ASSERT_TRUE(
                side->must(std::string("ip link set lo up && ip link set ") + link +
                           " address 02:00:00:00:00:0" + self + " up && ip addr add 192.0.2." +
                           self + "/24 dev " + link + " && ip addr add 2001:db8::" + self +
                           "/64 dev " + link + " nodad && ip -6 neigh replace 2001:db8::" + peer +
                           " lladdr 02:00:00:00:00:0" + peer + " dev " + link + " nud permanent"));
        }
        {
            auto there = remote->enter();
            ASSERT_TRUE(there.ok());
            server[0] = boundSocket(AF_INET, SOCK_STREAM, 0);
            serverPort = localPort(server[0]);
            server[1] = boundSocket(AF_INET6, SOCK_STREAM, serverPort);
        }
        inside.emplace(host->enter());
        ASSERT_TRUE(inside->ok());
        listener[0] = boundSocket(AF_INET, SOCK_STREAM, 0);
        config.tcpListenerPort = localPort(listener[0]);
        listener[1] = boundSocket(AF_INET6, SOCK_STREAM, config.tcpListenerPort);
        queue = FlowQueue::open(config.queueNumber, whyNot);
        ASSERT_TRUE(queue) << whyNot;
    }

    std::unique_ptr<CaptureTables> install() {
        std::string whyNot;
        auto tables = CaptureTables::install(config, whyNot);
        EXPECT_TRUE(tables) << whyNot;
        return tables;
    }

    // The one packet the client's first send put on the queue.
    void expectQueued(int protocol, const Fd& client, const std::string& to, std::uint16_t port,
                      QueuedPacket& packet) {
        const auto until = Clock::now() + deadline;
        std::vector<QueuedPacket> packets;
        while (packets.empty() && Clock::now() < until) {
            pollfd ready{queue->fd(), POLLIN, 0};
            if (::poll(&ready, 1, 100) == 1) {
                packets = queue->receive();
            }
        }
        ASSERT_EQ(packets.size(), 1u);
        const bool v4 = familyOf(to) == AF_INET;
        const QueuedPacket expected{packets[0].id,
                                    v4 ? AF_INET : AF_INET6,
                                    protocol,
                                    v4 ? "192.0.2.1" : "2001:db8::1",
                                    localPort(client),
                                    to,
                                    port};
        EXPECT_EQ(packets[0], expected);
        packet = packets[0];
    }

    // Connects without the queue ever hearing of it.
    void expectDirect(const std::string& to, const Fd& end,
                      std::optional<std::uint32_t> mark = {}) {
        Fd client = connectTo(to, localPort(end), SOCK_STREAM, mark);
        EXPECT_EQ(connectOutcome(client), 0);
        EXPECT_TRUE(acceptFrom(end));
        EXPECT_EQ(queue->receive(), std::vector<QueuedPacket>{});
    }

    std::unique_ptr<NetNamespace> host;
    std::unique_ptr<NetNamespace> remote;
    std::optional<NetNamespace::Entered> inside;
    TableConfig config;
    std::unique_ptr<FlowQueue> queue;
    Fd server[2]; // in the remote namespace, by family
    std::uint16_t serverPort = 0;
    Fd listener[2]; // here, on every address
};

TEST_F(CaptureTablesTest, TheVerdictDecidesWhereAConnectionGoes) {
    auto tables = install();
    ASSERT_TRUE(tables);
    enum class End { listener, refused, server };
    const auto& marks = config.marks;
    const struct {
        const char* destination;
        std::optional<std::uint32_t> mark;
        End end;
    } cases[] = {
        {"192.0.2.2", marks.carry, End::listener},   {"192.0.2.2", marks.refuse, End::refused},
        {"192.0.2.2", std::nullopt, End::server},    {"2001:db8::2", marks.carry, End::listener},
        {"2001:db8::2", marks.refuse, End::refused}, {"2001:db8::2", std::nullopt, End::server},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.destination) + " mark " + std::to_string(c.mark.value_or(0)));
        const int family = familyOf(c.destination);
        Fd client = connectTo(c.destination, serverPort);
        QueuedPacket packet;
        ASSERT_NO_FATAL_FAILURE(
            expectQueued(IPPROTO_TCP, client, c.destination, serverPort, packet));
        ASSERT_TRUE(queue->accept(packet.id, c.mark));

        if (c.end == End::refused) {
            EXPECT_EQ(connectOutcome(client), ECONNREFUSED);
        } else {
            const Fd& end = c.end == End::server ? server[slot(family)] : listener[slot(family)];
            Fd accepted = acceptFrom(end);
            ASSERT_TRUE(accepted);
            EXPECT_EQ(connectOutcome(client), 0);
            if (c.end == End::listener) {
                EXPECT_EQ(originalDestination(accepted, family),
                          endpoint(c.destination, serverPort));
            }
        }
        EXPECT_FALSE(waitFor(c.end == End::server ? listener[slot(family)] : server[slot(family)],
                             POLLIN, 0ms));
    }
}

TEST_F(CaptureTablesTest, WhatIsNotANewConnectionOutwardsIsNeverQueued) {
    auto tables = install();
    ASSERT_TRUE(tables);
    const std::uint32_t bypass = config.marks.bypass;
    const struct {
        const char* destination;
        Fd* end;
        std::optional<std::uint32_t> mark;
    } cases[] = {
        {"192.0.2.2", server, bypass},
        {"192.0.2.2", server, bypass | 0x0000beef}, // foreign bits beside ours
        {"2001:db8::2", server, bypass},
        {"127.0.0.1", listener, std::nullopt},
        {"::1", listener, std::nullopt},
        {"192.0.2.1", listener, std::nullopt},
        {"2001:db8::1", listener, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.destination) + " mark " + std::to_string(c.mark.value_or(0)));
        expectDirect(c.destination, c.end[slot(familyOf(c.destination))], c.mark);
    }
}

TEST_F(CaptureTablesTest, AnExemptUsersConnectionsAreNeverQueued) {
    config.exemptUsers = {::geteuid()};
    auto tables = install();
    ASSERT_TRUE(tables);
    expectDirect("192.0.2.2", server[0], std::nullopt);
    expectDirect("2001:db8::2", server[1], std::nullopt);
}

TEST_F(CaptureTablesTest, WithNobodyOnTheQueueConnectionsGoDirect) {
    auto tables = install();
    ASSERT_TRUE(tables);
    queue.reset();
    Fd client = connectTo("192.0.2.2", serverPort);
    EXPECT_EQ(connectOutcome(client), 0);
    EXPECT_TRUE(acceptFrom(server[0]));
}

TEST_F(CaptureTablesTest, UdpToPort443IsCarriedToTheTransparentSocketOrRefused) {
    Fd transparent[2];
    transparent[0] = boundSocket(AF_INET, SOCK_DGRAM, 0, true);
    config.udpTransparentPort = localPort(transparent[0]);
    transparent[1] = boundSocket(AF_INET6, SOCK_DGRAM, config.udpTransparentPort, true);
    // A real peer on 443 answers nothing, so a refusal can only be ours.
    Fd peer[2];
    {
        auto there = remote->enter();
        peer[0] = boundSocket(AF_INET, SOCK_DGRAM, 443);
        peer[1] = boundSocket(AF_INET6, SOCK_DGRAM, 443);
    }
    auto tables = install();
    ASSERT_TRUE(tables);

    for (const std::string destination : {"192.0.2.2", "2001:db8::2"}) {
        SCOPED_TRACE(destination);
        const std::size_t at = slot(familyOf(destination));
        Fd client = connectTo(destination, 443, SOCK_DGRAM);
        ASSERT_EQ(::send(client.get(), "first", 5, 0), 5);
        QueuedPacket packet;
        ASSERT_NO_FATAL_FAILURE(expectQueued(IPPROTO_UDP, client, destination, 443, packet));
        ASSERT_TRUE(queue->accept(packet.id, config.marks.carry));
        EXPECT_EQ(receiveDiverted(transparent[at]), "first to " + endpoint(destination, 443));
        // The rest of the flow follows without being asked about again.
        ASSERT_EQ(::send(client.get(), "second", 6, 0), 6);
        EXPECT_EQ(receiveDiverted(transparent[at]), "second to " + endpoint(destination, 443));
        EXPECT_EQ(queue->receive(), std::vector<QueuedPacket>{});

        Fd refused = connectTo(destination, 443, SOCK_DGRAM);
        ASSERT_EQ(::send(refused.get(), "third", 5, 0), 5);
        ASSERT_NO_FATAL_FAILURE(expectQueued(IPPROTO_UDP, refused, destination, 443, packet));
        ASSERT_TRUE(queue->accept(packet.id, config.marks.refuse));
        char byte;
        EXPECT_TRUE(waitFor(refused, POLLIN, deadline));
        EXPECT_EQ(::recv(refused.get(), &byte, 1, 0), -1);
        EXPECT_EQ(errno, ECONNREFUSED);
        EXPECT_FALSE(waitFor(peer[at], POLLIN, 0ms));
    }
}

} // namespace
} // namespace veltrane::platform::capture
