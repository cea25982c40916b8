#pragma once

#include "Platform/NEAppProxyTCPFlow.hpp"
#include "Platform/NWConnection.hpp"
#include "Platform/memory/MemoryFlow.hpp"

namespace veltrane::platform {

// An NEAppProxyTCPFlow whose application is scripted by a test, in the
// manner of an in-memory test stream:
//
//   asio::io_context queue;
//   auto flow = MemoryTCPFlow::make(queue, "93.184.216.34", "443");
//   flow->appSend(clientHello);   // the next read delivers these bytes
//   flow->appFinish();            // then reads report the end of sending
//   flow->failWrite(2, error);    // the second write fails
//   ... run the code under test, run `queue` ...
//   flow->waitClosed();
//   EXPECT_EQ(flow->record().closeReads, ...);
//
// Completions are posted on `queue`, whichever threads run it. Each appSend
// is delivered by one read, so chunk boundaries are the test's to choose; an
// empty chunk is delivered as empty data, which also means end of sending.
// Reads and writes before a successful open, after the matching close or
// after the application went away fail as not connected.
class MemoryTCPFlow final : public MemoryFlow<NEAppProxyTCPFlow, std::optional<Bytes>, Bytes> {
public:
    static std::shared_ptr<MemoryTCPFlow> make(DispatchQueue& queue, std::string hostname,
                                               std::string port, NEFlowMetaData metaData = {});
    static std::shared_ptr<MemoryTCPFlow> make(DispatchQueue& queue, NWEndpointRef remoteEndpoint,
                                               NEFlowMetaData metaData = {});

    void appSend(Bytes bytes) { appDeliver(std::move(bytes)); }
    void appFinish() { appEnd(); }

    // Everything the application received, in order.
    Bytes received() const;

    NWEndpointRef remoteEndpoint() const override { return remoteEndpoint_; }
    void readData(ReadCompletion completion) override;
    void writeData(Bytes data, WriteCompletion completion) override;

    MemoryTCPFlow(MemoryPoster post, NWEndpointRef remoteEndpoint, NEFlowMetaData metaData);

private:
    const NWEndpointRef remoteEndpoint_;
};

} // namespace veltrane::platform
