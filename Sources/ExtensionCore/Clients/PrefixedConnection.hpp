#pragma once

#include "Platform/KernelStream.hpp"
#include "Platform/NWConnection.hpp"

#include <memory>
#include <mutex>

namespace veltrane::core {

// A started connection whose first received bytes were already read by a
// handshake: receives deliver those bytes first, then whatever the inner
// connection delivers. Everything else goes straight to the inner connection.
// Completions of the prefix are posted on the queue, never run inside the call.
class PrefixedConnection final : public platform::NWConnection, public platform::KernelStream {
public:
    PrefixedConnection(std::shared_ptr<platform::NWConnection> inner, platform::Bytes prefix,
                       platform::DispatchQueue& queue);

    const std::shared_ptr<platform::NWConnection>& inner() const { return inner_; }

    void setStateUpdateHandler(StateUpdateHandler handler) override;
    void start(platform::DispatchQueue& queue) override;
    platform::NWConnectionState state() const override;
    void send(std::optional<platform::Bytes> content, SendCompletion completion) override;
    void receive(std::size_t minimumIncompleteLength, std::size_t maximumLength,
                 ReceiveCompletion completion) override;
    void receiveMessage(ReceiveCompletion completion) override;
    void cancel() override;
    // The inner connection's socket, with the prefix ahead of its unread bytes.
    std::optional<Socket> kernelSocket() override;
    int releaseSocket() override;
    bool reportsAfterRelease() const override;

private:
    // Takes up to `maximum` bytes of the prefix.
    platform::Bytes takePrefix(std::size_t maximum);

    const std::shared_ptr<platform::NWConnection> inner_;
    platform::DispatchQueue& queue_;
    std::mutex lock_; // guards prefix_
    platform::Bytes prefix_;
};

} // namespace veltrane::core
