// TCP flows carried through a proxy or pinned to an interface. Both open the
// flow, read its first bytes, sniff the real name from them and only then
// connect, so the upstream learns the name even when the application dialled
// an address; the bytes read go upstream first.

#include "ExtensionCore/AwaitCallback.hpp"
#include "ExtensionCore/Clients/ConnectionSteps.hpp"
#include "ExtensionCore/Clients/HTTPConnectClient.hpp"
#include "ExtensionCore/Clients/InterfaceBoundClient.hpp"
#include "ExtensionCore/Clients/InterfaceRegistry.hpp"
#include "ExtensionCore/Clients/SOCKS5Client.hpp"
#include "ExtensionCore/Clients/UDPRelay.hpp"
#include "ExtensionCore/DNS/DirectResolver.hpp"
#include "ExtensionCore/Errors/ErrorConversion.hpp"
#include "ExtensionCore/Flow/FlowPump.hpp"
#include "ExtensionCore/Flow/SNISniffer.hpp"
#include "ExtensionCore/Provider/FlowRecorder.hpp"
#include "ExtensionCore/Provider/FlowSteps.hpp"
#include "ExtensionCore/Provider/TransparentProxyProvider.hpp"
#include "Platform/FlowEndWatch.hpp"
#include "Platform/Logger.hpp"

#include <algorithm>
#include <asio.hpp>
#include <atomic>
#include <cerrno>

namespace veltrane::core {

using kit::FlowTransport;
using platform::FlowError;
using platform::NEAppProxyTCPFlow;
using Phase = kit::ConnectionEvent::Phase;

namespace {

struct TCPFlowContext : FlowRecorder {
    std::shared_ptr<NEAppProxyTCPFlow> flow;
};

void closeBoth(platform::NEAppProxyFlow& flow, const std::optional<FlowError>& error) {
    flow.closeRead(error);
    flow.closeWrite(error);
}

// The failure path shared by both handlers, for an error of the open or the
// connect.
void failFlow(const TCPFlowContext& context, NEAppProxyTCPFlow& flow, const FlowError& error,
              std::string_view line) {
    if (platform::isOrderlyEnd(error)) {
        // The application went away first: nothing failed.
        context.record(Phase::close, 0, 0, context.secondsSinceStart(), std::nullopt);
        closeBoth(flow, std::nullopt);
        return;
    }
    platform::log::error("{} failed for {}: {}", line, context.host, error.localizedDescription());
    context.record(Phase::failed, 0, 0, context.secondsSinceStart(), error);
    closeBoth(flow, error);
}

void startPump(const TCPFlowContext& context, std::shared_ptr<NEAppProxyTCPFlow> flow,
               std::shared_ptr<platform::NWConnection> upstream,
               std::optional<platform::Bytes> firstPacket) {
    auto onClose = [ending = context.ending()](FlowPump::Counters counters,
                                               const std::optional<FlowError>& error) {
        ending.recordEnd(counters.sent, counters.received, error);
    };
    auto pump = std::make_shared<FlowPump>(std::move(flow), std::move(upstream),
                                           std::move(firstPacket), std::move(onClose));
    pump->start();
}

std::optional<std::string> sniff(const std::optional<platform::Bytes>& firstPacket,
                                 std::uint16_t port) {
    if (!firstPacket) {
        return std::nullopt;
    }
    // Only the port decides which parser runs.
    return port == 80 ? SNISniffer::httpHost(*firstPacket)
                      : SNISniffer::tlsServerName(*firstPacket);
}

SOCKS5Client::Destination socksDestination(const std::string& target, bool sniffed,
                                           std::uint16_t port) {
    if (!sniffed && UDPRelay::ipv4Octets(target)) {
        return SOCKS5Client::Destination::ipv4(target, port);
    }
    // Digits and dots go as an address even when they are no dotted quad (and
    // even when sniffed): a proxy must not be asked to resolve them as a name.
    const bool numeric = std::all_of(target.begin(), target.end(),
                                     [](char c) { return c == '.' || (c >= '0' && c <= '9'); });
    if (numeric) {
        return SOCKS5Client::Destination::ipv4(target, port);
    }
    return SOCKS5Client::Destination::domain(target, port);
}

struct Upstream {
    std::shared_ptr<platform::NWConnection> connection;
    std::optional<FlowError> error;
};

// A proxy may stall its handshake for ever, and the clients arm no timer: while
// the connection is being made, an application that gives up cancels it, and
// the flow ends as the application ended it. A reset is giving up; a finished
// sending side may be a half-close that still waits for the answer, so the
// connection then gets a grace period before it is given up.
class WatchForDeparture {
public:
    static constexpr auto halfCloseGrace = std::chrono::seconds(10);

