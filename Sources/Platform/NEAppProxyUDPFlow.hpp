#pragma once

#include "Platform/NEAppProxyFlow.hpp"
#include "Platform/NWHostEndpoint.hpp"

#include <vector>

namespace veltrane::platform {

// The application's side of one UDP socket: datagrams to and from many peers.
class NEAppProxyUDPFlow : public NEAppProxyFlow {
public:
    // Datagrams and the endpoints they were sent to, in the same order; or an
    // error; or, with no error, an empty or absent list: the flow has ended.
    using ReadDatagramsCompletion =
        std::function<void(std::optional<std::vector<Bytes>> datagrams,
                           std::optional<std::vector<NWEndpointRef>> remoteEndpoints,
                           const std::optional<FlowError>& error)>;
    using WriteDatagramsCompletion = std::function<void(const std::optional<FlowError>& error)>;

    // The application's own socket address, when the host knows it.
    virtual NWEndpointRef localEndpoint() const = 0;
    // Where the flow's first datagram was going, when the host knows it. The
    // host's network rules admitted the flow by that destination, so its
    // port tells a DNS flow (53) from a QUIC one (443). Null by default.
    virtual NWEndpointRef firstRemoteEndpoint() const { return nullptr; }

    virtual void readDatagrams(ReadDatagramsCompletion completion) = 0;
    // Each datagram reaches the application as sent by the endpoint at the
    // same position.
    virtual void writeDatagrams(std::vector<Bytes> datagrams, std::vector<NWEndpointRef> sentBy,
                                WriteDatagramsCompletion completion) = 0;
};

} // namespace veltrane::platform
