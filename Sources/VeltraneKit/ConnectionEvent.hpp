#pragma once

#include "VeltraneKit/AppIdentity.hpp"
#include "VeltraneKit/Profile.hpp"
#include "VeltraneKit/UUID.hpp"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace veltrane::kit {

struct Verdict;

using Timestamp = std::chrono::system_clock::time_point;

// One step of a flow's life as the user sees it: a route decision or an end.
// Immutable once made; readers get it as JSON through DTOCoding.
struct ConnectionEvent {
    enum class Phase { open, close, blocked, failed, direct };

    UUID id;
    Timestamp date;
    std::string app;
    std::optional<std::string> bundleID;
    std::optional<std::string> responsibleApp;
    std::optional<std::string> appBundleName;
    std::string host;
    std::uint16_t port = 0;
    FlowTransport transport = FlowTransport::tcp;
    Phase phase = Phase::open;
    std::optional<std::string> ruleName;
    std::string route;
    std::uint64_t bytesSent = 0;
    std::uint64_t bytesReceived = 0;
    double lifetime = 0;
    std::optional<std::string> errorDescription;

    // The one way the data path fills an event: a fresh id, the application's
    // descriptions, the matched rule's name and the verdict's route text.
    // `errorDescription` is the humanized error, if any.
    static ConnectionEvent make(Phase phase, const AppIdentity& app, std::string host,
                                std::uint16_t port, FlowTransport transport, const Verdict& verdict,
                                std::uint64_t sent, std::uint64_t received, double lifetime,
                                std::optional<std::string> errorDescription,
                                Timestamp date = std::chrono::system_clock::now());

    friend bool operator==(const ConnectionEvent&, const ConnectionEvent&) = default;
};

// "open", "close", "blocked", "failed", "direct", and back (nullopt for any
// other text).
std::string_view rawValue(ConnectionEvent::Phase phase);
std::optional<ConnectionEvent::Phase> phaseFromRaw(std::string_view text);

} // namespace veltrane::kit
