#pragma once

#include "ExtensionCore/Awaitable.hpp"
#include "Platform/NEAppProxyTCPFlow.hpp"
#include "Platform/NWConnection.hpp"

#include <chrono>
#include <memory>
#include <optional>

namespace veltrane::core {

// Opens the flow towards the application (never with a local endpoint); the
// open's error, if any.
Awaitable<std::optional<platform::FlowError>>
openFlow(std::shared_ptr<platform::NEAppProxyFlow> flow);

struct FirstPacket {
    // The bytes of the first read, when it delivered at least one byte with
    // no error in time.
    std::optional<platform::Bytes> bytes;
    // The flow to carry from now on. When the wait ran out, the first read is
    // still pending on the application's flow; this wrapper hands its result
    // to the next read instead of starting a second one, so no byte is lost
    // and the flow never has two reads outstanding.
    std::shared_ptr<platform::NEAppProxyTCPFlow> flow;
};

// One read on the flow, waiting at most `wait`. Never fails: an error or an
// end of sending gives no bytes, and whoever reads next finds out what became
// of the flow. Must be awaited on a strand: the read's completion wakes the
// wait through it.
Awaitable<FirstPacket> readFirstPacket(std::shared_ptr<platform::NEAppProxyTCPFlow> flow,
                                       std::chrono::milliseconds wait,
                                       platform::DispatchQueue& queue);

} // namespace veltrane::core
