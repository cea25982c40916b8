#pragma once

#include "ExtensionCore/Awaitable.hpp"
#include "ExtensionCore/Clients/InterfaceError.hpp"
#include "Platform/NWConnection.hpp"
#include "Platform/NWPathMonitor.hpp"

#include <cstdint>
#include <memory>
#include <string>

namespace veltrane::core {

// One plain TCP connection to a flow's target, confined to one network
// interface (a VPN's tunnel, say): its traffic leaves by that interface or
// not at all, and a host name is resolved by the connection itself.
//
//   InterfaceBoundClient client(host, port, *interface, service, queue);
//   auto upstream = co_await client.connect();
//
// Runs on its own strand of `queue`; failures throw InterfaceError naming
// the interface. The client never cancels its connection.
class InterfaceBoundClient {
public:
    using InterfaceError = core::InterfaceError;

    InterfaceBoundClient(std::string host, std::uint16_t port,
                         const platform::NWInterface& interface,
                         platform::NWConnectionService& service, platform::DispatchQueue& queue);
    ~InterfaceBoundClient();
    InterfaceBoundClient(const InterfaceBoundClient&) = delete;
    InterfaceBoundClient& operator=(const InterfaceBoundClient&) = delete;

    Awaitable<std::shared_ptr<platform::NWConnection>> connect();

    const std::string& interfaceName() const;
    const std::shared_ptr<platform::NWConnection>& connection() const;

    struct State;

private:
    std::shared_ptr<State> state_;
};

} // namespace veltrane::core
