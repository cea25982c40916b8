#pragma once

#include "Platform/NEAppProxyUDPFlow.hpp"
#include "Platform/NWConnection.hpp"
#include "Platform/memory/MemoryFlow.hpp"

namespace veltrane::platform {

// One read's worth of datagrams from the application, with the endpoints they
// were sent to. Either list may be absent, as the host allows.
struct MemoryDatagramBatch {
    std::optional<std::vector<Bytes>> datagrams;
    std::optional<std::vector<NWEndpointRef>> endpoints;
};

// One write towards the application.
struct MemoryDatagramWrite {
    std::vector<Bytes> datagrams;
    std::vector<NWEndpointRef> sentBy;
};

// An NEAppProxyUDPFlow whose application is scripted by a test; it works as
// MemoryTCPFlow does, with batches of datagrams in place of chunks:
//
//   auto flow = MemoryUDPFlow::make(queue, NWHostEndpoint::endpointWithHostname("0.0.0.0", "53"));
//   flow->appSend({query}, {NWHostEndpoint::endpointWithHostname("8.8.8.8", "53")});
//   flow->appFinish();            // then a read gives two empty lists
//
// Completions are posted on `queue`.
class MemoryUDPFlow final
    : public MemoryFlow<NEAppProxyUDPFlow, MemoryDatagramBatch, MemoryDatagramWrite> {
public:
    static std::shared_ptr<MemoryUDPFlow>
    make(DispatchQueue& queue, NWEndpointRef localEndpoint = nullptr, NEFlowMetaData metaData = {});

    void appSend(std::vector<Bytes> datagrams, std::vector<NWEndpointRef> endpoints) {
        appDeliver(MemoryDatagramBatch{std::move(datagrams), std::move(endpoints)});
    }
    void appSend(MemoryDatagramBatch batch) { appDeliver(std::move(batch)); }
    void appFinish() { appEnd(); }

    NWEndpointRef localEndpoint() const override { return localEndpoint_; }
    // Set before the flow is delivered, as a host that names it would.
    void setFirstRemoteEndpoint(NWEndpointRef endpoint) { firstRemote_ = std::move(endpoint); }
    NWEndpointRef firstRemoteEndpoint() const override { return firstRemote_; }
    void readDatagrams(ReadDatagramsCompletion completion) override;
    void writeDatagrams(std::vector<Bytes> datagrams, std::vector<NWEndpointRef> sentBy,
                        WriteDatagramsCompletion completion) override;

    MemoryUDPFlow(MemoryPoster post, NWEndpointRef localEndpoint, NEFlowMetaData metaData);

private:
    const NWEndpointRef localEndpoint_;
    NWEndpointRef firstRemote_;
};

} // namespace veltrane::platform
