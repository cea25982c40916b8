#pragma once

#include "Platform/NEAppProxyFlow.hpp"
#include "Platform/NWHostEndpoint.hpp"

namespace veltrane::platform {

// The application's side of one TCP connection. One read and one write at a
// time.
class NEAppProxyTCPFlow : public NEAppProxyFlow {
public:
    // Data of at least one byte; or an error; or, with no error, empty or
    // absent data: the application has finished sending.
    using ReadCompletion =
        std::function<void(std::optional<Bytes> data, const std::optional<FlowError>& error)>;
    using WriteCompletion = std::function<void(const std::optional<FlowError>& error)>;

    // Where the application connected to; normally an NWHostEndpoint.
    virtual NWEndpointRef remoteEndpoint() const = 0;

    virtual void readData(ReadCompletion completion) = 0;
    virtual void writeData(Bytes data, WriteCompletion completion) = 0;
};

} // namespace veltrane::platform
