#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace veltrane::core {

// The extension's read-only control interface. Each operation answers through
// its reply callback before it returns. On the wire the selectors are
// "pingWithReply:", "fetchEventsSinceToken:reply:" and "fetchStatsWithReply:"
// (see VeltraneKit/ExtensionControlWire.hpp).
class ExtensionXPCProtocol {
public:
    using PingReply = std::function<void(bool alive)>;
    // `data` is a JSON array of events, absent when it could not be encoded;
    // `token` is the latest token either way.
    using EventsReply = std::function<void(std::optional<std::string> data, std::uint64_t token)>;
    // `data` is a JSON statistics object, absent when it could not be encoded.
    using StatsReply = std::function<void(std::optional<std::string> data)>;

    virtual ~ExtensionXPCProtocol() = default;

    virtual void ping(PingReply reply) = 0;
    virtual void fetchEvents(std::uint64_t sinceToken, EventsReply reply) = 0;
    virtual void fetchStats(StatsReply reply) = 0;
};

} // namespace veltrane::core
