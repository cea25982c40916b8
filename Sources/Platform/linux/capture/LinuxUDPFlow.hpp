#pragma once

#include "Platform/NEAppProxyUDPFlow.hpp"
#include "Platform/NWConnection.hpp"

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace veltrane::platform::capture {

// The application's side of one captured UDP socket. Its datagrams reach
// the host's transparent socket, which hands each to the flow with the
// address it was sent to; replies leave from sockets bound to the address
// they claim to come from, so the application sees its peer answer.
class LinuxUDPFlow final : public NEAppProxyUDPFlow {
public:
    // Runs once, when the flow has ended either way; the host forgets it.
    using OnEnd = std::function<void()>;

    // `application` is the socket's own address and port; `firstRemote` where
    // its first datagram went.
    static std::shared_ptr<LinuxUDPFlow> make(DispatchQueue& queue, std::string applicationHost,
                                              std::uint16_t applicationPort,
                                              NWEndpointRef firstRemote, NEFlowMetaData metaData,
                                              std::uint32_t bypassMark, OnEnd onEnd);
    ~LinuxUDPFlow() override;

    // --- Host side ---
    void deliver(Bytes payload, std::string destinationHost, std::uint16_t destinationPort);
    // No more datagrams will come (idle, or the host stops): the next read
    // reports the end.
    void end();
    bool closedBeforeOpen() const;
    std::chrono::steady_clock::time_point lastActivity() const;

    // --- NEAppProxyUDPFlow ---
    NEFlowMetaData metaData() const override;
    void open(OpenCompletion completion) override;
    void closeRead(const std::optional<FlowError>& error) override;
    void closeWrite(const std::optional<FlowError>& error) override;
    NWEndpointRef localEndpoint() const override;
    NWEndpointRef firstRemoteEndpoint() const override;
    void readDatagrams(ReadDatagramsCompletion completion) override;
    void writeDatagrams(std::vector<Bytes> datagrams, std::vector<NWEndpointRef> sentBy,
                        WriteDatagramsCompletion completion) override;

    struct State;
    explicit LinuxUDPFlow(std::shared_ptr<State> state);

private:
    const std::shared_ptr<State> state_;
};

} // namespace veltrane::platform::capture
