#include "ExtensionCore/Control/StatsCollector.hpp"

#include <algorithm>

namespace veltrane::core {

using kit::ConnectionEvent;

StatsCollector& StatsCollector::shared() {
    // Never destroyed: service threads may still read it while the process
    // exits.
    static StatsCollector* instance = new StatsCollector();
    return *instance;
}

StatsCollector::StatsCollector(Now now, std::int64_t bufferCapacity, std::int64_t tokenedCapacity)
    : now_(now ? std::move(now) : Now([] { return std::chrono::system_clock::now(); })),
      buffer_(bufferCapacity),
      tokenedCapacity_(static_cast<std::size_t>(std::max<std::int64_t>(tokenedCapacity, 1))),
      startedAt_(now_()) {
    tokened_.reserve(tokenedCapacity_);
}

void StatsCollector::record(const ConnectionEvent& event) {
    record(std::make_shared<const ConnectionEvent>(event)); // made before the lock
}

void StatsCollector::record(std::shared_ptr<const ConnectionEvent> shared) {
    const ConnectionEvent& event = *shared;
    std::lock_guard guard(lock_);
    buffer_.append(shared);

    if (tokened_.size() < tokenedCapacity_) {
        tokened_.push_back(Tokened{nextToken_, std::move(shared)});
    } else {
        // The oldest entry gives way; exactly tokenedCapacity_ remain.
        tokened_[tokenedHead_] = Tokened{nextToken_, std::move(shared)};
        tokenedHead_ = (tokenedHead_ + 1) % tokenedCapacity_;
    }
    ++nextToken_;

    const auto leave = [this] {
        if (active_ > 0) {
            --active_;
        }
    };
    switch (event.phase) {
    case ConnectionEvent::Phase::open:
        ++total_;
        ++active_;
        break;
    case ConnectionEvent::Phase::close: {
        leave();
        bytesSent_ += event.bytesSent;
        bytesReceived_ += event.bytesReceived;
        const std::string& key = event.appBundleName ? *event.appBundleName : event.app;
        auto it = perApp_.find(key);
        if (it == perApp_.end()) {
            it = perApp_.emplace(key, kit::AppStats{}).first;
        }
        it->second.connections += 1;
        it->second.bytesSent += event.bytesSent;
        it->second.bytesReceived += event.bytesReceived;
        break;
    }
    case ConnectionEvent::Phase::blocked:
        ++blocked_;
        break;
    case ConnectionEvent::Phase::failed:
        leave();
        ++failed_;
        break;
    case ConnectionEvent::Phase::direct:
        break; // an observation: in the buffers, in no counter
    }
}

void StatsCollector::releaseActive() {
    std::lock_guard guard(lock_);
    if (active_ > 0) {
        --active_;
    }
}

kit::StatsSnapshot StatsCollector::snapshot() const {
    kit::StatsSnapshot s;
    std::lock_guard guard(lock_);
    s.startedAt = startedAt_;
    s.totalConnections = total_;
    s.activeConnections = active_;
    s.failedConnections = failed_;
    s.blockedConnections = blocked_;
    s.bytesSent = bytesSent_;
    s.bytesReceived = bytesReceived_;
    s.perApp.insert(perApp_.begin(), perApp_.end());
    return s;
}

StatsCollector::EventsSince StatsCollector::events(std::uint64_t sinceToken) const {
    EventsSince result;
    std::lock_guard guard(lock_);
    result.token = nextToken_ - 1;
    // Tokens in the buffer have no gaps: they run from latest - size + 1 to
    // latest, so the first one wanted is found by arithmetic.
    const std::uint64_t size = tokened_.size();
    const std::uint64_t oldest = nextToken_ - size;
    if (sinceToken >= result.token) {
        return result;
    }
    const std::uint64_t skip = sinceToken < oldest ? 0 : sinceToken - oldest + 1;
    result.events.reserve(static_cast<std::size_t>(size - skip));
    for (std::uint64_t i = skip; i < size; ++i) {
        const std::size_t index = static_cast<std::size_t>((tokenedHead_ + i) % size);
        result.events.push_back(*tokened_[index].event);
    }
    return result;
}

std::vector<ConnectionEvent> StatsCollector::query(const kit::ConnectionQueryDTO& query) const {
    return buffer_.snapshot(query.app, query.host, query.since(now_()), query.effectiveLimit());
}

} // namespace veltrane::core
