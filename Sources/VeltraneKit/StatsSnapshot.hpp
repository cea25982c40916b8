#pragma once

#include "VeltraneKit/ConnectionEvent.hpp"

#include <cstdint>
#include <map>
#include <string>

namespace veltrane::kit {

// Closed flows of one application.
struct AppStats {
    std::uint64_t connections = 0;
    std::uint64_t bytesSent = 0;
    std::uint64_t bytesReceived = 0;

    friend bool operator==(const AppStats&, const AppStats&) = default;
};

// The extension's counters since its process began, read together.
struct StatsSnapshot {
    Timestamp startedAt;
    std::uint64_t totalConnections = 0;
    std::uint64_t activeConnections = 0;
    std::uint64_t failedConnections = 0;
    std::uint64_t blockedConnections = 0;
    std::uint64_t bytesSent = 0;
    std::uint64_t bytesReceived = 0;
    // Keyed by the app's bundle name, else its description.
    std::map<std::string, AppStats> perApp;

    // All counters zero; `startedAt` is the moment of the first use.
    static const StatsSnapshot& empty();

    friend bool operator==(const StatsSnapshot&, const StatsSnapshot&) = default;
};

} // namespace veltrane::kit
