#pragma once

#include "ExtensionCore/Awaitable.hpp"
#include "Platform/FlowError.hpp"
#include "Platform/NEAppProxyUDPFlow.hpp"
#include "Platform/NWConnection.hpp"
#include "Platform/NWHostEndpoint.hpp"
#include "VeltraneKit/Profile.hpp"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace veltrane::core {

// Carries one application UDP flow through a SOCKS5 proxy's UDP relay
// (RFC 1928, section 7): holds the TCP control connection of the
// association, talks to the relay over UDP, and frames datagrams both ways.
//
//   auto relay = std::make_shared<UDPRelay>(flow, proxy, service, queue, onClose);
//   co_await relay->start();   // returns once the pumps run, or after onClose
//
// Must be owned by a shared_ptr: the two pumps' pending operations keep it
// alive. Everything ends in one finish(), exactly once: it cancels the relay
// and control connections, closes the flow both ways with the error and calls
// onClose with the payload bytes carried each way.
class UDPRelay : public std::enable_shared_from_this<UDPRelay> {
public:
    // May run on any thread; called exactly once.
    using OnClose = std::function<void(std::uint64_t sent, std::uint64_t received,
                                       const std::optional<platform::FlowError>& error)>;

    // A datagram as the relay delivered it: its sender and the payload.
    struct Datagram {
        std::vector<std::uint8_t> payload;
        std::string host;
        std::uint16_t port = 0;
        friend bool operator==(const Datagram&, const Datagram&) = default;
    };

    UDPRelay(std::shared_ptr<platform::NEAppProxyUDPFlow> flow, kit::ProxyServer proxy,
             platform::NWConnectionService& service, platform::DispatchQueue& queue,
             OnClose onClose);
    UDPRelay(const UDPRelay&) = delete;
    UDPRelay& operator=(const UDPRelay&) = delete;

    // Sets up the association and starts both pumps. Never throws: every
    // failure ends in onClose.
    Awaitable<void> start();

    // RSV, FRAG 0, then ATYP 1 with four octets when the host reads as an
    // IPv4 address, else ATYP 3 with the host's bytes (IPv6 text included),
    // the port high byte first, and the payload. Nothing when the host is
    // over 255 bytes: such a datagram can't be addressed and is not sent.
    static std::optional<std::vector<std::uint8_t>>
    encapsulate(std::span<const std::uint8_t> payload, std::string_view host, std::uint16_t port);

    // Takes a relay frame apart; nothing for a fragment, an unknown address
    // type or a frame too short for its address and port.
    static std::optional<Datagram> decapsulate(std::span<const std::uint8_t> data);

    // The host text and port of a host endpoint whose port is a decimal
    // 16-bit number; nothing for any other endpoint or none.
    static std::optional<std::pair<std::string, std::uint16_t>>
    hostPort(const platform::NWEndpointRef& endpoint);

    // Exactly four dot-separated 8-bit decimal numbers.
    static std::optional<std::array<std::uint8_t, 4>> ipv4Octets(std::string_view text);

private:
    void pumpFlowToRelay();
    void pumpRelayToFlow();
    void finish(const std::optional<platform::FlowError>& error);
    bool isClosed() const;

    const std::shared_ptr<platform::NEAppProxyUDPFlow> flow_;
    const kit::ProxyServer proxy_;
    platform::NWConnectionService& service_;
    platform::DispatchQueue& queue_;

    mutable std::mutex lock_; // guards everything below
    OnClose onClose_;
    std::shared_ptr<platform::NWConnection> control_;
    std::shared_ptr<platform::NWConnection> relay_;
    std::uint64_t sent_ = 0;
    std::uint64_t received_ = 0;
    bool closed_ = false;
};

} // namespace veltrane::core
