#include "ExtensionCore/Provider/TransparentProxyProvider.hpp"

#include "ExtensionCore/Clients/InterfaceRegistry.hpp"
#include "ExtensionCore/Control/StatsCollector.hpp"
#include "ExtensionCore/DecimalText.hpp"
#include "ExtensionCore/Errors/ErrorHumanizer.hpp"
#include "ExtensionCore/Provider/AppIdentityLookup.hpp"
#include "Platform/Logger.hpp"
#include "Platform/linux/LinuxConnection.hpp"
#include "VeltraneKit/ProfileCoding.hpp"
#include "VeltraneKit/SharedPaths.hpp"

#include <asio.hpp>
#include <cerrno>
#include <thread>
#include <vector>

namespace veltrane::core {

using kit::ConnectionEvent;
using kit::FlowTransport;
using platform::FlowError;
using Phase = ConnectionEvent::Phase;

// The provider's own concurrent queue: an io_context run by a few threads.
struct TransparentProxyProvider::QueuePool {
    asio::io_context context;
    asio::executor_work_guard<asio::io_context::executor_type> work{context.get_executor()};
    std::vector<std::thread> threads;

    explicit QueuePool(int count) {
        for (int i = 0; i < std::max(count, 1); ++i) {
            threads.emplace_back([this] { context.run(); });
        }
    }

