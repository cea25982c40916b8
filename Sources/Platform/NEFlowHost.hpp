#pragma once

#include "Platform/NETransparentProxyProvider.hpp"
#include "Platform/NWConnection.hpp"

#include <memory>
#include <span>

namespace veltrane::platform {

// What an extension process hands its provider to: it attaches itself and
// the configuration, starts the provider, delivers flows and moves their
// bytes until the process is told to stop.
class NEFlowHost {
public:
    virtual ~NEFlowHost() = default;

    // Returns the process's exit status once the host has stopped.
    virtual int run(std::shared_ptr<NETransparentProxyProvider> provider) = 0;

    // The host's own event loop, when a provider may run its work there:
    // a flow's bytes and decisions then never change threads. Null when the
    // provider should keep a queue of its own.
    virtual DispatchQueue* sharedQueue() { return nullptr; }
    // True when the host was told to deliver the machine's DNS flows (UDP to
    // port 53) besides TCP and QUIC, if the provider's rules ask for them.
    virtual bool capturesDNS() const { return false; }
};

// The flow host of this machine's kernel, or null where this build has none.
// `arguments` are the host's own settings (how it captures, never how flows
// are routed): "--listen-port N", "--include-local NETWORK" (repeatable),
// "--exempt-user USER" (repeatable), "--capture-dns". Throws
// std::invalid_argument for anything else.
std::shared_ptr<NEFlowHost> systemFlowHost(std::span<char* const> arguments = {});

} // namespace veltrane::platform
