#include "VeltraneKit/ConnectionEvent.hpp"

#include "VeltraneKit/RuleEngine.hpp"

#include <array>
#include <utility>

namespace veltrane::kit {

namespace {

constexpr std::array<std::pair<ConnectionEvent::Phase, std::string_view>, 5> kPhaseNames{{
    {ConnectionEvent::Phase::open, "open"},
    {ConnectionEvent::Phase::close, "close"},
    {ConnectionEvent::Phase::blocked, "blocked"},
    {ConnectionEvent::Phase::failed, "failed"},
    {ConnectionEvent::Phase::direct, "direct"},
}};

} // namespace

std::string_view rawValue(ConnectionEvent::Phase phase) {
    for (const auto& [value, name] : kPhaseNames) {
        if (value == phase) {
            return name;
        }
    }
    return "open";
}

std::optional<ConnectionEvent::Phase> phaseFromRaw(std::string_view text) {
    for (const auto& [value, name] : kPhaseNames) {
        if (name == text) {
            return value;
        }
    }
    return std::nullopt;
}

ConnectionEvent ConnectionEvent::make(Phase phase, const AppIdentity& app, std::string host,
                                      std::uint16_t port, FlowTransport transport,
                                      const Verdict& verdict, std::uint64_t sent,
                                      std::uint64_t received, double lifetime,
                                      std::optional<std::string> errorDescription, Timestamp date) {
    ConnectionEvent event;
    event.id = UUID::random();
    event.date = date;
    event.app = app.bestDescription();
    event.bundleID = app.bundleID;
    event.responsibleApp =
        app.responsibleAppName ? app.responsibleAppName : app.responsibleExecutable;
    event.appBundleName = app.appBundleName;
    event.host = std::move(host);
    event.port = port;
    event.transport = transport;
    event.phase = phase;
    if (verdict.matchedRule) {
        event.ruleName = verdict.matchedRule->name;
    }
    event.route = verdict.actionDescription();
    event.bytesSent = sent;
    event.bytesReceived = received;
    event.lifetime = lifetime;
    event.errorDescription = std::move(errorDescription);
    return event;
}

} // namespace veltrane::kit
