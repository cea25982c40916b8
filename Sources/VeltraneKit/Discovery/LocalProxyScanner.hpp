#pragma once

#include "VeltraneKit/Discovery/SystemRoots.hpp"
#include "VeltraneKit/Profile.hpp"

#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace veltrane::kit {

// Finds the proxies that already run on this machine: every TCP port that
// listens on loopback (or on a wildcard address) is asked whether it speaks
// SOCKS5 or HTTP CONNECT, and each hit comes back under a name the user
// recognises. Runs on demand in the user's process and blocks until the last
// probe is over. Nothing is reported as an error: what cannot be read or does
// not answer like a proxy in time is simply left out.
//
// Listeners come from /proc/thread-self/net/tcp{,6}, so the scan covers the
// network namespace of the calling thread; process names come from the
// owners of the listening sockets (/proc/PID/fd), which only root sees for
// other users' processes.
class LocalProxyScanner {
public:
    struct Candidate {
        std::string name; // for the user: "Clash Verge 7890", "本地代理 1080"
        std::uint16_t port = 0;
        ProxyProtocol proto = ProxyProtocol::socks5;
        std::string source; // owning process name, or "netstat" when none is known
        bool listening = true;

        friend bool operator==(const Candidate&, const Candidate&) = default;
    };

    // Send and receive time-out of each probe's socket. A port that accepts
    // and stays silent costs this once per probe; ports are probed in parallel.
    static constexpr std::chrono::microseconds probeTimeout{300000};

    explicit LocalProxyScanner(SystemRoots roots = {}) : roots_(std::move(roots)) {}

    // The proxies found, by port ascending.
    std::vector<Candidate> scan() const;

    // scan() as ready-made records: a fresh id, the candidate's name, address
    // "127.0.0.1", no credentials. `includeAll` changes nothing.
    std::vector<ProxyServer> discoverProxies(bool includeAll = false) const;

    // TCP ports listening on 127.0.0.1, ::1 or a wildcard address.
    std::set<std::uint16_t> listeningLoopbackPorts() const;

    // Owning process name of each listening TCP port, on any address; where
    // several sockets listen on one port the later one in the kernel's
    // tables is named.
    std::map<std::uint16_t, std::string> lsofPortNames() const;

    // Whether 127.0.0.1:port answers a SOCKS5 greeting (no authentication
    // offered) with method 00 or 02. A server that insists on a password
    // usually refuses this greeting (FF) and is then not counted.
    static bool probeSOCKS5(std::uint16_t port);

    // Whether 127.0.0.1:port answers "CONNECT example.com:443" like a proxy:
    // 407, or 200 with "established".
    static bool probeHTTP(std::uint16_t port);

    // The product name for a process name, by the first known substring of
    // its lower-case form; an unknown name comes back unchanged.
    static std::string friendly(std::string_view processName);

private:
    SystemRoots roots_;
};

} // namespace veltrane::kit
