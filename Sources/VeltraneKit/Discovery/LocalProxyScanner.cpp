#include "VeltraneKit/Discovery/LocalProxyScanner.hpp"

#include "VeltraneKit/Discovery/ProcTables.hpp"
#include "VeltraneKit/Discovery/ProcessOwner.hpp"
#include "VeltraneKit/Discovery/ProxyProbeReplies.hpp"
#include "VeltraneKit/Localize.hpp"
#include "VeltraneKit/UnicodeText.hpp"

#include <arpa/inet.h>
#include <array>
#include <mutex>
#include <netinet/in.h>
#include <optional>
#include <sys/socket.h>
#include <sys/time.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace veltrane::kit {

namespace {

struct FriendlyName {
    std::string_view substring;
    std::string_view name;
};

// Read from the top: "clashx" must win over "clash".
constexpr std::array<FriendlyName, 14> friendlyNames{{
    {"clash-ver", "Clash Verge"},
    {"verge", "Clash Verge"},
    {"clashx", "ClashX"},
    {"clash", "Clash"},
    {"mihomo", "Mihomo"},
    {"sing", "sing-box"},
    {"xray", "Xray"},
    {"v2ray", "V2Ray"},
    {"trojan", "Trojan"},
    {"hysteria", "Hysteria"},
    {"outline", "Outline"},
    {"surge", "Surge"},
    {"stash", "Stash"},
    {"gost", "GOST"},
}};

class Socket {
public:
    Socket() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
    ~Socket() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int fd() const { return fd_; }

private:
    int fd_;
};

// One probe: connect to 127.0.0.1:port, send the request in one call, read
// once. Blocking calls bounded by the socket's time-outs (connect included).
std::optional<std::vector<std::uint8_t>>
exchange(std::uint16_t port, std::span<const std::uint8_t> request, std::size_t limit) {
    Socket socket;
    if (socket.fd() < 0) {
        return std::nullopt;
    }
    timeval timeout{};
    timeout.tv_sec = LocalProxyScanner::probeTimeout.count() / 1000000;
    timeout.tv_usec = LocalProxyScanner::probeTimeout.count() % 1000000;
    if (::setsockopt(socket.fd(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) != 0 ||
        ::setsockopt(socket.fd(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) != 0) {
        return std::nullopt;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return std::nullopt;
    }
    auto sent = ::send(socket.fd(), request.data(), request.size(), MSG_NOSIGNAL);
    if (sent < 0 || std::size_t(sent) != request.size()) {
        return std::nullopt;
    }
    std::vector<std::uint8_t> reply(limit);
    auto received = ::recv(socket.fd(), reply.data(), reply.size(), 0);
    if (received < 0) {
        return std::nullopt;
    }
    reply.resize(std::size_t(received));
    return reply;
}

std::span<const std::uint8_t> bytes(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

} // namespace

bool LocalProxyScanner::probeSOCKS5(std::uint16_t port) {
    static constexpr std::array<std::uint8_t, 3> greeting{0x05, 0x01, 0x00};
    auto reply = exchange(port, greeting, 2);
    return reply && ProxyProbeReplies::isSOCKS5Proxy(*reply);
}

bool LocalProxyScanner::probeHTTP(std::uint16_t port) {
    // The reserved example domain: no real site is ever asked for.
    static constexpr std::string_view request = "CONNECT example.com:443 HTTP/1.1\r\n"
                                                "Host: example.com:443\r\n"
                                                "\r\n";
    auto reply = exchange(port, bytes(request), 128);
    return reply && ProxyProbeReplies::isHTTPProxy(*reply);
}

std::string LocalProxyScanner::friendly(std::string_view processName) {
    auto lower = UnicodeText::lowercased(processName);
    for (const auto& row : friendlyNames) {
        if (lower.find(row.substring) != std::string::npos) {
            return std::string(row.name);
        }
    }
    return std::string(processName);
}

std::set<std::uint16_t> LocalProxyScanner::listeningLoopbackPorts() const {
    std::set<std::uint16_t> ports;
    for (const auto& socket : ProcTables::listeningSockets(roots_.proc)) {
        if (socket.reachableOnLoopback()) {
            ports.insert(socket.port);
        }
    }
    return ports;
}

std::map<std::uint16_t, std::string> LocalProxyScanner::lsofPortNames() const {
    auto sockets = ProcTables::listeningSockets(roots_.proc);
    std::vector<std::uint64_t> inodes;
    for (const auto& socket : sockets) {
        inodes.push_back(socket.inode);
    }
    auto owners = ProcTables::socketOwnerNames(roots_.proc, inodes);
    std::map<std::uint16_t, std::string> names;
    for (const auto& socket : sockets) {
        if (auto owner = owners.find(socket.inode); owner != owners.end()) {
            names[socket.port] = owner->second;
        }
    }
    return names;
}

std::vector<LocalProxyScanner::Candidate> LocalProxyScanner::scan() const {
    auto portSet = listeningLoopbackPorts();
    const std::vector<std::uint16_t> ports(portSet.begin(), portSet.end());
    const auto names = lsofPortNames();
    std::optional<std::string> coreName;
    if (auto core = ProcessOwner::runningProxyCorePath(roots_.proc)) {
        coreName = ProcessOwner::displayName(*core);
    }

    std::vector<std::optional<Candidate>> slots(ports.size());
    std::mutex slotsLock;
    auto probe = [&](std::size_t index) {
        const auto port = ports[index];
        ProxyProtocol proto;
        // A SOCKS server is never sent the HTTP request.
        if (probeSOCKS5(port)) {
            proto = ProxyProtocol::socks5;
        } else if (probeHTTP(port)) {
            proto = ProxyProtocol::http;
        } else {
            return;
        }
        Candidate candidate;
        candidate.port = port;
        candidate.proto = proto;
        const std::string portText = std::to_string(port);
        if (auto owner = names.find(port); owner != names.end()) {
            candidate.name = friendly(owner->second) + " " + portText;
            candidate.source = owner->second;
        } else {
            candidate.name =
                coreName ? *coreName + " " + portText : RL("本地代理 %lld", {std::int64_t(port)});
            candidate.source = "netstat";
        }
        std::lock_guard lock(slotsLock);
        slots[index] = std::move(candidate);
    };

    std::vector<std::thread> tasks;
    tasks.reserve(ports.size());
    for (std::size_t index = 0; index < ports.size(); ++index) {
        try {
            tasks.emplace_back(probe, index);
        } catch (const std::system_error&) {
            probe(index); // out of threads: slower, but every port is still asked
        }
    }
    for (auto& task : tasks) {
        task.join();
    }

    std::vector<Candidate> found;
    for (auto& slot : slots) {
        if (slot) {
            found.push_back(std::move(*slot));
        }
    }
    return found; // slots follow the ascending ports
}

std::vector<ProxyServer> LocalProxyScanner::discoverProxies(bool /*includeAll*/) const {
    std::vector<ProxyServer> servers;
    for (auto& candidate : scan()) {
        servers.push_back(ProxyServer{UUID::random(), std::move(candidate.name), "127.0.0.1",
                                      candidate.port, candidate.proto, std::nullopt});
    }
    return servers;
}

} // namespace veltrane::kit
