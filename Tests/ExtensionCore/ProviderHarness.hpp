#pragma once

// A provider under the in-memory flow host, with its own collector, registry
// and queue, and helpers to write profiles and read what it recorded.
#include "ExtensionCore/Clients/InterfaceRegistry.hpp"
#include "ExtensionCore/Control/StatsCollector.hpp"
#include "ExtensionCore/Provider/TransparentProxyProvider.hpp"
#include "ExtensionCore/TestBytes.hpp"
#include "Platform/memory/MemoryFlowHost.hpp"
#include "Platform/memory/MemoryTCPFlow.hpp"
#include "Platform/memory/MemoryUDPFlow.hpp"
#include "Support/PoolQueue.hpp"
#include "Support/TempDir.hpp"
#include "VeltraneKit/ProfileCoding.hpp"

#include <dirent.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <thread>

namespace veltrane::test {

using Phase = kit::ConnectionEvent::Phase;

inline kit::ProxyServer loopbackProxy(std::uint16_t port,
                                      kit::ProxyProtocol proto = kit::ProxyProtocol::socks5,
                                      std::optional<kit::ProxyCredentials> credentials = {}) {
    return kit::ProxyServer{
        kit::UUID::random(),   "p" + std::to_string(port), "127.0.0.1", port, proto,
        std::move(credentials)};
}

inline kit::Rule rule(std::vector<std::string> hosts, kit::RuleAction action,
                      kit::QUICPolicy quic = kit::QUICPolicy::fallback) {
    kit::Rule r;
    r.id = kit::UUID::random();
    r.name = hosts.empty() ? "any" : hosts.front();
    r.hosts = std::move(hosts);
    r.action = std::move(action);
    r.quicPolicy = quic;
    return r;
}

inline kit::Profile profile(std::vector<kit::ProxyServer> proxies, std::vector<kit::Rule> rules,
                            std::vector<kit::ProxyChain> chains = {}) {
    kit::Profile p;
    p.id = kit::UUID::random();
    p.name = "test";
    p.proxies = std::move(proxies);
    p.rules = std::move(rules);
    p.chains = std::move(chains);
    return p;
}

inline Bytes encoded(const kit::Profile& p) {
    return bytes(kit::encodeProfile(p, false));
}

// A ClientHello naming `name`, as short as a hello can be.
inline Bytes tlsHello(const std::string& name) {
    auto u16 = [](std::size_t v) { return Bytes{std::uint8_t(v >> 8), std::uint8_t(v)}; };
    Bytes sni = concat({u16(name.size() + 3), {0}, u16(name.size()), bytes(name)});
    Bytes extensions = concat({{0, 0}, u16(sni.size()), sni});
    Bytes body = concat({{3, 3},
                         Bytes(32, 7),
                         {0},
                         {0, 2, 0x13, 0x01},
                         {1, 0},
                         u16(extensions.size()),
                         extensions});
    Bytes handshake = concat({{1, 0}, u16(body.size()), body});
    return concat({{0x16, 3, 1}, u16(handshake.size()), handshake});
}

inline std::size_t openDescriptors() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry :
         std::filesystem::directory_iterator("/proc/self/fd")) {
        ++count;
    }
    return count;
}

// Polls `done` until it holds or `limit` passed; its last answer.
template <class Done>
bool waitUntil(Done done, std::chrono::seconds limit = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return done();
}

class ProviderHarness {
public:
    using Configure = std::function<void(core::TransparentProxyProvider::Options&)>;
    explicit ProviderHarness(const NetNamespace* inside = nullptr,
                             core::TransparentProxyProvider::SteadyNow now = {},
                             const Configure& configure = {})
        : queue(3, inside) {
        core::TransparentProxyProvider::Options options;
        options.queue = &queue.context();
        options.collector = &collector;
        options.interfaces = &registry;
        options.now = std::move(now);
        options.controlSocketPath = (directory_ / "control.sock").string();
        options.firstPacketWait = std::chrono::milliseconds(150);
        options.dnsForwardTimeout = std::chrono::milliseconds(300);
        if (configure) {
            configure(options);
        }
        provider = std::make_shared<core::TransparentProxyProvider>(std::move(options));
        host = platform::MemoryFlowHost::make(provider);
    }
    ~ProviderHarness() {
        host.reset();
        provider.reset();
        // Every flow has ended by now; what is left waits for ever (the
        // registry's netlink read), so the queue stops rather than drains.
        queue.stop();
    }

    void start(const std::optional<kit::Profile>& p) {
        platform::ProviderDictionary options;
        if (p) {
            options["profile"] = encoded(*p);
        }
        host->startProxy(options);
        ASSERT_TRUE(host->waitFor([](const auto& r) { return !r.startResults.empty(); }));
    }
    void apply(const kit::Profile& p) { host->sendAppMessage(encoded(p)); }

    std::shared_ptr<platform::MemoryTCPFlow> tcp(const std::string& host, std::uint16_t port) {
        return platform::MemoryTCPFlow::make(queue.context(), host, std::to_string(port));
    }
    std::shared_ptr<platform::MemoryUDPFlow> udp(const std::string& localHost,
                                                 std::uint16_t localPort) {
        return platform::MemoryUDPFlow::make(
            queue.context(),
            platform::NWHostEndpoint::endpointWithHostname(localHost, std::to_string(localPort)));
    }

    std::vector<kit::ConnectionEvent> events() const { return collector.events(0).events; }
    std::vector<Phase> phases() const {
        std::vector<Phase> out;
        for (const auto& e : events()) {
            out.push_back(e.phase);
        }
        return out;
    }
    // Polls until `count` events were recorded; false at the deadline.
    bool waitEvents(std::size_t count) {
        return waitUntil([&] { return events().size() >= count; });
    }

    PoolQueue queue;
    core::StatsCollector collector;
    core::InterfaceRegistry registry;
    std::shared_ptr<core::TransparentProxyProvider> provider;
    std::shared_ptr<platform::MemoryFlowHost> host;

private:
    TempDir directory_;
};

} // namespace veltrane::test
