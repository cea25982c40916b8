#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace veltrane::kit {

// Hands each host name a private IPv4 address from 198.18.0.0/15 and maps the
// address back to the name when a flow arrives for it. One instance lives as
// long as the provider and survives every profile change; its table can be
// taken out and put back, so that a restarted host keeps the addresses that
// applications still hold. Safe to call from any thread.
class FakeIPAllocator {
public:
    using Clock = std::chrono::steady_clock;
    using Now = std::function<Clock::time_point()>;

    static constexpr std::uint32_t poolBase = 0xC6120000; // 198.18.0.0
    static constexpr std::uint32_t poolMask = 0xFFFE0000;

    // `capacity` is the highest offset handed out, kept between 2 and 0x1FFFF
    // so that every address stays inside the pool. `ttl` in seconds is how far each use pushes an
    // entry's expiry ahead. `now` defaults to the steady clock.
    FakeIPAllocator(std::uint32_t capacity, double ttl, Now now = {});

    FakeIPAllocator(const FakeIPAllocator&) = delete;
    FakeIPAllocator& operator=(const FakeIPAllocator&) = delete;

    static bool isFakeIP(std::uint32_t address);
    static bool isFakeIP(std::string_view address);

    // Dotted text of the host's address, claiming one if need be. Never fails:
    // with every entry live the one that expires first gives up its address.
    std::string ip(std::string_view host);

    // The lower-cased host behind a handed-out address, renewing its entry.
    std::optional<std::string> host(std::string_view ip);

    std::size_t count() const;

    // One pair of the table, with the time its entry has left (negative once
    // expired: it still answers until its offset is claimed again).
    struct Mapping {
        std::string host;
        std::uint32_t offset = 0;
        double secondsLeft = 0;
        friend bool operator==(const Mapping&, const Mapping&) = default;
    };
    struct Table {
        std::vector<Mapping> mappings; // by offset
        std::uint32_t nextOffset = 2;
        friend bool operator==(const Table&, const Table&) = default;
    };
    Table table() const;
    // Replaces the whole table. Pairs whose offset lies outside this
    // allocator's range and the later of two pairs that share a host or an
    // offset are left out, so that the two directions stay exact inverses.
    void restore(const Table& table);
    static std::string addressOf(std::uint32_t offset);

    std::uint32_t capacity() const { return capacity_; }
    double ttl() const { return ttl_; }

    // True when the forward and reverse tables are exact inverses. For tests
    // and assertions; takes the lock.
    bool isConsistent() const;

private:
    struct Slot {
        std::string host;
        Clock::time_point expiry;
    };

    std::uint32_t claimOffsetLocked(Clock::time_point now);
    void evictLocked(std::uint32_t offset);

    const std::uint32_t capacity_;
    const double ttl_;
    const Clock::duration ttlDuration_;
    const Now now_;

    mutable std::mutex lock_;
    std::unordered_map<std::string, std::uint32_t> hostToIP_;
    // Offset to host and expiry: the reverse table and the expiry table in one,
    // so that no offset can be in one without the other.
    std::unordered_map<std::uint32_t, Slot> ipToHost_;
    std::uint32_t nextOffset_ = 2;
};

} // namespace veltrane::kit
