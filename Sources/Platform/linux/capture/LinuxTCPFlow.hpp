#pragma once

#include "Platform/FlowEndWatch.hpp"
#include "Platform/KernelStream.hpp"
#include "Platform/NEAppProxyTCPFlow.hpp"
#include "Platform/NWConnection.hpp"

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>

namespace veltrane::platform::capture {

// The application's side of one captured TCP connection. The flow exists
// from the connection's first packet on; its socket arrives later, when the
// redirected connection reaches the host's listener, and the provider's open
// completes only then. Closing a flow before that (a refusal) leaves no
// socket to close: the host then resets the connection at the kernel.
class LinuxTCPFlow final : public NEAppProxyTCPFlow, public KernelStream, public FlowEndWatch {
public:
    // How long the first read waits for the rest of a TLS record that its
    // first bytes announce: browsers' hellos outgrow one segment.
    static constexpr auto wholeRecordWait = std::chrono::milliseconds(20);

    static std::shared_ptr<LinuxTCPFlow> make(DispatchQueue& queue, NWEndpointRef remoteEndpoint,
                                              NEFlowMetaData metaData);
    ~LinuxTCPFlow() override;

    // --- Host side ---
    // The redirected connection arrived (an accepted, connected socket of
    // this family, not yet known to the reactor).
    void attach(int socketFd, bool v6);
    // It never will: a pending open fails with `error`, later ones too.
    void abandon(const FlowError& error);
    // The provider closed the flow (both ways) before it was ever opened.
    bool closedBeforeOpen() const;

    // --- NEAppProxyTCPFlow ---
    NEFlowMetaData metaData() const override { return metaData_; }
    void open(OpenCompletion completion) override;
    void closeRead(const std::optional<FlowError>& error) override;
    void closeWrite(const std::optional<FlowError>& error) override;
    NWEndpointRef remoteEndpoint() const override { return remoteEndpoint_; }
    void readData(ReadCompletion completion) override;
    void writeData(Bytes data, WriteCompletion completion) override;

    // --- KernelStream ---
    std::optional<Socket> kernelSocket() override;
    int releaseSocket() override;

    // --- FlowEndWatch ---
    void watchForEnd(std::function<void(bool reset)> onEnd) override;
    void stopWatching() override;

    struct State;

    LinuxTCPFlow(DispatchQueue& queue, NWEndpointRef remoteEndpoint, NEFlowMetaData metaData);

private:
    const NWEndpointRef remoteEndpoint_;
    const NEFlowMetaData metaData_;
    const std::shared_ptr<State> state_;
};

} // namespace veltrane::platform::capture
