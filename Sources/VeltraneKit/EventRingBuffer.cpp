#include "VeltraneKit/EventRingBuffer.hpp"

#include "VeltraneKit/UnicodeText.hpp"

#include <algorithm>

namespace veltrane::kit {

EventRingBuffer::EventRingBuffer(std::int64_t capacity)
    : capacity_(std::max<std::int64_t>(capacity, 1)) {
    storage_.reserve(static_cast<std::size_t>(capacity_));
}

void EventRingBuffer::append(const ConnectionEvent& event) {
    append(std::make_shared<const ConnectionEvent>(event));
}

void EventRingBuffer::append(std::shared_ptr<const ConnectionEvent> event) {
    std::lock_guard guard(lock_);
    if (static_cast<std::int64_t>(storage_.size()) < capacity_) {
        storage_.push_back(std::move(event));
        return;
    }
    storage_[static_cast<std::size_t>(head_)] = std::move(event);
    head_ = (head_ + 1) % capacity_;
}

std::vector<ConnectionEvent> EventRingBuffer::snapshot(const std::optional<std::string>& app,
                                                       const std::optional<std::string>& host,
                                                       std::optional<Timestamp> since,
                                                       std::int64_t limit) const {
    if (limit <= 0) {
        return {};
    }
    std::vector<std::shared_ptr<const ConnectionEvent>> shared;
    {
        std::lock_guard guard(lock_);
        shared.reserve(storage_.size());
        const auto split = storage_.begin() + static_cast<std::ptrdiff_t>(head_);
        shared.insert(shared.end(), split, storage_.end());
        shared.insert(shared.end(), storage_.begin(), split);
    }
    std::vector<ConnectionEvent> chronological;
    chronological.reserve(shared.size());
    for (const auto& event : shared) {
        chronological.push_back(*event);
    }
    return filter(std::move(chronological), app, host, since, limit);
}

std::vector<ConnectionEvent> EventRingBuffer::filter(std::vector<ConnectionEvent> chronological,
                                                     const std::optional<std::string>& app,
                                                     const std::optional<std::string>& host,
                                                     std::optional<Timestamp> since,
                                                     std::int64_t limit) {
    if (limit <= 0) {
        return {};
    }
    // Needles are folded once; each haystack once per test.
    const auto fold = [](const std::optional<std::string>& text) -> std::optional<std::string> {
        if (!text) {
            return std::nullopt;
        }
        return UnicodeText::caseFolded(*text);
    };
    const auto appNeedle = fold(app);
    const auto hostNeedle = fold(host);
    const auto contains = [](std::string_view haystack, const std::string& needle) {
        return needle.empty() ||
               UnicodeText::caseFolded(haystack).find(needle) != std::string::npos;
    };
    const auto keep = [&](const ConnectionEvent& e) {
        if (appNeedle && !contains(e.app, *appNeedle) &&
            !(e.bundleID && contains(*e.bundleID, *appNeedle))) {
            return false;
        }
        if (hostNeedle && !contains(e.host, *hostNeedle)) {
            return false;
        }
        return !since || e.date >= *since;
    };
    std::erase_if(chronological, [&](const ConnectionEvent& e) { return !keep(e); });
    const auto excess = static_cast<std::int64_t>(chronological.size()) - limit;
    if (excess > 0) {
        chronological.erase(chronological.begin(), chronological.begin() + excess);
    }
    return chronological;
}

std::size_t EventRingBuffer::count() const {
    std::lock_guard guard(lock_);
    return storage_.size();
}

std::int64_t EventRingBuffer::head() const {
    std::lock_guard guard(lock_);
    return head_;
}

} // namespace veltrane::kit
