#include "ExtensionCore/Clients/UDPRelay.hpp"

#include "ExtensionCore/Clients/SOCKS5Client.hpp"
#include "ExtensionCore/DecimalText.hpp"
#include "ExtensionCore/Errors/ErrorConversion.hpp"
#include "VeltraneKit/UnicodeText.hpp"

#include <asio.hpp>

namespace veltrane::core {

std::optional<std::array<std::uint8_t, 4>> UDPRelay::ipv4Octets(std::string_view text) {
    std::vector<std::string_view> pieces;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t dot = text.find('.', start);
        if (dot == std::string_view::npos) {
            dot = text.size();
        }
        if (dot > start) {
            pieces.push_back(text.substr(start, dot - start));
        }
        start = dot + 1;
    }
    if (pieces.size() != 4) {
        return std::nullopt;
    }
    std::array<std::uint8_t, 4> octets{};
    for (std::size_t i = 0; i < 4; ++i) {
        auto value = parseUnsignedDecimal(pieces[i], 255);
        if (!value) {
            return std::nullopt;
        }
        octets[i] = static_cast<std::uint8_t>(*value);
    }
    return octets;
}

std::optional<std::vector<std::uint8_t>>
UDPRelay::encapsulate(std::span<const std::uint8_t> payload, std::string_view host,
                      std::uint16_t port) {
    std::vector<std::uint8_t> frame{0x00, 0x00, 0x00};
    if (auto octets = ipv4Octets(host)) {
        frame.push_back(0x01);
        frame.insert(frame.end(), octets->begin(), octets->end());
    } else {
        if (host.size() > 255) {
            return std::nullopt;
        }
        frame.reserve(7 + host.size() + payload.size());
        frame.push_back(0x03);
        frame.push_back(static_cast<std::uint8_t>(host.size()));
        frame.insert(frame.end(), host.begin(), host.end());
    }
    frame.push_back(static_cast<std::uint8_t>(port >> 8));
    frame.push_back(static_cast<std::uint8_t>(port & 0xFF));
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

std::optional<UDPRelay::Datagram> UDPRelay::decapsulate(std::span<const std::uint8_t> data) {
    const std::size_t n = data.size();
    if (n < 5 || data[2] != 0) {
        return std::nullopt;
    }
    Datagram datagram;
    std::size_t addressEnd = 0;
    switch (data[3]) {
    case 0x01:
        if (n < 8) {
            return std::nullopt;
        }
        datagram.host = std::to_string(data[4]) + "." + std::to_string(data[5]) + "." +
                        std::to_string(data[6]) + "." + std::to_string(data[7]);
        addressEnd = 8;
        break;
    case 0x03: {
        std::size_t length = data[4];
        if (n < 5 + length) {
            return std::nullopt;
        }
        datagram.host = kit::UnicodeText::repairUTF8(data.subspan(5, length));
        addressEnd = 5 + length;
        break;
    }
    case 0x04:
        if (n < 20) {
            return std::nullopt;
        }
        datagram.host = "::";
        addressEnd = 20;
        break;
    default:
        return std::nullopt;
    }
    if (n < addressEnd + 2) {
        return std::nullopt;
    }
    datagram.port = static_cast<std::uint16_t>((data[addressEnd] << 8) | data[addressEnd + 1]);
    datagram.payload.assign(data.begin() + static_cast<std::ptrdiff_t>(addressEnd + 2), data.end());
    return datagram;
}

std::optional<std::pair<std::string, std::uint16_t>>
UDPRelay::hostPort(const platform::NWEndpointRef& endpoint) {
    const platform::NWHostEndpoint* host = platform::hostEndpoint(endpoint);
    if (host == nullptr) {
        return std::nullopt;
    }
    auto port = parseUnsignedDecimal(host->port(), 0xFFFF);
    if (!port) {
        return std::nullopt;
    }
    return std::pair{host->hostname(), static_cast<std::uint16_t>(*port)};
}

UDPRelay::UDPRelay(std::shared_ptr<platform::NEAppProxyUDPFlow> flow, kit::ProxyServer proxy,
                   platform::NWConnectionService& service, platform::DispatchQueue& queue,
                   OnClose onClose)
    : flow_(std::move(flow)), proxy_(std::move(proxy)), service_(service), queue_(queue),
      onClose_(std::move(onClose)) {}

Awaitable<void> UDPRelay::start() {
    auto self = shared_from_this();
    SOCKS5Client client(proxy_, service_, queue_);
    std::optional<SOCKS5Client::UDPAssociation> association;
    std::optional<platform::FlowError> failure;
    try {
        association = co_await client.udpAssociate();
    } catch (const std::exception& error) {
        failure = flowError(error);
    }
    if (failure) {
        finish(failure);
        co_return;
    }

    // A proxy that names no particular address means its own.
    std::string relayHost =
        association->relayHost == "0.0.0.0" ? proxy_.address : association->relayHost;
    auto relay =
        service_.makeConnection(relayHost, association->relayPort, platform::NWParameters::udp());
    {
        std::lock_guard guard(lock_);
        control_ = association->control;
        relay_ = relay;
    }
    // No state handler: a relay that can't be reached shows as an error of
    // its receive, and sends made before it is ready are held until then.
    relay->start(queue_);
    pumpFlowToRelay();
    pumpRelayToFlow();
}

bool UDPRelay::isClosed() const {
    std::lock_guard guard(lock_);
    return closed_;
}

void UDPRelay::pumpFlowToRelay() {
    flow_->readDatagrams(
        [self = shared_from_this()](std::optional<std::vector<platform::Bytes>> datagrams,
                                    std::optional<std::vector<platform::NWEndpointRef>> endpoints,
                                    const std::optional<platform::FlowError>& error) {
            if (error) {
                self->finish(error);
                return;
            }
            if (!datagrams || !endpoints || datagrams->empty()) {
                self->finish(std::nullopt);
                return;
            }
            std::shared_ptr<platform::NWConnection> relay;
            {
                std::lock_guard guard(self->lock_);
                if (self->closed_) {
                    return;
                }
                relay = self->relay_;
            }
            std::size_t count = std::min(datagrams->size(), endpoints->size());
            for (std::size_t i = 0; i < count; ++i) {
                auto destination = hostPort((*endpoints)[i]);
                if (!destination) {
                    continue;
                }
                const auto& payload = (*datagrams)[i];
                auto frame = encapsulate(payload, destination->first, destination->second);
                if (!frame) {
                    continue;
                }
                // Counted as it is handed over, so the count never trails
                // what the relay may already have carried.
                {
                    std::lock_guard guard(self->lock_);
                    self->sent_ += payload.size();
                }
                // Nothing waits for the send: datagrams in flight are not limited.
                relay->send(std::move(*frame), [](const std::optional<platform::NWError>&) {});
            }
            self->pumpFlowToRelay();
        });
}

void UDPRelay::pumpRelayToFlow() {
    std::shared_ptr<platform::NWConnection> relay;
    {
        std::lock_guard guard(lock_);
        if (closed_) {
            return;
        }
        relay = relay_;
    }
    relay->receiveMessage(
        [self = shared_from_this()](std::optional<platform::Bytes> data, bool isComplete,
                                    const std::optional<platform::NWError>& error) {
            if (error) {
                self->finish(platform::FlowError::from(*error));
                return;
            }
            if (data) {
                if (auto datagram = decapsulate(*data); datagram && !self->isClosed()) {
                    {
                        std::lock_guard guard(self->lock_);
                        self->received_ += datagram->payload.size();
                    }
                    auto sender = platform::NWHostEndpoint::endpointWithHostname(
                        datagram->host, std::to_string(datagram->port));
                    self->flow_->writeDatagrams({std::move(datagram->payload)}, {sender},
                                                [](const std::optional<platform::FlowError>&) {});
                }
            } else if (isComplete) {
                // On a datagram connection the flag marks each whole datagram;
                // with nothing delivered it marks the end of the association.
                self->finish(std::nullopt);
                return;
            }
            self->pumpRelayToFlow();
        });
}

void UDPRelay::finish(const std::optional<platform::FlowError>& error) {
    OnClose onClose;
    std::shared_ptr<platform::NWConnection> relay;
    std::shared_ptr<platform::NWConnection> control;
    std::uint64_t sent = 0;
    std::uint64_t received = 0;
    {
        std::lock_guard guard(lock_);
        if (closed_) {
            return;
        }
        closed_ = true;
        sent = sent_;
        received = received_;
        relay = relay_;
        control = control_;
        onClose = std::move(onClose_);
    }
    if (relay) {
        relay->cancel();
    }
    if (control) {
        control->cancel();
    }
    flow_->closeRead(error);
    flow_->closeWrite(error);
    if (onClose) {
        onClose(sent, received, error);
    }
}

} // namespace veltrane::core
