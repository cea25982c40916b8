// UDP flows (QUIC) through a SOCKS5 relay, and DNS flows answered with fake
// addresses or forwarded to the resolver they were meant for.

#include "ExtensionCore/AwaitCallback.hpp"
#include "ExtensionCore/Clients/UDPRelay.hpp"
#include "ExtensionCore/DecimalText.hpp"
#include "ExtensionCore/Provider/FlowRecorder.hpp"
#include "ExtensionCore/Provider/FlowSteps.hpp"
#include "ExtensionCore/Provider/TransparentProxyProvider.hpp"

#include <asio.hpp>
#include <atomic>

namespace veltrane::core {

using kit::FlowTransport;
using platform::Bytes;
using platform::FlowError;
using platform::NEAppProxyUDPFlow;
using Phase = kit::ConnectionEvent::Phase;

namespace {

struct UDPFlowContext : FlowRecorder {
    std::shared_ptr<NEAppProxyUDPFlow> flow;
    kit::ProxyServer proxy;
};

Awaitable<void> relayUDPFlow(UDPFlowContext context,
                             std::shared_ptr<platform::NWConnectionService> service,
                             platform::DispatchQueue& queue) {
    auto opened = co_await openFlow(context.flow);
    if (opened) {
        if (platform::isOrderlyEnd(*opened)) {
            context.record(Phase::close, 0, 0, context.secondsSinceStart(), std::nullopt);
            context.flow->closeRead(std::nullopt);
            context.flow->closeWrite(std::nullopt);
        } else {
            // No line of its own: record's "flow FAILED" line says it.
            context.record(Phase::failed, 0, 0, 0, opened);
            context.flow->closeRead(opened);
            context.flow->closeWrite(opened);
        }
        co_return;
    }
    auto onClose = [ending = context.ending()](std::uint64_t sent, std::uint64_t received,
                                               const std::optional<FlowError>& error) {
        ending.recordEnd(sent, received, error);
    };
    // Always SOCKS5, whatever the proxy's protocol: an HTTP proxy fails the
    // handshake and the flow ends as failed.
    auto relay = std::make_shared<UDPRelay>(context.flow, context.proxy, *service, queue,
                                            std::move(onClose));
    co_await relay->start();
}

} // namespace

void TransparentProxyProvider::handleUDPFlow(std::shared_ptr<NEAppProxyUDPFlow> flow,
                                             kit::ProxyServer proxy, kit::AppIdentity app,
                                             kit::Verdict verdict) {
    // A UDP flow has no single destination: its events name the
    // application's own address, with port 0.
    std::string label = "udp";
    if (const auto* local = platform::hostEndpoint(flow->localEndpoint())) {
        label = local->hostname();
    }
    UDPFlowContext context{{weak_from_this(), std::move(label), 0, FlowTransport::udp,
                            std::move(app), std::move(verdict)},
                           std::move(flow),
                           std::move(proxy)};
    context.recordOpen();
    auto task = relayUDPFlow(std::move(context), connections_, queue());
    asio::co_spawn(asio::make_strand(queue()), std::move(task), asio::detached);
}

// --- DNS ---

struct TransparentProxyProvider::DNSFlow {
    DNSFlow(std::shared_ptr<NEAppProxyUDPFlow> flow, DNSResponder responder)
        : flow(std::move(flow)), responder(std::move(responder)) {}

