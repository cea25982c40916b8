#pragma once

#include "ExtensionCore/Awaitable.hpp"
#include "ExtensionCore/Clients/HTTPProxyError.hpp"
#include "Platform/NWConnection.hpp"
#include "VeltraneKit/Profile.hpp"

#include <cstdint>
#include <memory>
#include <string>

namespace veltrane::core {

// One tunnel through an HTTP proxy by a single CONNECT request, with Basic
// proxy authentication when the proxy has credentials. Made per attempt and
// used once:
//
//   HTTPConnectClient client(proxy, service, queue);
//   auto upstream = co_await client.connect(host, port);
//
// Runs on its own strand of `queue` like SOCKS5Client; failures throw
// HTTPProxyError; the connection is never cancelled by the client. Tunnel
// bytes that arrived in the same read as the end of the proxy's header block
// are not lost: the returned connection delivers them before anything else.
class HTTPConnectClient {
public:
    using HTTPProxyError = core::HTTPProxyError;

    HTTPConnectClient(const kit::ProxyServer& proxy, platform::NWConnectionService& service,
                      platform::DispatchQueue& queue);
    ~HTTPConnectClient();
    HTTPConnectClient(const HTTPConnectClient&) = delete;
    HTTPConnectClient& operator=(const HTTPConnectClient&) = delete;

    Awaitable<std::shared_ptr<platform::NWConnection>> connect(std::string host,
                                                               std::uint16_t port);

    // The connection to the proxy (before any wrapping for early tunnel bytes).
    const std::shared_ptr<platform::NWConnection>& connection() const;

    struct State;

private:
    std::shared_ptr<State> state_;
};

} // namespace veltrane::core
