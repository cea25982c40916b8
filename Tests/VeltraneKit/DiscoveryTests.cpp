#include "Support/NetNamespace.hpp"
#include "Support/Peers.hpp"
#include "Support/TempDir.hpp"
#include "VeltraneKit/Discovery/LocalProxyScanner.hpp"
#include "VeltraneKit/Discovery/ProcTables.hpp"
#include "VeltraneKit/Discovery/ProcessOwner.hpp"
#include "VeltraneKit/Discovery/ProxyProbeReplies.hpp"
#include "VeltraneKit/Discovery/TunnelInterfaceScanner.hpp"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace veltrane::kit;
using namespace std::string_literals;
namespace fs = std::filesystem;
using veltrane::test::TempDir;

namespace {

std::span<const std::uint8_t> bytes(const std::string& text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// A port on 127.0.0.1 that answers every connection's first bytes with a
// fixed reply (none: it accepts and stays silent), counting connections.
class ScriptedPort {
public:
    explicit ScriptedPort(std::string reply) : reply_(std::move(reply)) {
        listener_ = veltrane::test::boundLoopback(SOCK_STREAM, port_);
        ::listen(listener_, 16);
        [[maybe_unused]] int ignored = ::pipe2(wake_, O_CLOEXEC);
        thread_ = std::thread([this] { serve(); });
    }
    ~ScriptedPort() {
        [[maybe_unused]] auto ignored = ::write(wake_[1], "x", 1);
        thread_.join();
        for (int fd : {listener_, wake_[0], wake_[1]}) {
            ::close(fd);
        }
    }
    std::uint16_t port() const { return port_; }
    int connections() const { return connections_; }

private:
    void serve() {
        std::vector<int> open;
        for (;;) {
            pollfd fds[2] = {{listener_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
            ::poll(fds, 2, -1);
            if (fds[1].revents != 0) {
                break;
            }
            int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            ++connections_;
            open.push_back(fd);
            char request[256];
            if (!reply_.empty() && ::recv(fd, request, sizeof request, 0) > 0) {
                ::send(fd, reply_.data(), reply_.size(), MSG_NOSIGNAL);
            }
        }
        for (int fd : open) {
            ::close(fd);
        }
    }

    std::string reply_;
    int listener_ = -1;
    int wake_[2] = {-1, -1};
    std::uint16_t port_ = 0;
    std::atomic<int> connections_{0};
    std::thread thread_;
};

} // namespace

namespace veltrane::kit {
void PrintTo(const LocalProxyScanner::Candidate& c, std::ostream* out) {
    *out << "{" << c.name << ", " << c.port << ", " << rawValue(c.proto) << ", " << c.source << "}";
}
} // namespace veltrane::kit

TEST(ProxyProbeRepliesTest, DecidesByTheRules) {
    const struct {
        const char* name;
        std::string reply;
        bool socks5;
        bool http;
    } cases[] = {
        {"no authentication", "\x05\x00"s, true, false},
        {"user name and password", "\x05\x02", true, false},
        {"GSSAPI", "\x05\x01", false, false},
        {"SOCKS4 answer", "\x00\x5a", false, false},
        {"200 Established", "HTTP/1.1 200 Connection Established\r\n", false, true},
        {"web server", "HTTP/1.0 200 OK\r\nX-Note: established\r\n\r\n", false, false},
        {"lower-case http/", "http/1.1 407 Proxy Auth\r\n\r\n", false, false},
        {"blank line first", "\r\nHTTP/1.1 407 Proxy Auth\r\n", false, true},
        {"12 bytes", "HTTP/1.1 407", false, true},
        {"11 bytes", "HTTP/1.1 40", false, false},
        {"invalid UTF-8 reason", "HTTP/1.1 407 \xff\xfe\r\n", false, true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ProxyProbeReplies::isSOCKS5Proxy(bytes(c.reply)), c.socks5) << c.name;
        EXPECT_EQ(ProxyProbeReplies::isHTTPProxy(bytes(c.reply)), c.http) << c.name;
    }
}

TEST(ProcTablesTest, ReadsSocketRowsAndFdinfo) {
    // The kernel prints each address word as a number in host byte order.
    auto hex = [](std::vector<std::uint8_t> address) {
        std::string out;
        for (std::size_t i = 0; i < address.size(); i += 4) {
            std::uint32_t word = 0;
            std::memcpy(&word, address.data() + i, 4);
            char text[9];
            std::snprintf(text, sizeof text, "%08X", word);
            out += text;
        }
        return out;
    };
    std::vector<std::uint8_t> v6any(16), v6loop(16), v6mapped(16), v6link(16);
    v6loop[15] = 1;
    v6mapped[10] = v6mapped[11] = 0xFF, v6mapped[12] = 127, v6mapped[15] = 1;
    v6link[0] = 0xFE, v6link[1] = 0x80, v6link[15] = 1;
    const struct {
        std::string local;
        bool ipv6;
        std::string state;
        bool parses, listening, onLoopback;
    } cases[] = {
        {hex({127, 0, 0, 1}) + ":1F90", false, "0A", true, true, true},
        {hex({0, 0, 0, 0}) + ":0438", false, "0A", true, true, true},
        {hex({127, 0, 0, 2}) + ":0438", false, "0A", true, true, false},
        {hex({127, 0, 0, 1}) + ":0438", false, "01", true, false, true},
        {hex({127, 0, 0, 1}) + ":04G8", false, "0A", false, false, false},
        {hex(v6any) + ":0438", true, "0A", true, true, true},
        {hex(v6loop) + ":0438", true, "0A", true, true, true},
        {hex(v6mapped) + ":0438", true, "0A", true, true, true},
        {hex(v6link) + ":0438", true, "0A", true, true, false},
        {hex(v6loop) + ":0438", false, "0A", false, false, false},
    };
    for (const auto& c : cases) {
        auto line = "   3: " + c.local + " 00000000:0000 " + c.state +
                    " 00000000:00000000 00:00000000 00000000  1000        0 4242 1 0 100 0 0 10 0";
        auto socket = ProcTables::parseTCPLine(line, c.ipv6);
        ASSERT_EQ(socket.has_value(), c.parses) << line;
        if (socket) {
            EXPECT_EQ(socket->listening(), c.listening) << line;
            EXPECT_EQ(socket->reachableOnLoopback(), c.onLoopback) << line;
            EXPECT_EQ(socket->inode, 4242u);
        }
    }
    EXPECT_EQ(ProcTables::parseTCPLine("  sl  local_address rem_address   st tx_queue rx_queue tr "
                                       "tm->when retrnsmt   uid  timeout inode",
                                       false),
              std::nullopt);
    EXPECT_EQ(ProcTables::tunInterfaceName("pos:\t0\nflags:\t02\niff:\ttun3\n"), "tun3");
    EXPECT_EQ(ProcTables::tunInterfaceName("pos:\t0\n"), std::nullopt);
    EXPECT_EQ(ProcTables::socketInode("socket:[981]"), 981u);
    EXPECT_EQ(ProcTables::socketInode("pipe:[981]"), std::nullopt);
}

TEST(ProcessOwnerTest, NamesExecutablesAndProxies) {
    const struct {
        std::string path;
        std::optional<std::string> bundle, name;
        bool system;
    } cases[] = {
        {"/Applications/Corp VPN.app/Contents/MacOS/corpd", "/Applications/Corp VPN.app",
         "Corp VPN", false},
        {"/A/Outer.app/Contents/Helpers/Inner.app/Contents/MacOS/in",
         "/A/Outer.app/Contents/"
         "Helpers/Inner.app",
         "Inner", false},
        {"/opt/X.APP/bin/xd", "/opt/X.APP/bin/xd", "xd", false},
        {"/usr/sbin/openvpn", "/usr/sbin/openvpn", "openvpn", true},
        {"/usr/local/bin/wg-quick", "/usr/local/bin/wg-quick", "wg-quick", false},
        {"/opt/usr/bin/tool", "/opt/usr/bin/tool", "tool", false},
        {"", std::nullopt, std::nullopt, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ProcessOwner::bundleOrExecutable(c.path), c.bundle) << c.path;
        EXPECT_EQ(ProcessOwner::displayName(c.path), c.name) << c.path;
        EXPECT_EQ(ProcessOwner::isSystemExecutable(c.path), c.system) << c.path;
    }
    EXPECT_EQ(LocalProxyScanner::friendly("clashx-meta"), "ClashX"); // ahead of "clash"
    EXPECT_EQ(LocalProxyScanner::friendly("Clash-Verge"), "Clash Verge");
    EXPECT_EQ(LocalProxyScanner::friendly("verge-mihomo"), "Clash Verge"); // ahead of "mihomo"
    EXPECT_EQ(LocalProxyScanner::friendly("MyProxy"), "MyProxy");
    EXPECT_EQ(ProcessOwner::run("/bin/echo", {"a", "b"}), "a b\n");
    EXPECT_EQ(ProcessOwner::run("/bin/printf", {"\\377"}), std::nullopt); // not UTF-8
    EXPECT_EQ(ProcessOwner::run("/nonexistent/tool", {}), std::nullopt);
}

// Real proxies and look-alikes on loopback. As root everything runs in a
// namespace of its own, where the whole scan sees only these listeners;
// otherwise only our own ports are probed, never the machine's.
TEST(LocalProxyScannerTest, FindsRealProxiesAndPassesOverTheRest) {
    std::string whyNot;
    auto ns = veltrane::test::NetNamespace::create(whyNot);
    std::optional<veltrane::test::NetNamespace::Entered> inside;
    if (ns) {
        ASSERT_TRUE(ns->must("ip link set lo up"));
        inside.emplace(ns->enter());
        ASSERT_TRUE(inside->ok());
    }
    using veltrane::test::PeerProcess;
    auto socks = veltrane::test::startMicrosocks(whyNot);
    auto socksAuth = veltrane::test::startMicrosocks(whyNot, veltrane::test::UserPass{"u", "p"});
    auto tinyproxy = veltrane::test::startTinyproxy(whyNot, veltrane::test::UserPass{"u", "p"});
    TempDir bin;
    bin.link("clash-verge", "/usr/bin/microsocks");
    auto verge = PeerProcess::start({(bin.path / "clash-verge").string(), "verge",
                                     [&](const std::string&, std::uint16_t port) {
                                         return std::vector<std::string>{
                                             (bin.path / "clash-verge").string(), "-i", "127.0.0.1",
                                             "-p", std::to_string(port)};
                                     }},
                                    whyNot);
    auto web = PeerProcess::start({"/usr/bin/python3", "web",
                                   [](const std::string& directory, std::uint16_t port) {
                                       return std::vector<std::string>{
                                           "/usr/bin/python3", "-m",        "http.server",
                                           "--bind",           "127.0.0.1", std::to_string(port),
                                           "--directory",      directory};
                                   }},
                                  whyNot);
    if (!socks || !socksAuth || !tinyproxy || !verge || !web) {
        GTEST_SKIP() << whyNot;
    }
    ScriptedPort fakeSOCKS("\x05\x00"s);
    std::vector<std::unique_ptr<ScriptedPort>> silent;
    for (int i = 0; i < 6; ++i) {
        silent.push_back(std::make_unique<ScriptedPort>(""));
    }
    const std::string self = *ProcTables::processName("/proc", ::getpid());
    using P = ProxyProtocol;
    std::vector<LocalProxyScanner::Candidate> expected = {
        {"microsocks " + std::to_string(socks->port()), socks->port(), P::socks5, "microsocks"},
        {"tinyproxy " + std::to_string(tinyproxy->port()), tinyproxy->port(), P::http, "tinyproxy"},
        {"Clash Verge " + std::to_string(verge->port()), verge->port(), P::socks5, "clash-verge"},
        {self + " " + std::to_string(fakeSOCKS.port()), fakeSOCKS.port(), P::socks5, self},
    };

    LocalProxyScanner scanner;
    auto ports = scanner.listeningLoopbackPorts();
    auto names = scanner.lsofPortNames();
    for (const auto& candidate : expected) {
        EXPECT_TRUE(ports.contains(candidate.port)) << candidate.name;
        EXPECT_EQ(names[candidate.port], candidate.source) << candidate.name;
        EXPECT_EQ(LocalProxyScanner::probeSOCKS5(candidate.port), candidate.proto == P::socks5)
            << candidate.name;
        if (candidate.proto == P::http) {
            EXPECT_TRUE(LocalProxyScanner::probeHTTP(candidate.port)) << candidate.name;
        }
    }
    // microsocks with a password refuses (FF) a greeting that offers no
    // authentication, so it is left out like any other refusal.
    for (auto port : {socksAuth->port(), web->port(), silent.front()->port()}) {
        EXPECT_TRUE(ports.contains(port));
        EXPECT_FALSE(LocalProxyScanner::probeSOCKS5(port) || LocalProxyScanner::probeHTTP(port))
            << port;
    }
    if (!ns) {
        GTEST_SKIP() << "the whole scan runs only in a namespace of its own: " << whyNot;
    }

    std::sort(expected.begin(), expected.end(),
              [](const auto& a, const auto& b) { return a.port < b.port; });
    int socksConnections = fakeSOCKS.connections();
    auto started = std::chrono::steady_clock::now();
    auto found = scanner.scan();
    auto elapsed = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(found, expected);
    EXPECT_EQ(fakeSOCKS.connections(), socksConnections + 1); // never sent the HTTP probe
    // A silent port costs two time-outs, one per probe; in parallel the six
    // (and the web server) end together instead of after 12 time-outs.
    EXPECT_LT(elapsed, 4 * LocalProxyScanner::probeTimeout);

    // Owners out of sight: the name falls back to the port.
    TempDir proc;
    proc.link("thread-self", "/proc/thread-self");
    auto anonymous = LocalProxyScanner(SystemRoots{proc.path, "/sys"}).discoverProxies(true);
    ASSERT_EQ(anonymous.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(anonymous[i].name, "本地代理 " + std::to_string(expected[i].port));
        EXPECT_EQ(anonymous[i].endpointDescription(),
                  "127.0.0.1:" + std::to_string(expected[i].port));
        EXPECT_EQ(anonymous[i].proto, expected[i].proto);
        EXPECT_FALSE(anonymous[i].credentials);
    }
}

TEST(TunnelInterfaceScannerTest, OwnersAndOrderFromFakeTree) {
    TempDir root;
    auto holds = [&](int pid, int fd, const std::string& name, const std::string& exe) {
        auto base = fs::path("proc") / std::to_string(pid);
        root.link(base / "fd" / std::to_string(fd), "/dev/net/tun");
        root.write(base / "fdinfo" / std::to_string(fd),
                   "pos:\t0\nflags:\t02\niff:\t" + name + "\n");
        if (!exe.empty() && !fs::exists(root.path / base / "exe")) {
            root.link(base / "exe", exe);
        }
    };
    holds(200, 3, "tun7", "/opt/Corp VPN.app/Contents/MacOS/corpd");
    holds(1000, 4, "tun7", "/usr/bin/latecomer"); // listed after 200: not the owner
    holds(300, 5, "tun9", "/usr/sbin/openvpn");
    holds(400, 6, "tun2", ""); // executable out of sight
    root.link("proc/400/fd/0", "socket:[12]");
    root.write("sys/class/net/corp0/tun_flags", "0x1002\n");

    TunnelInterfaceScanner scanner(SystemRoots{root.path / "proc", root.path / "sys"});
    using Owner = TunnelInterfaceScanner::Owner;
    EXPECT_EQ(scanner.utunOwners(), (std::map<std::string, Owner>{
                                        {"tun7", {200, "/opt/Corp VPN.app/Contents/MacOS/corpd"}},
                                        {"tun9", {300, "/usr/sbin/openvpn"}},
                                        {"tun2", {400, ""}},
                                    }));

    const unsigned up = IFF_UP | IFF_RUNNING, p2p = IFF_UP | IFF_POINTOPOINT;
    const std::uint16_t none = ARPHRD_NONE, ether = ARPHRD_ETHER, ppp = ARPHRD_PPP;
    using E = TunnelInterfaceScanner::InterfaceEntry;
    std::vector<E> entries = {
        {"tun7", p2p, none, {}},
        {"tun7", p2p, {}, "10.0.0.1"},
        {"tun7", p2p, {}, "10.0.0.2"},
        {"tun9", p2p, none, {}},
        {"tun9", p2p, {}, "10.8.0.1"},
        {"tun2", p2p, none, {}},
        {"tun10", p2p, none, {}},
        {"corp0", up, ether, {}},
        {"odd0", p2p, none, {}},
        {"utun4", p2p, {}, "10.1.0.1"},
        {"utun5", IFF_POINTOPOINT, {}, "10.1.0.2"},
        {"ppp0", up, ppp, "10.2.0.1"},
        {"eth0", up, ether, "192.168.1.2"},
        {"lo", up, std::uint16_t(ARPHRD_LOOPBACK), {}},
    };
    std::vector<std::string> order;
    for (const auto& tunnel : scanner.tunnels(entries, scanner.utunOwners())) {
        order.push_back(tunnel.displayDescription());
        if (tunnel.name == "tun7") {
            EXPECT_EQ(tunnel.ownerName, "Corp VPN");
            EXPECT_EQ(tunnel.ownerPath, "/opt/Corp VPN.app");
        } else if (tunnel.name == "tun9") {
            EXPECT_EQ(tunnel.ownerName, "openvpn");
            EXPECT_TRUE(tunnel.isSystemOwned);
        } else {
            EXPECT_EQ(tunnel.ownerName, std::nullopt) << tunnel.name;
            EXPECT_EQ(tunnel.ownerPath, std::nullopt) << tunnel.name;
            EXPECT_FALSE(tunnel.isSystemOwned) << tunnel.name;
        }
    }
    EXPECT_EQ(order, (std::vector<std::string>{"tun7 · 10.0.0.2", "utun4 · 10.1.0.1", "corp0",
                                               "odd0", "tun10", "tun2", "tun9 · 10.8.0.1"}));
}

// A tun device held by a process of its own, in a namespace of its own.
TEST(TunnelInterfaceScannerTest, FindsARealTunDeviceAndItsHolder) {
    std::string whyNot;
    auto ns = veltrane::test::NetNamespace::create(whyNot);
    if (!ns) {
        GTEST_SKIP() << whyNot;
    }
    const std::string name = "tun" + ns->name().substr(3, 6);
    const std::string script = "import fcntl, os, struct, sys\n"
                               "fd = os.open('/dev/net/tun', os.O_RDWR)\n"
                               "fcntl.ioctl(fd, 0x400454ca, struct.pack('16sH22x', b'" +
                               name +
                               "', 0x1001))\n"
                               "print('ready', flush=True)\n"
                               "sys.stdin.read()\n";
    int toChild[2], fromChild[2];
    ASSERT_EQ(::pipe2(toChild, O_CLOEXEC), 0);
    ASSERT_EQ(::pipe2(fromChild, O_CLOEXEC), 0);
    pid_t pid = -1;
    {
        auto inside = ns->enter(); // the child, and so its device, belong to the namespace
        ASSERT_TRUE(inside.ok());
        pid = ::fork();
        if (pid == 0) {
            ::dup2(toChild[0], STDIN_FILENO);
            ::dup2(fromChild[1], STDOUT_FILENO);
            ::execl("/usr/bin/python3", "python3", "-c", script.c_str(), nullptr);
            ::_exit(127);
        }
    }
    ::close(toChild[0]);
    ::close(fromChild[1]);
    struct Reaper {
        pid_t pid;
        int in, out;
        ~Reaper() {
            ::close(in);
            ::close(out);
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
    } reaper{pid, toChild[1], fromChild[0]};
    ASSERT_GT(pid, 0);
    pollfd ready{fromChild[0], POLLIN, 0};
    char line[16] = {};
    ASSERT_EQ(::poll(&ready, 1, 10000), 1) << "the holder never opened " << name;
    ASSERT_GT(::read(fromChild[0], line, sizeof line - 1), 0);
    ASSERT_TRUE(std::string_view(line).starts_with("ready")) << line;
    ASSERT_TRUE(ns->must("ip addr add 10.77.3.9/24 dev " + name + " && ip link set " + name +
                         " up && ip link set lo up"));

    std::vector<TunnelInterface> found;
    {
        auto inside = ns->enter();
        ASSERT_TRUE(inside.ok());
        found = TunnelInterfaceScanner().scan();
    }
    auto exe = ProcessOwner::executablePath(pid);
    ASSERT_TRUE(exe);
    EXPECT_EQ(found,
              (std::vector<TunnelInterface>{{name, "10.77.3.9", fs::path(*exe).filename().string(),
                                             *exe, ProcessOwner::isSystemExecutable(*exe)}}));
}