    // False when called from one of its own threads, which cannot be joined
    // from inside: the caller must then let the pool outlive it.
    bool stop() {
        work.reset();
        context.stop();
        bool joinable = true;
        for (auto& thread : threads) {
            if (thread.get_id() == std::this_thread::get_id()) {
                thread.detach();
                joinable = false;
            } else if (thread.joinable()) {
                thread.join();
            }
        }
        return joinable;
    }
};

TransparentProxyProvider::TransparentProxyProvider() : TransparentProxyProvider(Options{}) {}

TransparentProxyProvider::TransparentProxyProvider(Options options)
    : connections_(options.connections ? std::move(options.connections)
                                       : std::make_shared<platform::LinuxConnectionService>()),
      collector_(options.collector ? *options.collector : StatsCollector::shared()),
      interfaces_(options.interfaces ? *options.interfaces : InterfaceRegistry::shared()),
      now_(options.now ? std::move(options.now)
                       : SteadyNow([] { return std::chrono::steady_clock::now(); })),
      controlSocketPath_(std::move(options.controlSocketPath)),
      firstPacketWait_(options.firstPacketWait), dnsForwardTimeout_(options.dnsForwardTimeout),
      dnsForwardsInFlight_(std::max<std::size_t>(options.dnsForwardsInFlight, 1)),
      xpcServer_(&collector_),
      fakeIP_(std::make_shared<kit::FakeIPAllocator>(fakeIPCapacity, fakeIPTTL)),
      fakeDNS_(options.fakeDNS), fakeDNSStatePath_(std::move(options.fakeDNSStatePath)),
      fakeDNSSaveInterval_(options.fakeDNSSaveInterval) {
    if (options.queue != nullptr) {
        queue_ = options.queue;
    } else {
        ownQueue_ = std::make_unique<QueuePool>(options.queueThreads);
        queue_ = &ownQueue_->context;
    }
}

TransparentProxyProvider::~TransparentProxyProvider() {
    xpcServer_.stop();
    if (ownQueue_ && !ownQueue_->stop()) {
        // The last owner let go on a queue thread, which is still inside the
        // pool's run(): the pool must stay for that thread to return into.
        (void)ownQueue_.release();
    }
}

// --- Lifecycle ---

void TransparentProxyProvider::startProxy(std::optional<platform::ProviderDictionary> options,
                                          StartCompletion completion) {
    platform::log::info("startProxy");

    std::optional<platform::Bytes> bytes;
    if (options && !options->empty()) {
        bytes = platform::providerBytes(options, "profile");
    }
    if (!bytes) {
        bytes = providerConfigurationProfile();
    }
    if (fakeDNS_) {
        loadFakeDNSState(); // before any flow can ask for a name
        distrustFakeAnswers();
    }
    if (bytes) {
        applyProfile(*bytes);
    } else {
        platform::log::error("no profile in provider configuration; failing safe (all direct)");
    }

    // Without the control socket nothing can read the events, but every flow
    // is still routed: the start goes on.
    try {
        if (controlSocketPath_.empty()) {
            xpcServer_.start(kit::SharedPaths::extensionMachService);
        } else {
            xpcServer_.startAtPath(controlSocketPath_);
        }
    } catch (const std::exception& error) {
        platform::log::error("control service unavailable: {}", error.what());
    }

    interfaces_.start(*queue_);

    using platform::NENetworkRule;
    using platform::NWHostEndpoint;
    platform::NETransparentProxyNetworkSettings settings("127.0.0.1");
    settings.includedNetworkRules = {
        NENetworkRule::withRemoteNetwork(std::nullopt, 0, std::nullopt, 0,
                                         NENetworkRule::Protocol::tcp,
                                         NENetworkRule::Direction::outbound),
        NENetworkRule::withDestinationNetwork(NWHostEndpoint("0.0.0.0", "443"), 0,
                                              NENetworkRule::Protocol::udp),
        NENetworkRule::withDestinationNetwork(NWHostEndpoint("::", "443"), 0,
                                              NENetworkRule::Protocol::udp),
    };
    if (fakeDNS_) {
        // Every query of the machine, not only a socket bound to port 53:
        // the answers must reach applications behind any local resolver.
        for (const char* any : {"0.0.0.0", "::"}) {
            settings.includedNetworkRules.push_back(NENetworkRule::withDestinationNetwork(
                NWHostEndpoint(any, "53"), 0, NENetworkRule::Protocol::udp));
        }
    }
    setTunnelNetworkSettings(std::move(settings), [completion = std::move(completion)](
                                                      const std::optional<FlowError>& error) {
        if (error) {
            platform::log::error("setTunnelNetworkSettings failed: {}",
                                 error->localizedDescription());
        }
        if (completion) {
            completion(error);
        }
    });
}

void TransparentProxyProvider::stopProxy(platform::NEProviderStopReason reason,
                                         StopCompletion completion) {
    platform::log::info("stopProxy reason={}", reason);
    if (fakeDNS_) {
        saveFakeDNSState();
    }
    if (completion) {
        completion();
    }
}

void TransparentProxyProvider::handleAppMessage(platform::Bytes messageData,
                                                AppMessageCompletion completion) {
    applyProfile(messageData);
    if (completion) {
        completion(platform::Bytes{'o', 'k'});
    }
}

std::optional<platform::Bytes> TransparentProxyProvider::providerConfigurationProfile() const {
    auto configuration = protocolConfiguration();
    if (!configuration) {
        return std::nullopt;
    }
    return platform::providerBytes(configuration->providerConfiguration, "profile");
}

void TransparentProxyProvider::applyProfile(std::span<const std::uint8_t> json) {
    auto profile = kit::decodeProfile(json);
    if (!profile) {
        platform::log::error("failed to decode profile");
        return;
    }
    DNSResponder responder(fakeIP_, profile->dns.exclusions);
    responder.ttl = dnsAnswerTTL;
    auto loopGuard = LoopGuard::forProfile(*profile);
    const std::string name = profile->name;
    const auto rules = static_cast<long>(profile->rules.size());
    {
        std::lock_guard guard(stateLock_);
        // Built inside the lock, so that engine, profile, responder and guard
        // always stem from one profile, as one value.
        kit::RuleEngine engine(*profile);
        state_ = std::make_shared<const State>(State{std::move(engine), std::move(*profile),
                                                     std::move(responder), std::move(loopGuard)});
    }
    platform::log::info("profile applied: {}, rules={}", name, rules);
    scheduleFakeDNSSave(); // whether answers are given is part of what it keeps
}

TransparentProxyProvider::Snapshot TransparentProxyProvider::currentState() const {
    std::lock_guard guard(stateLock_);
    return state_;
}

kit::AppIdentity TransparentProxyProvider::identity(const platform::NEAppProxyFlow& flow) {
    return ::veltrane::core::identity(flow.metaData());
}

// --- Dispatch ---

namespace {

std::uint16_t portOf(const platform::NWEndpointRef& endpoint) {
    const auto* host = platform::hostEndpoint(endpoint);
    if (host == nullptr) {
        return 0;
    }
    // Text that is empty or does not read as a 16-bit number refuses
    // nothing: the flow goes on with port 0.
    return static_cast<std::uint16_t>(parseUnsignedDecimal(host->port(), 65535).value_or(0));
}

} // namespace

bool TransparentProxyProvider::handleNewFlow(std::shared_ptr<platform::NEAppProxyFlow> flow) {
    const Snapshot state = currentState();
    if (!state || !flow) {
        return false; // no profile yet: everything goes out by itself
    }
    kit::AppIdentity app = identity(*flow);

    auto tcp = std::dynamic_pointer_cast<platform::NEAppProxyTCPFlow>(flow);
    auto udp = std::dynamic_pointer_cast<platform::NEAppProxyUDPFlow>(flow);
    const bool isUDP = udp != nullptr;
    std::string host;
    std::uint16_t port = 0;
    // Where a UDP flow's first datagram went, when the host tells.
    std::string firstHost;
    std::uint16_t firstPort = 0;
    if (tcp) {
        const auto remote = tcp->remoteEndpoint();
        if (const auto* endpoint = platform::hostEndpoint(remote)) {
            host = endpoint->hostname();
            port = portOf(remote);
        }
    } else if (udp) {
        // A UDP flow names no destination; its port is the application's own.
        port = portOf(udp->localEndpoint());
        const auto first = udp->firstRemoteEndpoint();
        if (const auto* endpoint = platform::hostEndpoint(first)) {
            firstHost = endpoint->hostname();
            firstPort = portOf(first);
        }
    }

    platform::log::info("flow: {} [bundle={} resp={}] -> {}:{} {}", app.bestDescription(),
                        app.bundleID.value_or("-"),
                        app.responsibleAppName.value_or(app.responsibleBundleID.value_or("-")),
                        host, port, isUDP ? "udp" : "tcp");

    if (state->loopGuard.shouldBypass(app, host, port)) {
        platform::log::info("flow bypassed by LoopGuard: {} -> {}:{}", app.bestDescription(), host,
                            port);
        return false;
    }

    bool named = false; // the host came from a fake address
    if (auto name = fakeIP_->host(host)) {
        host = std::move(*name);
        named = true;
    }

    // The host delivers UDP to port 53 only when it captures DNS for us.
    const bool capturedDNS = udp && firstPort == 53;
    if (udp && (port == 53 || capturedDNS)) {
        if (state->profile.dns.resolveViaProxy) {
            handleDNSFlow(udp, state->dnsResponder, std::move(app));
            return true;
        }
        if (capturedDNS) {
            return false; // answering is off: the machine's DNS goes on untouched
        }
    }

    const auto transport = isUDP ? FlowTransport::udp : FlowTransport::tcp;

    if (fakeDNS_ && udp) {
        if (auto name = fakeIP_->host(firstHost)) {
            // QUIC to a fake address can neither go out to it nor (the
            // relay's replies would come from the real address) be carried
            // to the name: unlike the plain decline of a direct verdict, it
            // is refused, and the application falls back to TCP, which is
            // carried by name.
            const auto verdict = state->engine.match(app, *name, firstPort, transport);
            if (std::holds_alternative<kit::Verdict::Block>(verdict.resolved)) {
                flow->closeRead(std::nullopt);
                flow->closeWrite(std::nullopt);
                record(Phase::blocked, app, *name, port, transport, verdict, 0, 0, 0, std::nullopt);
            } else {
                refuse(*udp, app, *name, verdict);
            }
            return true;
        }
    }

    kit::Verdict verdict = state->engine.match(app, host, port, transport);

    // Unlike the plain decline, a TCP flow to a fake address that would go
    // direct is taken over: declined, it would go out to the fake address,
    // which leads nowhere. It goes straight to the name instead.
    const bool wouldGoDirect = std::holds_alternative<kit::Verdict::Direct>(verdict.resolved) ||
                               (std::holds_alternative<kit::Verdict::Proxy>(verdict.resolved) &&
                                std::get<kit::Verdict::Proxy>(verdict.resolved).servers.empty());
    if (fakeDNS_ && named && tcp && wouldGoDirect) {
        handleDirectByName(tcp, std::move(host), port, std::move(app), std::move(verdict));
        return true;
    }

    if (auto* proxy = std::get_if<kit::Verdict::Proxy>(&verdict.resolved)) {
        if (proxy->servers.empty()) {
            return false;
        }
        kit::ProxyServer first = proxy->servers.front(); // a chain acts as its first server
        if (tcp) {
            handleTCPFlow(tcp, std::move(first), std::move(host), port, std::move(app),
                          std::move(verdict));
            return true;
        }
        if (!udp) {
            return false;
        }
        switch (verdict.quicPolicy) {
        case kit::QUICPolicy::proxy:
            handleUDPFlow(udp, std::move(first), std::move(app), std::move(verdict));
            return true;
        case kit::QUICPolicy::fallback:
            refuse(*udp, app, host, verdict);
            return true;
        case kit::QUICPolicy::direct:
            recordDirectObservation(app, host, 443, FlowTransport::udp, verdict);
            return false;
        }
        return false;
    }
    if (auto* pinned = std::get_if<kit::Verdict::Interface>(&verdict.resolved)) {
        if (tcp) {
            std::string name = pinned->name; // before the verdict that holds it moves
            handleInterfaceFlow(tcp, std::move(name), std::move(host), port, std::move(app),
                                std::move(verdict));
            return true;
        }
        if (udp) {
            // Pinning exists for TCP only; QUIC falls back to TCP on a refusal.
            refuse(*udp, app, host, verdict);
            return true;
        }
        return false;
    }
    if (std::holds_alternative<kit::Verdict::Block>(verdict.resolved)) {
        flow->closeRead(std::nullopt);
        flow->closeWrite(std::nullopt);
        record(Phase::blocked, app, host, port, transport, verdict, 0, 0, 0, std::nullopt);
        return true;
    }
    recordDirectObservation(app, host, port, transport, verdict);
    return false;
}

void TransparentProxyProvider::refuse(platform::NEAppProxyFlow& flow, const kit::AppIdentity& app,
                                      const std::string& host, const kit::Verdict& verdict) {
    record(Phase::blocked, app, host, 443, FlowTransport::udp, verdict, 0, 0, 0, std::nullopt);
    const auto refused = FlowError::posix(ECONNREFUSED);
    flow.closeRead(refused);
    flow.closeWrite(refused);
}

// --- Events ---

std::shared_ptr<const ConnectionEvent> TransparentProxyProvider::record(
    Phase phase, const kit::AppIdentity& app, std::string host, std::uint16_t port,
    FlowTransport transport, const kit::Verdict& verdict, std::uint64_t sent,
    std::uint64_t received, double lifetime, const std::optional<FlowError>& error) {
    return submit(ConnectionEvent::make(phase, app, std::move(host), port, transport, verdict, sent,
                                        received, lifetime, std::nullopt),
                  error);
}

void TransparentProxyProvider::recordFrom(const kit::ConnectionEvent& fixed, Phase phase,
                                          std::uint64_t sent, std::uint64_t received,
                                          double lifetime, const std::optional<FlowError>& error) {
    auto event = fixed;
    event.id = kit::UUID::random();
    event.date = std::chrono::system_clock::now();
    event.phase = phase;
    event.bytesSent = sent;
    event.bytesReceived = received;
    event.lifetime = lifetime;
    event.errorDescription.reset();
    submit(std::move(event), error);
}

std::shared_ptr<const ConnectionEvent>
TransparentProxyProvider::submit(kit::ConnectionEvent event,
                                 const std::optional<FlowError>& error) {
    if (event.phase == Phase::failed) {
        platform::log::info("flow FAILED: {} -> {}:{} {} err={}", event.app, event.host, event.port,
                            kit::rawValue(event.transport),
                            error ? error->localizedDescription() : std::string("-"));
    }
    if (error) {
        event.errorDescription = ErrorHumanizer::humanize(*error);
    }
    auto shared = std::make_shared<const ConnectionEvent>(std::move(event));
    collector_.record(shared);
    return shared;
}

void TransparentProxyProvider::leaveActive() {
    collector_.releaseActive();
}

void TransparentProxyProvider::recordDirectObservation(const kit::AppIdentity& app,
                                                       const std::string& host, std::uint16_t port,
                                                       FlowTransport transport,
                                                       const kit::Verdict& verdict) {
    if (host.empty()) {
        return;
    }
    std::string key = (app.appBundleName ? *app.appBundleName : app.bestDescription()) + "|" + host;
    {
        std::lock_guard guard(directDedupLock_);
        const auto now = now_();
        auto found = directLastSeen_.find(key);
        if (found != directLastSeen_.end() && now - found->second < directDedupInterval) {
            return; // measured from the last event made, so not refreshed
        }
        directLastSeen_.insert_or_assign(std::move(key), now);
        if (directLastSeen_.size() > directDedupBound) {
            // Only entries that can no longer suppress anything go; if all
            // are young the table stays above the bound until they age.
            std::erase_if(directLastSeen_, [&](const auto& entry) {
                return entry.second < now - directDedupInterval;
            });
        }
    }
    record(Phase::direct, app, host, port, transport, verdict, 0, 0, 0, std::nullopt);
}

} // namespace veltrane::core
