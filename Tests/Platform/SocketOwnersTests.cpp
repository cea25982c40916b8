#include "Platform/linux/capture/AppIdentifier.hpp"
#include "Platform/linux/capture/ConnectOwners.hpp"
#include "Platform/linux/capture/SocketOwners.hpp"
#include "Support/NetNamespace.hpp"

#include <arpa/inet.h>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace veltrane::platform::capture {
namespace {

TEST(AppIdentifier, CgroupPaths) {
    const std::string user = "/user.slice/user-1000.slice/user@1000.service/app.slice/";
    struct {
        std::string path;
        std::optional<std::string> id;
    } cases[] = {
        {user + "app-gnome-firefox-1234.scope", "firefox"},
        {user + "app-org.gnome.Terminal-5678.scope", "org.gnome.Terminal"},
        {user + "app-gnome-google\\x2dchrome-42.scope", "google-chrome"},
        {user + "app-gnome-my-app-42.scope", "my-app"}, // hyphens left unescaped
        {user + "app-org.kde.kalendarac@autostart.service", "org.kde.kalendarac"},
        {user + "app-gnome-firefox.service", "firefox"},
        {user + "app-firefox-9876.service", "firefox"},
        {user + "app-gnome-firefox-1234.scope/helper", "firefox"},
        {user + "app-gnome-firefox-1234.scope/snap.firefox.firefox-0f1e2d3c.scope", "firefox"},
        {"/system.slice/snap.lxd.daemon.service", "lxd"},
        {"/user.slice/user-1000.slice/session-3.scope", std::nullopt},
        {user + "app-org.gnome.Terminal.slice/vte-spawn-0f1e2d3c.scope", std::nullopt},
        {"/system.slice/snap.lxd.scope", std::nullopt},
        {user + "app-gnome-\\x07-1.scope", std::nullopt},
        {user + "app--1.scope", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(appIdFromCgroupPath(c.path), c.id) << c.path;
    }
}

TEST(AppIdentifier, FlatpakInfo) {
    struct {
        std::string info;
        std::optional<std::string> id;
    } cases[] = {
        {"[Application]\nname=org.mozilla.firefox\nruntime=runtime/org.freedesktop.Platform\n",
         "org.mozilla.firefox"},
        {"[Instance]\nname=other\n\n[Application]\r\n# name=commented\n name = org.x.Y \r\n",
         "org.x.Y"},
        {"[Runtime]\nname=org.gnome.Platform\n", std::nullopt},
        {"name=org.mozilla.firefox\n", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(appIdFromFlatpakInfo(c.info), c.id) << c.info;
    }
}

// A remembered identifier must not outlive an exec in the same process.
TEST(AppIdentifier, RememberedUntilExec) {
    int go[2];
    ASSERT_EQ(::pipe(go), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::dup2(go[0], 0);
        ::execl("/bin/sh", "sh", "-c", "read line; exec sleep 30", nullptr);
        ::_exit(127);
    }
    ::close(go[0]);
    SigningIdentifiers identifiers;
    const std::string shell = std::filesystem::canonical("/bin/sh").filename().string();
    auto named = [&](const std::string& id) {
        for (int i = 0; i < 500; ++i) {
            if (identifiers.forProcess(child, 1) == id) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    };
    EXPECT_TRUE(named(shell));
    EXPECT_EQ(identifiers.forProcess(child, 0), shell);
    ASSERT_EQ(::write(go[1], "\n", 1), 1);
    EXPECT_TRUE(named("sleep"));
    EXPECT_EQ(identifiers.forProcess(child, 0), "sleep");
    ::close(go[1]);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
}

// A sock_diag reply as the kernel lays it out, the cgroup id behind the
// padding attribute that 64-bit values get.
std::vector<std::uint8_t> diagReply(std::uint32_t sequence, std::uint16_t type,
                                    std::optional<std::uint64_t> cgroupId) {
    inet_diag_msg message{};
    message.idiag_family = AF_INET;
    message.idiag_state = TCP_SYN_SENT;
    message.idiag_uid = 1000;
    message.idiag_inode = 4242;
    message.id.idiag_cookie[0] = 7;
    message.id.idiag_cookie[1] = 1;
    std::vector<std::uint8_t> body(sizeof(message));
    std::memcpy(body.data(), &message, sizeof(message));
    if (cgroupId) {
        nlattr pad{4, INET_DIAG_PAD};
        nlattr id{12, INET_DIAG_CGROUP_ID};
        for (auto [data, size] :
             {std::pair<const void*, std::size_t>{&pad, 4}, {&id, 4}, {&*cgroupId, 8}}) {
            auto bytes = static_cast<const std::uint8_t*>(data);
            body.insert(body.end(), bytes, bytes + size);
        }
    }
    nlmsghdr header{};
    header.nlmsg_len = static_cast<std::uint32_t>(sizeof(header) + body.size());
    header.nlmsg_type = type;
    header.nlmsg_seq = sequence;
    std::vector<std::uint8_t> reply(sizeof(header));
    std::memcpy(reply.data(), &header, sizeof(header));
    reply.insert(reply.end(), body.begin(), body.end());
    return reply;
}

TEST(SocketOwners, ParsesReplies) {
    const DiagnosedSocket socket{SocketOwner{1000, 4242, 99, (1ULL << 32) | 7}, TCP_SYN_SENT};
    auto withoutCgroup = socket;
    withoutCgroup.owner.cgroupId = 0;
    auto other = diagReply(4, SOCK_DIAG_BY_FAMILY, 99);
    auto mine = diagReply(5, SOCK_DIAG_BY_FAMILY, 99);
    auto both = other;
    both.insert(both.end(), mine.begin(), mine.end());
    struct {
        const char* name;
        std::vector<std::uint8_t> reply;
        std::optional<DiagnosedSocket> socket;
    } cases[] = {
        {"with cgroup id", mine, socket},
        {"without", diagReply(5, SOCK_DIAG_BY_FAMILY, std::nullopt), withoutCgroup},
        {"after another request's", both, socket},
        {"another request's only", other, std::nullopt},
        {"error", diagReply(5, NLMSG_ERROR, std::nullopt), std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(parseInetDiagReply(c.reply, 5), c.socket) << c.name;
    }
    for (std::size_t length = 0; length < mine.size(); ++length) {
        EXPECT_FALSE(parseInetDiagReply(std::span(mine).first(length), 5)) << length;
    }
}

struct Fd {
    int fd = -1;
    explicit Fd(int value) : fd(value) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { reset(); }
    void reset() {
        if (fd >= 0) {
            ::close(fd);
        }
        fd = -1;
    }
};

struct Endpoint {
    std::string address;
    std::uint16_t port = 0;
};

Endpoint endpointOf(int fd, bool peer) {
    sockaddr_storage storage{};
    socklen_t length = sizeof(storage);
    auto* address = reinterpret_cast<sockaddr*>(&storage);
    EXPECT_EQ(peer ? ::getpeername(fd, address, &length) : ::getsockname(fd, address, &length), 0);
    char text[INET6_ADDRSTRLEN] = {};
    if (storage.ss_family == AF_INET) {
        auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
        ::inet_ntop(AF_INET, &v4->sin_addr, text, sizeof(text));
        return {text, ntohs(v4->sin_port)};
    }
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
    ::inet_ntop(AF_INET6, &v6->sin6_addr, text, sizeof(text));
    return {text, ntohs(v6->sin6_port)};
}

std::uint64_t inodeOf(int fd) {
    struct stat info {};
    EXPECT_EQ(::fstat(fd, &info), 0);
    return info.st_ino;
}

std::uint64_t cookieOf(int fd) {
    std::uint64_t cookie = 0;
    socklen_t length = sizeof(cookie);
    EXPECT_EQ(::getsockopt(fd, SOL_SOCKET, SO_COOKIE, &cookie, &length), 0);
    return cookie;
}

int tcpState(int fd) {
    tcp_info info{};
    socklen_t length = sizeof(info);
    EXPECT_EQ(::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length), 0);
    return info.tcpi_state;
}

std::optional<std::string> cgroup2Mount() {
    std::ifstream mountinfo("/proc/self/mountinfo");
    for (std::string line; std::getline(mountinfo, line);) {
        std::istringstream fields(line);
        std::string id, parent, device, root, mountPoint;
        fields >> id >> parent >> device >> root >> mountPoint;
        if (root == "/" && line.find(" - cgroup2 ") != std::string::npos) {
            return mountPoint;
        }
    }
    return std::nullopt;
}

// Client sockets on loopback, looked up by their 4-tuple and traced to this
// process along both the cgroup path and the uid path.
TEST(SocketOwners, FindsLoopbackSocketsAndThisProcess) {
    struct {
        const char* name;
        int family;
        int type;
        const char* loopback;
    } cases[] = {
        {"tcp4", AF_INET, SOCK_STREAM, "127.0.0.1"},
        {"tcp6", AF_INET6, SOCK_STREAM, "::1"},
        {"udp4", AF_INET, SOCK_DGRAM, "127.0.0.1"},
        {"udp6", AF_INET6, SOCK_DGRAM, "::1"},
    };
    const auto mount = cgroup2Mount();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const int protocol = c.type == SOCK_STREAM ? IPPROTO_TCP : IPPROTO_UDP;
        sockaddr_storage storage{};
        socklen_t length = 0;
        if (c.family == AF_INET) {
            auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
            v4->sin_family = AF_INET;
            ::inet_pton(AF_INET, c.loopback, &v4->sin_addr);
            length = sizeof(*v4);
        } else {
            auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
            v6->sin6_family = AF_INET6;
            ::inet_pton(AF_INET6, c.loopback, &v6->sin6_addr);
            length = sizeof(*v6);
        }
        auto* address = reinterpret_cast<sockaddr*>(&storage);
        Fd server(::socket(c.family, c.type | SOCK_CLOEXEC, 0));
        if (server.fd < 0 || ::bind(server.fd, address, length) != 0) {
            GTEST_LOG_(WARNING) << "no " << c.loopback << " here: " << std::strerror(errno);
            continue;
        }
        ASSERT_EQ(::getsockname(server.fd, address, &length), 0);
        if (c.type == SOCK_STREAM) {
            ASSERT_EQ(::listen(server.fd, 4), 0);
        }
        Fd client(::socket(c.family, c.type | SOCK_CLOEXEC, 0));
        ASSERT_EQ(::connect(client.fd, address, length), 0) << std::strerror(errno);
        auto local = endpointOf(client.fd, false);
        auto remote = endpointOf(client.fd, true);

        auto owner = lookupSocket(c.family, protocol, local.address, local.port, remote.address,
                                  remote.port);
        ASSERT_TRUE(owner);
        EXPECT_EQ(owner->uid, ::geteuid());
        EXPECT_EQ(owner->inode, inodeOf(client.fd));
        EXPECT_EQ(owner->cookie, cookieOf(client.fd));

        // The server's port with another peer: a TCP listener is nobody's
        // connection, while an unconnected UDP socket receives from anyone.
        auto atServer = lookupSocket(c.family, protocol, remote.address, remote.port,
                                     remote.address, static_cast<std::uint16_t>(local.port + 1));
        if (c.type == SOCK_STREAM) {
            EXPECT_FALSE(atServer);
        } else {
            ASSERT_TRUE(atServer);
            EXPECT_EQ(atServer->inode, inodeOf(server.fd));
        }

        ProcessResolver byCgroup(mount);
        ProcessResolver byUid(std::nullopt);
        EXPECT_EQ(byCgroup.pidFor(*owner), ::getpid());
        EXPECT_EQ(byUid.pidFor(*owner), ::getpid());
        // Several threads at once, and answers from what was learnt.
        std::optional<pid_t> answers[4];
        std::vector<std::thread> threads;
        for (auto& answer : answers) {
            threads.emplace_back([&] { answer = byCgroup.pidFor(*owner); });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        for (const auto& answer : answers) {
            EXPECT_EQ(answer, ::getpid());
        }
        ProcessResolver::Counters cached{0, 4, 1, 0, 0};
        if (!mount || owner->cgroupId == 0) {
            cached = {0, 4, 0, 1, 0};
        }
        EXPECT_EQ(byCgroup.counters(), cached);
        EXPECT_EQ(byUid.counters(), (ProcessResolver::Counters{0, 0, 0, 1, 0}));

        // A remembered owner no longer counts once the socket is gone.
        auto inode = owner->inode;
        client.reset();
        EXPECT_FALSE(lookupSocket(c.family, protocol, local.address, local.port, remote.address,
                                  remote.port));
        EXPECT_FALSE(byCgroup.pidFor(*owner)) << inode;
        EXPECT_EQ(byCgroup.counters().notFound, 1U);
    }
}

// SYNs into a veth whose other end is down go nowhere, so the connection
// stays in SYN_SENT: the moment the capture host asks about it. The connect
// hook names a child that connected after it was attached.
TEST(SocketOwners, FindsAConnectionInSynSent) {
    std::string whyNot;
    auto ns = test::NetNamespace::create(whyNot);
    if (!ns) {
        GTEST_SKIP() << whyNot;
    }
    ASSERT_TRUE(ns->addVeth("vt0", *ns, "vt1"));
    ASSERT_TRUE(ns->must("ip link set lo up && ip addr add 192.0.2.1/24 dev vt0 && "
                         "ip link set vt0 up && ip neigh replace 192.0.2.9 "
                         "lladdr 02:00:00:00:00:09 dev vt0 nud permanent"));
    auto inside = ns->enter();
    ASSERT_TRUE(inside.ok());

    Fd client(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_in remote{};
    remote.sin_family = AF_INET;
    remote.sin_port = htons(9);
    ::inet_pton(AF_INET, "192.0.2.9", &remote.sin_addr);
    ASSERT_EQ(::connect(client.fd, reinterpret_cast<sockaddr*>(&remote), sizeof(remote)), -1);
    ASSERT_EQ(errno, EINPROGRESS);
    ASSERT_EQ(tcpState(client.fd), TCP_SYN_SENT);
    auto local = endpointOf(client.fd, false);

    auto owner = lookupSocket(AF_INET, IPPROTO_TCP, local.address, local.port, "192.0.2.9", 9);
    ASSERT_TRUE(owner);
    EXPECT_EQ(owner->inode, inodeOf(client.fd));
    EXPECT_EQ(tcpState(client.fd), TCP_SYN_SENT);
    EXPECT_EQ(ProcessResolver().pidFor(*owner), ::getpid());

    auto hook = ConnectOwners::attach(whyNot);
    if (!hook) {
        GTEST_SKIP() << whyNot;
    }
    EXPECT_FALSE(hook->pidOf(owner->cookie)) << "connected before the hook";
    int toParent[2];
    int toChild[2];
    ASSERT_EQ(::pipe2(toParent, O_CLOEXEC), 0);
    ASSERT_EQ(::pipe2(toChild, O_CLOEXEC), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const int s = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        ::connect(s, reinterpret_cast<sockaddr*>(&remote), sizeof(remote));
        sockaddr_in bound{};
        socklen_t length = sizeof bound;
        ::getsockname(s, reinterpret_cast<sockaddr*>(&bound), &length);
        ::write(toParent[1], &bound.sin_port, sizeof bound.sin_port);
        char done;
        ::read(toChild[0], &done, 1);
        ::_exit(0);
    }
    std::uint16_t childPort = 0;
    ASSERT_EQ(::read(toParent[0], &childPort, sizeof childPort), 2);
    auto childOwner =
        lookupSocket(AF_INET, IPPROTO_TCP, "192.0.2.1", ntohs(childPort), "192.0.2.9", 9);
    ASSERT_TRUE(childOwner);
    ProcessResolver resolver(std::nullopt);
    resolver.setCookieLookup([&hook](std::uint64_t cookie) { return hook->pidOf(cookie); });
    EXPECT_EQ(resolver.pidFor(*childOwner), child);
    EXPECT_EQ(resolver.counters().fromHook, 1U);
    ::write(toChild[1], "x", 1);
    ::waitpid(child, nullptr, 0);
    for (int fd : {toParent[0], toParent[1], toChild[0], toChild[1]}) {
        ::close(fd);
    }
}

} // namespace
} // namespace veltrane::platform::capture
