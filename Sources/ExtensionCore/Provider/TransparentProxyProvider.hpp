#pragma once

#include "ExtensionCore/Control/ExtensionXPCServer.hpp"
#include "ExtensionCore/DNS/DNSResponder.hpp"
#include "ExtensionCore/Provider/LoopGuard.hpp"
#include "Platform/FlowError.hpp"
#include "Platform/NEAppProxyTCPFlow.hpp"
#include "Platform/NEAppProxyUDPFlow.hpp"
#include "Platform/NETransparentProxyProvider.hpp"
#include "Platform/NWConnection.hpp"
#include "VeltraneKit/AppIdentity.hpp"
#include "VeltraneKit/ConnectionEvent.hpp"
#include "VeltraneKit/FakeDNS/FakeIPAllocator.hpp"
#include "VeltraneKit/Profile.hpp"
#include "VeltraneKit/RuleEngine.hpp"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>

namespace veltrane::core {

class InterfaceRegistry;
class StatsCollector;

// The data path: decides every new flow in one pass against one snapshot of
// the profile, and carries the flows it takes over through a proxy, a pinned
// interface, a SOCKS5 UDP relay or the DNS answerer. Safe to call on any
// thread, for many flows at once.
//
// Must be owned by a shared_ptr: flows in progress hold it weakly, and their
// later events are dropped once it is gone.
class TransparentProxyProvider : public platform::NETransparentProxyProvider,
                                 public std::enable_shared_from_this<TransparentProxyProvider> {
public:
    using SteadyNow = std::function<std::chrono::steady_clock::time_point()>;

    // What the provider runs against. Every null or empty member takes the
    // real one: its own queue, kernel sockets, the process-wide collector and
    // registry, the steady clock, the control socket in the runtime directory.
    struct Options {
        platform::DispatchQueue* queue = nullptr;
        int queueThreads = 1; // for a queue of its own
        std::shared_ptr<platform::NWConnectionService> connections;
        StatsCollector* collector = nullptr;
        InterfaceRegistry* interfaces = nullptr;
        SteadyNow now;
        std::string controlSocketPath;

        // A protocol in which the server speaks first (SSH, SMTP, MySQL)
        // sends nothing until it hears the banner, so the first read waits
        // this long and then the flow is carried with no sniffed name.
        std::chrono::milliseconds firstPacketWait{300};
        // A resolver that never answers must not hold a socket for ever, nor
        // may one chatty flow open unbounded sockets: past the cap a query is
        // dropped and the application's resolver retries it.
        std::chrono::milliseconds dnsForwardTimeout{4000};
        std::size_t dnsForwardsInFlight = 64;

        // The host also delivers the machine's DNS flows (UDP to port 53):
        // with a profile whose dns.resolveViaProxy is on they are answered
        // with fake addresses, flows to those addresses are never sent to
        // the addresses themselves, and the table is kept in
        // `fakeDNSStatePath` (empty: the runtime directory's) across restarts.
        bool fakeDNS = false;
        std::string fakeDNSStatePath;
        // How often a changed table is written out.
        std::chrono::milliseconds fakeDNSSaveInterval{500};
    };

    // Everything decided by one profile; replaced as a whole, never changed.
    struct State {
        kit::RuleEngine engine;
        kit::Profile profile;
        DNSResponder dnsResponder;
        LoopGuard loopGuard;
    };
    using Snapshot = std::shared_ptr<const State>;

    static constexpr std::uint32_t fakeIPCapacity = 65536;
    static constexpr double fakeIPTTL = 3600;
    static constexpr std::uint32_t dnsAnswerTTL = 60;
    static constexpr auto directDedupInterval = std::chrono::seconds(60);
    static constexpr std::size_t directDedupBound = 4000;

    TransparentProxyProvider();
    explicit TransparentProxyProvider(Options options);
    ~TransparentProxyProvider() override;
    TransparentProxyProvider(const TransparentProxyProvider&) = delete;
    TransparentProxyProvider& operator=(const TransparentProxyProvider&) = delete;

    void startProxy(std::optional<platform::ProviderDictionary> options,
                    StartCompletion completion) override;
    void stopProxy(platform::NEProviderStopReason reason, StopCompletion completion) override;
    void handleAppMessage(platform::Bytes messageData, AppMessageCompletion completion) override;
    bool handleNewFlow(std::shared_ptr<platform::NEAppProxyFlow> flow) override;

    // Undecodable bytes change nothing: the profile in force stays.
    void applyProfile(std::span<const std::uint8_t> json);
    std::optional<platform::Bytes> providerConfigurationProfile() const;
    // Empty until a profile was applied.
    Snapshot currentState() const;

    static kit::AppIdentity identity(const platform::NEAppProxyFlow& flow);

    // The handlers return at once; their work goes on in a task of its own.
    void handleTCPFlow(std::shared_ptr<platform::NEAppProxyTCPFlow> flow, kit::ProxyServer proxy,
                       std::string host, std::uint16_t port, kit::AppIdentity app,
                       kit::Verdict verdict);
    void handleInterfaceFlow(std::shared_ptr<platform::NEAppProxyTCPFlow> flow,
                             std::string interfaceName, std::string host, std::uint16_t port,
                             kit::AppIdentity app, kit::Verdict verdict);
    void handleUDPFlow(std::shared_ptr<platform::NEAppProxyUDPFlow> flow, kit::ProxyServer proxy,
                       kit::AppIdentity app, kit::Verdict verdict);
    void handleDNSFlow(std::shared_ptr<platform::NEAppProxyUDPFlow> flow, DNSResponder responder,
                       kit::AppIdentity app);
    // A direct flow that the application opened to a fake address: carried
    // straight to the name it stands for, resolved by directResolver().
    void handleDirectByName(std::shared_ptr<platform::NEAppProxyTCPFlow> flow, std::string host,
                            std::uint16_t port, kit::AppIdentity app, kit::Verdict verdict);

    // The real resolver, "address:port": where the machine's last captured
    // query was going, else the first non-loopback name server configured.
    // Empty when there is none.
    std::string directResolver() const;
    // Writes the fake-address table out now (it is also written shortly
    // after each change, and when the proxy stops).
    void saveFakeDNSState();

    void recordDirectObservation(const kit::AppIdentity& app, const std::string& host,
                                 std::uint16_t port, kit::FlowTransport transport,
                                 const kit::Verdict& verdict);

    // The one maker of events: fills the event from the identity, the verdict
    // and the humanized error, and hands it to the collector, which shares it.
    std::shared_ptr<const kit::ConnectionEvent>
    record(kit::ConnectionEvent::Phase phase, const kit::AppIdentity& app, std::string host,
           std::uint16_t port, kit::FlowTransport transport, const kit::Verdict& verdict,
           std::uint64_t sent, std::uint64_t received, double lifetime,
           const std::optional<platform::FlowError>& error);

    // The same, for a flow that keeps its events' fixed fields in `fixed`
    // (an event of its own): a fresh id and date, and these.
    void recordFrom(const kit::ConnectionEvent& fixed, kit::ConnectionEvent::Phase phase,
                    std::uint64_t sent, std::uint64_t received, double lifetime,
                    const std::optional<platform::FlowError>& error);

    // Balances the active count for a flow that ended after its `open`
    // with an event that does not count as an ending.
    void leaveActive();

    kit::FakeIPAllocator& fakeIP() { return *fakeIP_; }
    platform::DispatchQueue& queue() { return *queue_; }
    ExtensionXPCServer& xpcServer() { return xpcServer_; }

    struct QueuePool;
    struct DNSFlow;

private:
    void refuse(platform::NEAppProxyFlow& flow, const kit::AppIdentity& app,
                const std::string& host, const kit::Verdict& verdict);
    // Both TCP handlers: through `proxy`, or pinned to `interfaceName`.
    void carryTCP(std::shared_ptr<platform::NEAppProxyTCPFlow> flow,
                  std::optional<kit::ProxyServer> proxy, std::string interfaceName,
                  std::string host, std::uint16_t port, kit::AppIdentity app, kit::Verdict verdict,
                  std::optional<std::string> resolver = std::nullopt);
    // Both ways of making an event end here: the failure line, the
    // humanized error, the collector.
    std::shared_ptr<const kit::ConnectionEvent>
    submit(kit::ConnectionEvent event, const std::optional<platform::FlowError>& error);
    void loadFakeDNSState();
    // Our own look-ups behind a local stub would get our own fake answers
    // back: the connections ask the real resolver again for those.
    void distrustFakeAnswers();
    void scheduleFakeDNSSave();
    void noteResolver(const platform::NWHostEndpoint& endpoint);
    void pumpDNS(std::shared_ptr<DNSFlow> dns);
    void forwardDNS(std::shared_ptr<DNSFlow> dns, platform::Bytes query,
                    std::shared_ptr<const platform::NWHostEndpoint> endpoint);

    std::unique_ptr<QueuePool> ownQueue_;
    platform::DispatchQueue* queue_ = nullptr;
    std::shared_ptr<platform::NWConnectionService> connections_;
    StatsCollector& collector_;
    InterfaceRegistry& interfaces_;
    const SteadyNow now_;
    const std::string controlSocketPath_;
    const std::chrono::milliseconds firstPacketWait_;
    const std::chrono::milliseconds dnsForwardTimeout_;
    const std::size_t dnsForwardsInFlight_;

    ExtensionXPCServer xpcServer_;
    const std::shared_ptr<kit::FakeIPAllocator> fakeIP_;

    const bool fakeDNS_;
    const std::string fakeDNSStatePath_;
    const std::chrono::milliseconds fakeDNSSaveInterval_;
    std::atomic<bool> fakeSaveScheduled_{false};
    std::mutex fakeSaveLock_;         // one writer of the file at a time
    mutable std::mutex resolverLock_; // guards resolverInUse_
    std::string resolverInUse_;

    mutable std::mutex stateLock_; // guards state_
    Snapshot state_;

    std::mutex directDedupLock_; // guards directLastSeen_
    std::unordered_map<std::string, std::chrono::steady_clock::time_point> directLastSeen_;
};

} // namespace veltrane::core
