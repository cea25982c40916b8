#pragma once

#include "ExtensionCore/Awaitable.hpp"
#include "ExtensionCore/Clients/SOCKS5Handshake.hpp"
#include "ExtensionCore/Clients/SOCKSError.hpp"
#include "Platform/NWConnection.hpp"
#include "VeltraneKit/Profile.hpp"

#include <cstdint>
#include <memory>
#include <string>

namespace veltrane::core {

// One connection through one SOCKS5 proxy (RFC 1928, RFC 1929 user name and
// password). Made per attempt and used once:
//
//   SOCKS5Client client(proxy, service, queue);
//   auto upstream = co_await client.connect(SOCKS5Client::Destination::domain(host, port));
//
// The connection to the proxy is made at construction and started by the
// first step. The steps run one after the other on the client's own strand of
// `queue`; the awaiting coroutine resumes on its own executor. Failures throw
// SOCKSError. The client never cancels its connection: on success the caller
// owns it, on failure it closes when the last reference goes.
//
// The client may be destroyed while a step is still pending; the step then
// finishes on its own (when the connection fails or is cancelled).
class SOCKS5Client {
public:
    using SOCKSError = core::SOCKSError;
    using Destination = SOCKS5Destination;

    struct UDPAssociation {
        std::string relayHost; // as the proxy named it, unchanged
        std::uint16_t relayPort = 0;
        // Keeps the association alive; the caller holds it while it uses the relay.
        std::shared_ptr<platform::NWConnection> control;
    };

    SOCKS5Client(const kit::ProxyServer& proxy, platform::NWConnectionService& service,
                 platform::DispatchQueue& queue);
    ~SOCKS5Client();
    SOCKS5Client(const SOCKS5Client&) = delete;
    SOCKS5Client& operator=(const SOCKS5Client&) = delete;

    // CONNECT; the established connection, ready for the flow's bytes. Any
    // bytes the proxy sent after its reply are still unread in it.
    Awaitable<std::shared_ptr<platform::NWConnection>> connect(Destination destination);

    // UDP ASSOCIATE for destination 0.0.0.0:0.
    Awaitable<UDPAssociation> udpAssociate();

    const std::shared_ptr<platform::NWConnection>& connection() const;

    struct State;

private:
    std::shared_ptr<State> state_;
};

} // namespace veltrane::core
