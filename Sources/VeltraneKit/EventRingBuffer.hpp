#pragma once

#include "VeltraneKit/ConnectionEvent.hpp"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace veltrane::kit {

// The most recent events, bounded. Room for all of them is reserved at
// creation, so a full buffer overwrites in place. Safe from any thread; the
// lock is held only to copy the pointers, never while filtering.
class EventRingBuffer {
public:
    // A capacity below 1 is taken as 1.
    explicit EventRingBuffer(std::int64_t capacity);

    EventRingBuffer(const EventRingBuffer&) = delete;
    EventRingBuffer& operator=(const EventRingBuffer&) = delete;

    void append(const ConnectionEvent& event);
    // The event itself, shared with whoever else keeps it.
    void append(std::shared_ptr<const ConnectionEvent> event);

    // Oldest first: the last `limit` events that pass the filters. `app`
    // matches the event's app or bundle id, `host` its host, both as
    // case-insensitive substrings; `since` keeps events not earlier than it.
    // A limit of zero or below gives an empty result.
    std::vector<ConnectionEvent> snapshot(const std::optional<std::string>& app,
                                          const std::optional<std::string>& host,
                                          std::optional<Timestamp> since, std::int64_t limit) const;

    // The same filters over events already in chronological order, for
    // readers that hold a copy of their own.
    static std::vector<ConnectionEvent> filter(std::vector<ConnectionEvent> chronological,
                                               const std::optional<std::string>& app,
                                               const std::optional<std::string>& host,
                                               std::optional<Timestamp> since, std::int64_t limit);

    std::int64_t capacity() const { return capacity_; }
    std::size_t count() const;
    // Index of the oldest event once the buffer is full; 0 before.
    std::int64_t head() const;

private:
    const std::int64_t capacity_;
    mutable std::mutex lock_;
    // Shared, not copied: the collector keeps the same events once more.
    std::vector<std::shared_ptr<const ConnectionEvent>> storage_;
    std::int64_t head_ = 0;
};

} // namespace veltrane::kit
