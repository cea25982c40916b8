#pragma once

#include "VeltraneKit/ConnectionEvent.hpp"
#include "VeltraneKit/ConnectionQueryDTO.hpp"
#include "VeltraneKit/EventRingBuffer.hpp"
#include "VeltraneKit/StatsSnapshot.hpp"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace veltrane::core {

// The one sink of connection events: the ring of recent events, a shorter
// buffer of events with serial tokens for readers that poll, and counters by
// phase and by application. Everything counts from the collector's creation
// and lives in memory only. Safe from any thread; the lock order is the
// collector's lock, then the ring's.
class StatsCollector {
public:
    using Now = std::function<kit::Timestamp()>;

    static constexpr std::int64_t ringCapacity = 10000;
    static constexpr std::int64_t defaultTokenedCapacity = 2000;

    struct EventsSince {
        std::vector<kit::ConnectionEvent> events; // oldest first
        std::uint64_t token = 0;                  // of the newest event ever recorded
    };

    // The process-wide instance, made on first use.
    static StatsCollector& shared();

    // Separate instances for tests and tools; `now` defaults to the system clock.
    explicit StatsCollector(Now now = {}, std::int64_t bufferCapacity = ringCapacity,
                            std::int64_t tokenedCapacity = defaultTokenedCapacity);

    StatsCollector(const StatsCollector&) = delete;
    StatsCollector& operator=(const StatsCollector&) = delete;

    void record(const kit::ConnectionEvent& event);
    // The same event, shared with whoever else keeps it.
    void record(std::shared_ptr<const kit::ConnectionEvent> event);

    // Lowers the active count alone, for a flow that was counted by its
    // `open` event and then refused with a `blocked` one, which ends nothing
    // in the counters.
    void releaseActive();

    kit::StatsSnapshot snapshot() const;

    // Events with a token above `sinceToken`, and the latest token. A token
    // from before a restart (above the latest) gets nothing and the new
    // latest token, from which polling goes on.
    EventsSince events(std::uint64_t sinceToken) const;

    // Over the ring; takes only the ring's lock. A limit of zero or below
    // gives nothing.
    std::vector<kit::ConnectionEvent> query(const kit::ConnectionQueryDTO& query) const;

private:
    struct Tokened {
        std::uint64_t token = 0;
        std::shared_ptr<const kit::ConnectionEvent> event; // the ring's own
    };

    const Now now_;
    mutable std::mutex lock_;
    kit::EventRingBuffer buffer_;
    // A ring of its own: `tokened` in order is [tokenedHead_...] then
    // [..tokenedHead_), filled up to tokenedCapacity_ and then overwritten.
    std::vector<Tokened> tokened_;
    std::size_t tokenedHead_ = 0;
    const std::size_t tokenedCapacity_;
    std::uint64_t nextToken_ = 1;
    const kit::Timestamp startedAt_;
    std::uint64_t total_ = 0;
    std::uint64_t active_ = 0;
    std::uint64_t failed_ = 0;
    std::uint64_t blocked_ = 0;
    std::uint64_t bytesSent_ = 0;
    std::uint64_t bytesReceived_ = 0;
    std::map<std::string, kit::AppStats, std::less<>> perApp_;
};

} // namespace veltrane::core
