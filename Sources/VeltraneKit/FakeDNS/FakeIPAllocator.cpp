#include "VeltraneKit/FakeDNS/FakeIPAllocator.hpp"

#include "VeltraneKit/IPv4.hpp"
#include "VeltraneKit/UnicodeText.hpp"

#include <algorithm>

namespace veltrane::kit {

namespace {

constexpr std::uint32_t kOffsetMask = 0x1FFFF;
constexpr std::uint32_t kFirstOffset = 2;

FakeIPAllocator::Clock::duration toDuration(double seconds) {
    // Far beyond any real lifetime, and safe from overflow in time_point sums.
    constexpr double kLongest = 100.0 * 365 * 24 * 3600;
    const double clamped = std::clamp(seconds, 0.0, kLongest);
    return std::chrono::duration_cast<FakeIPAllocator::Clock::duration>(
        std::chrono::duration<double>(clamped));
}

} // namespace

FakeIPAllocator::FakeIPAllocator(std::uint32_t capacity, double ttl, Now now)
    : capacity_(std::clamp(capacity, kFirstOffset, kOffsetMask)), ttl_(ttl),
      ttlDuration_(toDuration(ttl)), now_(now ? std::move(now) : Now([] { return Clock::now(); })) {
}

bool FakeIPAllocator::isFakeIP(std::uint32_t address) {
    return (address & poolMask) == poolBase;
}

bool FakeIPAllocator::isFakeIP(std::string_view address) {
    const auto parsed = IPv4::parse(address);
    return parsed && isFakeIP(*parsed);
}

std::string FakeIPAllocator::ip(std::string_view host) {
    // Lower-cased, not folded: the key is the name that host() hands back
    // to be resolved, and folding would turn it into another name ("ς" into "σ").
    std::string key = UnicodeText::lowercased(host);
    const auto now = now_();
    std::uint32_t offset = 0;
    {
        std::lock_guard guard(lock_);
        if (auto it = hostToIP_.find(key); it != hostToIP_.end()) {
            offset = it->second;
            ipToHost_[offset].expiry = now + ttlDuration_;
        } else {
            offset = claimOffsetLocked(now);
            ipToHost_[offset] = Slot{key, now + ttlDuration_};
            hostToIP_.emplace(std::move(key), offset);
        }
    }
    return IPv4::format(poolBase | offset);
}

std::optional<std::string> FakeIPAllocator::host(std::string_view ip) {
    const auto address = IPv4::parse(ip);
    if (!address || !isFakeIP(*address)) {
        return std::nullopt;
    }
    const std::uint32_t offset = *address & kOffsetMask;
    const auto now = now_();
    std::lock_guard guard(lock_);
    auto it = ipToHost_.find(offset);
    if (it == ipToHost_.end()) {
        return std::nullopt;
    }
    it->second.expiry = now + ttlDuration_;
    return it->second.host;
}

std::size_t FakeIPAllocator::count() const {
    std::lock_guard guard(lock_);
    return hostToIP_.size();
}

FakeIPAllocator::Table FakeIPAllocator::table() const {
    const auto now = now_();
    Table table;
    std::lock_guard guard(lock_);
    table.nextOffset = nextOffset_;
    table.mappings.reserve(ipToHost_.size());
    for (const auto& [offset, slot] : ipToHost_) {
        table.mappings.push_back(
            {slot.host, offset, std::chrono::duration<double>(slot.expiry - now).count()});
    }
    std::sort(table.mappings.begin(), table.mappings.end(),
              [](const Mapping& a, const Mapping& b) { return a.offset < b.offset; });
    return table;
}

void FakeIPAllocator::restore(const Table& table) {
    const auto now = now_();
    std::lock_guard guard(lock_);
    hostToIP_.clear();
    ipToHost_.clear();
    for (const auto& mapping : table.mappings) {
        if (mapping.offset < kFirstOffset || mapping.offset > capacity_ ||
            ipToHost_.count(mapping.offset) != 0) {
            continue;
        }
        std::string key = UnicodeText::lowercased(mapping.host);
        if (key.empty() || hostToIP_.count(key) != 0) {
            continue;
        }
        // Clamped like a ttl; an expired entry comes back already expired.
        const auto left = mapping.secondsLeft < 0 ? -toDuration(-mapping.secondsLeft)
                                                  : toDuration(mapping.secondsLeft);
        ipToHost_[mapping.offset] = Slot{key, now + left};
        hostToIP_.emplace(std::move(key), mapping.offset);
    }
    nextOffset_ = table.nextOffset >= kFirstOffset && table.nextOffset <= capacity_
                      ? table.nextOffset
                      : kFirstOffset;
}

std::string FakeIPAllocator::addressOf(std::uint32_t offset) {
    return IPv4::format(poolBase | (offset & kOffsetMask));
}

bool FakeIPAllocator::isConsistent() const {
    std::lock_guard guard(lock_);
    if (hostToIP_.size() != ipToHost_.size()) {
        return false;
    }
    for (const auto& [host, offset] : hostToIP_) {
        auto it = ipToHost_.find(offset);
        if (it == ipToHost_.end() || it->second.host != host) {
            return false;
        }
        if (offset < kFirstOffset || offset > capacity_) {
            return false;
        }
    }
    return true;
}

std::uint32_t FakeIPAllocator::claimOffsetLocked(Clock::time_point now) {
    for (std::uint32_t step = 0; step < capacity_; ++step) {
        const std::uint32_t candidate = nextOffset_;
        nextOffset_ = candidate < capacity_ ? candidate + 1 : kFirstOffset;
        auto it = ipToHost_.find(candidate);
        if (it == ipToHost_.end()) {
            return candidate;
        }
        // An entry that expires at this very moment is still live.
        if (it->second.expiry < now) {
            evictLocked(candidate);
            return candidate;
        }
    }
    // Every entry is live: the one that expires first gives way.
    auto oldest =
        std::min_element(ipToHost_.begin(), ipToHost_.end(), [](const auto& a, const auto& b) {
            return a.second.expiry < b.second.expiry;
        });
    const std::uint32_t offset = oldest->first;
    evictLocked(offset);
    return offset;
}

void FakeIPAllocator::evictLocked(std::uint32_t offset) {
    auto it = ipToHost_.find(offset);
    if (it == ipToHost_.end()) {
        return;
    }
    hostToIP_.erase(it->second.host);
    ipToHost_.erase(it);
}

} // namespace veltrane::kit