    WatchForDeparture(NEAppProxyTCPFlow& flow, std::shared_ptr<platform::NWConnection> connection,
                      platform::DispatchQueue& queue)
        : watch_(dynamic_cast<platform::FlowEndWatch*>(&flow)),
          state_(std::make_shared<State>(queue, std::move(connection))) {
        if (watch_) {
            watch_->watchForEnd([state = state_](bool reset) { state->applicationEnded(reset); });
        }
    }
    ~WatchForDeparture() {
        if (watch_) {
            watch_->stopWatching();
        }
        state_->settled = true;
        asio::post(state_->grace.get_executor(), [state = state_] { state->grace.cancel(); });
    }
    WatchForDeparture(const WatchForDeparture&) = delete;
    WatchForDeparture& operator=(const WatchForDeparture&) = delete;

    // The outcome as the flow should record it.
    void settle(Upstream& upstream) const {
        if (state_->gone && upstream.error) {
            upstream.error = platform::NEAppProxyError::notConnected();
        }
    }

private:
    struct State : std::enable_shared_from_this<State> {
        State(platform::DispatchQueue& queue, std::shared_ptr<platform::NWConnection> connection)
            : grace(asio::make_strand(queue)), connection(std::move(connection)) {}

        void applicationEnded(bool reset) {
            if (reset) {
                giveUp();
                return;
            }
            asio::post(grace.get_executor(), [self = shared_from_this()] {
                self->grace.expires_after(halfCloseGrace);
                self->grace.async_wait([self](const std::error_code& error) {
                    if (!error) {
                        self->giveUp();
                    }
                });
            });
        }
        // Never once the connection is settled: by then it is the flow's.
        void giveUp() {
            if (settled) {
                return;
            }
            gone = true;
            connection->cancel();
        }

        asio::steady_timer grace;
        std::shared_ptr<platform::NWConnection> connection;
        std::atomic<bool> gone{false};
        std::atomic<bool> settled{false};
    };