    std::shared_ptr<NEAppProxyUDPFlow> flow;
    DNSResponder responder; // the profile the flow started under, for its whole life
    std::atomic<std::size_t> forwardsInFlight{0};
};

void TransparentProxyProvider::handleDNSFlow(std::shared_ptr<NEAppProxyUDPFlow> flow,
                                             DNSResponder responder, kit::AppIdentity /*app*/) {
    auto dns = std::make_shared<DNSFlow>(std::move(flow), std::move(responder));
    auto start = [weak = weak_from_this(), dns]() -> Awaitable<void> {
        auto opened = co_await openFlow(dns->flow);
        if (opened) {
            dns->flow->closeRead(opened);
            co_return;
        }
        if (auto owner = weak.lock()) {
            owner->pumpDNS(dns);
        }
    };
    asio::co_spawn(asio::make_strand(queue()), std::move(start), asio::detached);
}

void TransparentProxyProvider::pumpDNS(std::shared_ptr<DNSFlow> dns) {
    dns->flow->readDatagrams([weak = weak_from_this(),
                              dns](std::optional<std::vector<Bytes>> datagrams,
                                   std::optional<std::vector<platform::NWEndpointRef>> endpoints,
                                   const std::optional<FlowError>& error) {
        auto owner = weak.lock();
        if (!owner) {
            return;
        }
        if (error) {
            dns->flow->closeRead(error);
            dns->flow->closeWrite(error);
            return;
        }
        if (!datagrams || !endpoints || datagrams->empty()) {
            dns->flow->closeRead(std::nullopt);
            dns->flow->closeWrite(std::nullopt);
            return;
        }
        std::vector<Bytes> answers;
        std::vector<platform::NWEndpointRef> answeredBy;
        std::vector<std::pair<Bytes, std::shared_ptr<const platform::NWHostEndpoint>>> forwards;
        const std::size_t count = std::min(datagrams->size(), endpoints->size());
        for (std::size_t i = 0; i < count; ++i) {
            const auto& endpoint = (*endpoints)[i];
            const auto* host = platform::hostEndpoint(endpoint);
            if (host == nullptr) {
                continue;
            }
            auto outcome = dns->responder.handle((*datagrams)[i]);
            if (auto* answered = std::get_if<DNSResponder::Answered>(&outcome)) {
                answers.push_back(std::move(answered->response));
                answeredBy.push_back(endpoint);
            } else {
                forwards.emplace_back(
                    std::move((*datagrams)[i]),
                    std::shared_ptr<const platform::NWHostEndpoint>(endpoint, host));
            }
        }
        if (owner->fakeDNS_ && count > 0) {
            if (const auto* host = platform::hostEndpoint((*endpoints)[count - 1])) {
                owner->noteResolver(*host);
            }
        }
        if (!answers.empty()) {
            dns->flow->writeDatagrams(std::move(answers), std::move(answeredBy),
                                      [](const std::optional<FlowError>&) {});
            owner->scheduleFakeDNSSave();
        }
        for (auto& [query, endpoint] : forwards) {
            owner->forwardDNS(dns, std::move(query), std::move(endpoint));
        }
        // The next read waits for no forwarded reply.
        owner->pumpDNS(dns);
    });
}

void TransparentProxyProvider::forwardDNS(
    std::shared_ptr<DNSFlow> dns, Bytes query,
    std::shared_ptr<const platform::NWHostEndpoint> endpoint) {
    if (dns->forwardsInFlight.fetch_add(1) >= dnsForwardsInFlight_) {
        dns->forwardsInFlight.fetch_sub(1);
        return; // dropped: the application's resolver asks again
    }
    const auto port =
        static_cast<std::uint16_t>(parseUnsignedDecimal(endpoint->port(), 65535).value_or(53));
    auto connection =
        connections_->makeConnection(endpoint->hostname(), port, platform::NWParameters::udp());
    connection->start(*queue_);
    connection->send(std::move(query), [](const std::optional<platform::NWError>&) {});

    // A silent resolver's socket is closed after the time-out; the cancel
    // ends the pending receive, which then writes nothing.
    auto strand = asio::make_strand(*queue_); // the timer's own, for its cancel
    auto timer = std::make_shared<asio::steady_timer>(strand, dnsForwardTimeout_);
    timer->async_wait([connection](const std::error_code& error) {
        if (!error) {
            connection->cancel();
        }
    });
    // The connection holds this receive until it ends: a strong reference
    // back would keep both for ever if the queue stopped first.
    connection->receiveMessage(
        [dns, endpoint, weak = std::weak_ptr(connection), timer,
         strand](std::optional<Bytes> data, bool, const std::optional<platform::NWError>&) {
            if (data && !data->empty()) {
                dns->flow->writeDatagrams({std::move(*data)}, {endpoint},
                                          [](const std::optional<FlowError>&) {});
            }
            if (auto connection = weak.lock()) {
                connection->cancel();
            }
            asio::post(strand, [timer] { timer->cancel(); });
            dns->forwardsInFlight.fetch_sub(1);
        });
}

} // namespace veltrane::core
