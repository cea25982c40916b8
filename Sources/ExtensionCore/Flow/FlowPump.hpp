#pragma once

#include "Platform/FlowError.hpp"
#include "Platform/KernelStream.hpp"
#include "Platform/NEAppProxyTCPFlow.hpp"
#include "Platform/NWConnection.hpp"
#include "Platform/SpliceRelay.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

namespace veltrane::core {

// Moves the bytes of one TCP flow between the application's flow and an
// established upstream connection, both ways, until the flow ends; then
// reports once what it carried.
//
// The flow ends when the upstream finishes (no error) or when any of the four
// operations fails (that error, the connection's in FlowError form). The
// application finishing its sending only half-closes the upstream; replies
// keep flowing until the upstream finishes. Each direction has one operation
// outstanding at a time, so the pump holds at most one chunk per direction.
// When both sides are kernel sockets, the bytes move between them in the
// kernel (SpliceRelay) with the same counts and the same one ending.
//
// Must be owned by a shared_ptr: the pending completions keep it alive, so
// the caller may drop it right after start().
class FlowPump : public std::enable_shared_from_this<FlowPump> {
public:
    struct Counters {
        std::uint64_t sent = 0;     // application bytes the upstream has taken
        std::uint64_t received = 0; // upstream bytes the flow has taken
        friend bool operator==(const Counters&, const Counters&) = default;
    };

    // Runs exactly once, on any thread, after the upstream was cancelled and
    // the flow closed with the same error.
    using OnClose =
        std::function<void(Counters counters, const std::optional<platform::FlowError>& error)>;

    static constexpr std::size_t minimumIncompleteLength = 1;
    static constexpr std::size_t maximumLength = 32768;

    FlowPump(std::shared_ptr<platform::NEAppProxyTCPFlow> flow,
             std::shared_ptr<platform::NWConnection> upstream,
             std::optional<platform::Bytes> initialAppData, OnClose onClose);

    // Sets both directions going and returns at once. The initial bytes, when
    // there are any, go upstream before the first read of the flow; the
    // upstream direction does not wait for them.
    void start();

private:
    void spliceOrCopy();
    // What either side read ahead goes first, through its own operations;
    // then the sockets are spliced.
    void relay(platform::KernelStream::Socket app, platform::KernelStream::Socket upstream);
    void splice(platform::DispatchQueue& queue);
    void copy();
    // The upstream failed by itself (its interface went away, say): no
    // operation of a spliced flow would ever tell.
    void upstreamFailed(const platform::FlowError& error);
    void pumpAppToUpstream();
    // Each counts what the other side took, then goes on with `then`.
    void sendUpstream(platform::Bytes bytes, std::function<void()> then);
    void pumpUpstreamToApp();
    void writeToApp(platform::Bytes bytes, std::function<void()> then);
    void finish(const std::optional<platform::FlowError>& error);
    bool isClosed() const;

    // Let go of (under lock_) once the splice relay has their sockets.
    std::shared_ptr<platform::NEAppProxyTCPFlow> flow_;
    std::shared_ptr<platform::NWConnection> upstream_;
    const bool kernelSides_; // both sides are kernel sockets
    std::optional<platform::Bytes> initialAppData_;

    mutable std::mutex lock_; // guards everything below
    OnClose onClose_;
    Counters counters_;
    bool closed_ = false;
    std::shared_ptr<platform::SpliceRelay> relay_;       // while splicing
    std::optional<platform::FlowError> upstreamFailure_; // that stopped the relay
};

} // namespace veltrane::core
