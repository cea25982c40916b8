#pragma once

#include "Platform/FlowError.hpp"
#include "VeltraneKit/AppIdentity.hpp"
#include "VeltraneKit/ConnectionEvent.hpp"
#include "VeltraneKit/RuleEngine.hpp"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace veltrane::core {

class TransparentProxyProvider;

// What a carried flow keeps by value to leave its events for its whole life.
// It holds the provider weakly: once the provider is gone, no event is made.
struct FlowRecorder {
    using Clock = std::chrono::steady_clock;

    std::weak_ptr<TransparentProxyProvider> provider;
    std::string host; // as the events name it
    std::uint16_t port = 0;
    kit::FlowTransport transport = kit::FlowTransport::tcp;
    kit::AppIdentity app;
    kit::Verdict verdict;
    Clock::time_point started = Clock::now();
    // The `open` event as recorded; the ending keeps it (the event buffer
    // holds it too) instead of a copy of its own.
    std::shared_ptr<const kit::ConnectionEvent> opened{};

    double secondsSinceStart() const;

    void recordOpen();

    void record(kit::ConnectionEvent::Phase phase, std::uint64_t sent, std::uint64_t received,
                double lifetime, const std::optional<platform::FlowError>& error) const;

    // The flow's ending as its pump or relay reports it: `close` for no
    // error or the application going away (that error is dropped), `failed`
    // with the error otherwise.
    void recordEnd(std::uint64_t sent, std::uint64_t received,
                   const std::optional<platform::FlowError>& error) const;

    // `blocked` for a flow refused after its `open` event, which counted it
    // as active: the refusal ends it there too.
    void recordRefusedAfterOpen() const;

    // What a flow under way keeps for its ending: the fields its events share,
    // filled once, in place of the identity and the verdict, whose rule and
    // trace run to kilobytes with a long profile. One per idle flow counts.
    struct Ending {
        std::weak_ptr<TransparentProxyProvider> provider;
        std::shared_ptr<const kit::ConnectionEvent> fixed;
        Clock::time_point started;

        // As FlowRecorder::recordEnd.
        void recordEnd(std::uint64_t sent, std::uint64_t received,
                       const std::optional<platform::FlowError>& error) const;
    };
    Ending ending() const;
};

} // namespace veltrane::core