    platform::FlowEndWatch* watch_;
    std::shared_ptr<State> state_;
};

Awaitable<Upstream> connectThroughProxy(const kit::ProxyServer& proxy, const std::string& target,
                                        bool sniffed, std::uint16_t port,
                                        platform::NWConnectionService& service,
                                        platform::DispatchQueue& queue, NEAppProxyTCPFlow& flow) {
    Upstream result;
    std::optional<WatchForDeparture> watch;
    try {
        if (proxy.proto == kit::ProxyProtocol::http) {
            HTTPConnectClient client(proxy, service, queue);
            watch.emplace(flow, client.connection(), queue);
            result.connection = co_await client.connect(target, port);
        } else {
            SOCKS5Client client(proxy, service, queue);
            watch.emplace(flow, client.connection(), queue);
            auto destination = socksDestination(target, sniffed, port);
            result.connection = co_await client.connect(std::move(destination));
        }
    } catch (...) {
        result.error = flowError(std::current_exception());
    }
    if (watch) {
        watch->settle(result);
    }
    co_return result;
}

Awaitable<Upstream> connectPinned(const std::string& target, std::uint16_t port,
                                  const platform::NWInterface& interface,
                                  platform::NWConnectionService& service,
                                  platform::DispatchQueue& queue, NEAppProxyTCPFlow& flow) {
    Upstream result;
    std::optional<WatchForDeparture> watch;
    try {
        InterfaceBoundClient client(target, port, interface, service, queue);
        watch.emplace(flow, client.connection(), queue);
        result.connection = co_await client.connect();
    } catch (...) {
        result.error = flowError(std::current_exception());
    }
    if (watch) {
        watch->settle(result);
    }
    co_return result;
}

// A name that applications know only by a fake address, reached directly:
// looked up with the real resolver, then connected to from a bypass socket.
Awaitable<Upstream> connectByName(const std::string& name, std::uint16_t port,
                                  const std::string& resolver,
                                  platform::NWConnectionService& service,
                                  platform::DispatchQueue& queue,
                                  std::chrono::milliseconds timeout) {
    Upstream result;
    auto addresses =
        co_await awaitCallback<std::vector<std::string>>([&](DirectResolver::Completion done) {
            DirectResolver::resolve(
                name, resolver, service, queue, timeout,
                [](const std::string& address) { return kit::FakeIPAllocator::isFakeIP(address); },
                std::move(done));
        });
    if (addresses.empty()) {
        result.error = FlowError::from(platform::NWError::dns(EAI_NONAME));
        co_return result;
    }
    auto connection =
        service.makeConnection(addresses.front(), port, platform::NWParameters::tcp());
    auto started = co_await ConnectionSteps::start(connection, queue);
    if (started.kind == ConnectionSteps::StartOutcome::Kind::ready) {
        result.connection = std::move(connection);
    } else {
        connection->cancel();
        result.error =
            started.error ? FlowError::from(*started.error) : FlowError::posix(ECANCELED);
    }
    co_return result;
}

struct CarryPlan {
    std::optional<kit::ProxyServer> proxy;
    std::string interfaceName;
    // Engaged: straight to the flow's host name, through this resolver
    // (empty: none known, and the flow fails as a name that does not resolve).
    std::optional<std::string> resolver;
    std::chrono::milliseconds resolveTimeout{2000};
};

Awaitable<void> carryTCPFlow(TCPFlowContext context, CarryPlan plan,
                             std::shared_ptr<platform::NWConnectionService> service,
                             platform::DispatchQueue& queue, InterfaceRegistry& interfaces,
                             std::chrono::milliseconds firstPacketWait) {
    const auto& flow = context.flow;
    const char* failureLine = plan.proxy ? "proxy connect" : "interface-pinned connect";

    auto opened = co_await openFlow(flow);
    if (opened) {
        failFlow(context, *flow, *opened, failureLine);
        co_return;
    }

    if (plan.resolver) {
        // Nothing to sniff: the name is known, and a protocol whose server
        // speaks first must not wait for a first read.
        auto upstream = co_await connectByName(context.host, context.port, *plan.resolver, *service,
                                               queue, plan.resolveTimeout);
        if (upstream.error) {
            failFlow(context, *flow, *upstream.error, "direct connect");
            co_return;
        }
        platform::log::info("flow opened, direct to {}:{} by name", context.host, context.port);
        startPump(context, flow, std::move(upstream.connection), std::nullopt);
        co_return;
    }

    auto first = co_await readFirstPacket(flow, firstPacketWait, queue);
    const auto sniffed = sniff(first.bytes, context.port);
    const std::string target = sniffed ? *sniffed : context.host;
    const std::string sni = sniffed ? " (sni)" : "";

    Upstream upstream;
    if (plan.proxy) {
        const auto& proxy = *plan.proxy;
        if (!sniffed && context.host.find(':') != std::string::npos) {
            // An IPv6 literal with no name to ask for: refused rather than
            // sent to a proxy that may have no IPv6 route.
            context.recordRefusedAfterOpen();
            closeBoth(*first.flow, FlowError::posix(ECONNREFUSED));
            co_return;
        }
        platform::log::info("flow opened, upstream {}:{} for {}:{}{}", proxy.address, proxy.port,
                            target, context.port, sni);
        upstream = co_await connectThroughProxy(proxy, target, sniffed.has_value(), context.port,
                                                *service, queue, *first.flow);
        if (upstream.error) {
            failFlow(context, *first.flow, *upstream.error, failureLine);
            co_return;
        }
        platform::log::info("upstream connected via {}:{} for {}:{}", proxy.address, proxy.port,
                            target, context.port);
    } else {
        // Looked up anew for each flow, after the first read: a tunnel that
        // came up (or back under a new name) meanwhile is found.
        auto interface = interfaces.interface(plan.interfaceName);
        if (!interface) {
            platform::log::error("interface {} unavailable; failing flow closed",
                                 plan.interfaceName);
            const auto error = flowError(InterfaceError::unavailable(plan.interfaceName));
            context.record(Phase::failed, 0, 0, context.secondsSinceStart(), error);
            closeBoth(*first.flow, error);
            co_return;
        }
        platform::log::info("flow opened, pinned to {} for {}:{}", plan.interfaceName, target,
                            context.port);
        upstream =
            co_await connectPinned(target, context.port, *interface, *service, queue, *first.flow);
        if (upstream.error) {
            failFlow(context, *first.flow, *upstream.error, failureLine);
            co_return;
        }
    }
    startPump(context, std::move(first.flow), std::move(upstream.connection),
              std::move(first.bytes));
}

} // namespace

void TransparentProxyProvider::handleTCPFlow(std::shared_ptr<NEAppProxyTCPFlow> flow,
                                             kit::ProxyServer proxy, std::string host,
                                             std::uint16_t port, kit::AppIdentity app,
                                             kit::Verdict verdict) {
    carryTCP(std::move(flow), std::move(proxy), {}, std::move(host), port, std::move(app),
             std::move(verdict));
}

void TransparentProxyProvider::handleInterfaceFlow(std::shared_ptr<NEAppProxyTCPFlow> flow,
                                                   std::string interfaceName, std::string host,
                                                   std::uint16_t port, kit::AppIdentity app,
                                                   kit::Verdict verdict) {
    carryTCP(std::move(flow), std::nullopt, std::move(interfaceName), std::move(host), port,
             std::move(app), std::move(verdict));
}

void TransparentProxyProvider::handleDirectByName(std::shared_ptr<NEAppProxyTCPFlow> flow,
                                                  std::string host, std::uint16_t port,
                                                  kit::AppIdentity app, kit::Verdict verdict) {
    auto resolver = directResolver();
    if (resolver.empty()) {
        platform::log::error("no resolver known to reach {} by name", host);
    }
    carryTCP(std::move(flow), std::nullopt, {}, std::move(host), port, std::move(app),
             std::move(verdict), std::move(resolver));
}

void TransparentProxyProvider::carryTCP(std::shared_ptr<NEAppProxyTCPFlow> flow,
                                        std::optional<kit::ProxyServer> proxy,
                                        std::string interfaceName, std::string host,
                                        std::uint16_t port, kit::AppIdentity app,
                                        kit::Verdict verdict, std::optional<std::string> resolver) {
    TCPFlowContext context{{weak_from_this(), std::move(host), port, FlowTransport::tcp,
                            std::move(app), std::move(verdict)},
                           std::move(flow)};
    context.recordOpen();
    // Every argument is a named value: g++ 12 has miscompiled temporaries
    // handed to a coroutine in the same expression.
    CarryPlan plan{std::move(proxy), std::move(interfaceName), std::move(resolver),
                   dnsForwardTimeout_};
    auto task = carryTCPFlow(std::move(context), std::move(plan), connections_, queue(),
                             interfaces_, firstPacketWait_);
    asio::co_spawn(asio::make_strand(queue()), std::move(task), asio::detached);
}

} // namespace veltrane::core
