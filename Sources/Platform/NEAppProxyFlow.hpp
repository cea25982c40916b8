#pragma once

#include "Platform/FlowError.hpp"
#include "Platform/NEFlowMetaData.hpp"

#include <functional>
#include <memory>
#include <optional>

namespace veltrane::platform {

// A flow that the host handed to the provider: an NEAppProxyTCPFlow or an
// NEAppProxyUDPFlow. Completions run on the host's threads, possibly several
// at once; they never run inside the call that started the operation.
class NEAppProxyFlow : public std::enable_shared_from_this<NEAppProxyFlow> {
public:
    using OpenCompletion = std::function<void(const std::optional<FlowError>& error)>;

    virtual ~NEAppProxyFlow() = default;

    virtual NEFlowMetaData metaData() const = 0;

    // Opens the flow towards the application, always with no local endpoint.
    // An error ends the flow. No byte moves before the open succeeded.
    virtual void open(OpenCompletion completion) = 0;

    // Allowed on an unopened flow too. An error reaches the application as its
    // connection's failure; no error is an orderly end.
    virtual void closeRead(const std::optional<FlowError>& error) = 0;
    virtual void closeWrite(const std::optional<FlowError>& error) = 0;
};

} // namespace veltrane::platform
