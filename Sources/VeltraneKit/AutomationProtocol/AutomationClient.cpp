#include "VeltraneKit/AutomationProtocol/AutomationClient.hpp"

#include "VeltraneKit/AutomationProtocol/AutomationWire.hpp"
#include "VeltraneKit/DTOCoding.hpp"
#include "VeltraneKit/ExtensionControlClient.hpp"
#include "VeltraneKit/JSONText.hpp"
#include "VeltraneKit/Localize.hpp"
#include "VeltraneKit/SharedPaths.hpp"

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace veltrane::kit {

using nlohmann::json;
using Kind = AutomationClientError::Kind;
namespace S = AutomationSelectors;

namespace {

constexpr std::string_view kSystemRuntimeDirectory = "/run/veltrane";

std::string runtimeDirectory() {
    const char* xdg = std::getenv("XDG_RUNTIME_DIR");
    if (xdg != nullptr && *xdg != '\0') {
        std::string dir(xdg);
        while (dir.size() > 1 && dir.back() == '/') {
            dir.pop_back();
        }
        return dir + "/veltrane";
    }
    if (::geteuid() == 0) {
        return std::string(kSystemRuntimeDirectory);
    }
    return "/tmp/veltrane-" + std::to_string(::geteuid());
}

// The control client's failures, told as this service's.
AutomationClientError translated(const ExtensionControlError& error) {
    using Control = ExtensionControlError::Kind;
    Kind kind = Kind::badReply;
    switch (error.kind()) {
    case Control::notRunning:
        kind = Kind::notRunning;
        break;
    case Control::permissionDenied:
        kind = Kind::permissionDenied;
        break;
    case Control::timedOut:
        kind = Kind::timedOut;
        break;
    case Control::connectionLost:
        kind = Kind::connectionLost;
        break;
    case Control::badReply:
    case Control::rejected:
        kind = Kind::badReply;
        break;
    }
    return AutomationClientError(kind, error.socketPath(), error.detail());
}

} // namespace

AutomationClientError::AutomationClientError(Kind kind, std::string socketPath, std::string detail)
    : kind_(kind), socketPath_(std::move(socketPath)), detail_(std::move(detail)) {}

std::string AutomationClientError::localizedDescription() const {
    switch (kind_) {
    case Kind::notRunning:
        return RL("the automation service is not running (nothing answers at %@); it runs with "
                  "`veltrane run`",
                  {socketPath_});
    case Kind::permissionDenied:
        return RL("not allowed to use the automation service at %@: %@", {socketPath_, detail_});
    case Kind::timedOut:
        return RL("the automation service at %@ did not answer in time", {socketPath_});
    case Kind::connectionLost:
        return RL("the automation service at %@ closed the connection", {socketPath_});
    case Kind::badReply:
        return RL("the automation service at %@ sent a reply that does not read: %@",
                  {socketPath_, detail_});
    }
    return detail_;
}

AutomationClient::AutomationClient(std::string socketPath, std::chrono::milliseconds timeout)
    : socketPath_(std::move(socketPath)),
      connection_(std::make_unique<ExtensionControlClient>(socketPath_, timeout)) {}

AutomationClient::~AutomationClient() = default;

std::string AutomationClient::defaultSocketPath() {
    return runtimeDirectory() + "/" + std::string(SharedPaths::automationMachService);
}

std::vector<std::string> AutomationClient::socketCandidates() {
    std::vector<std::string> candidates{defaultSocketPath()};
    std::string system(kSystemRuntimeDirectory);
    system += '/';
    system.append(SharedPaths::automationMachService);
    if (candidates.front() != system) {
        candidates.push_back(system);
    }
    return candidates;
}

void AutomationClient::connect() {
    std::lock_guard guard(lock_);
    try {
        connection_->connect();
    } catch (const ExtensionControlError& error) {
        throw translated(error);
    }
}

AutomationReply AutomationClient::call(std::string_view selector, const json& arguments) {
    json values;
    {
        std::lock_guard guard(lock_);
        try {
            values = connection_->call(selector, arguments);
        } catch (const ExtensionControlError& error) {
            if (error.kind() == ExtensionControlError::Kind::rejected) {
                return AutomationReply::failed(error.detail());
            }
            throw translated(error);
        }
    }
    const bool hasData = AutomationWire::replyHasData(selector);
    const std::size_t expected = hasData ? 2 : 1;
    if (values.size() != expected || !values.back().is_string()) {
        throw AutomationClientError(Kind::badReply, socketPath_,
                                    RL("%@ answered with other values", {std::string(selector)}));
    }
    std::optional<std::string> data;
    if (hasData && !values[0].is_null()) {
        data = dumpEscapingSlashes(values[0], -1);
    }
    return AutomationReply::done(values.back().get<std::string>(), std::move(data));
}

AutomationReply AutomationClient::callWithData(std::string_view selector,
                                               const std::string& document) {
    auto value = DTOCoding::parse(document);
    if (!value) {
        return AutomationReply::failed(RL("the argument is not a JSON document"));
    }
    return call(selector, json::array({std::move(*value)}));
}

AutomationReply AutomationClient::getStatusWithReply() {
    return call(S::getStatus, json::array());
}

AutomationReply AutomationClient::setEnabled(bool enabled) {
    return call(S::setEnabled, json::array({enabled}));
}

AutomationReply AutomationClient::listProfilesWithReply() {
    return call(S::listProfiles, json::array());
}

AutomationReply AutomationClient::switchProfileWithName(const std::string& name) {
    return call(S::switchProfile, json::array({name}));
}

AutomationReply AutomationClient::createProfileWithName(const std::string& name) {
    return call(S::createProfile, json::array({name}));
}

AutomationReply AutomationClient::listEnvironmentsWithReply() {
    return call(S::listEnvironments, json::array());
}

AutomationReply AutomationClient::bindCurrentEnvironmentWithProfileName(const std::string& name) {
    return call(S::bindCurrentEnvironment, json::array({name}));
}

AutomationReply AutomationClient::listRulesWithSearch(const std::string& search) {
    return call(S::listRules, json::array({search}));
}

AutomationReply AutomationClient::addRuleWithJson(const std::string& ruleJSON) {
    return callWithData(S::addRule, ruleJSON);
}

AutomationReply AutomationClient::updateRuleWithJson(const std::string& ruleJSON) {
    return callWithData(S::updateRule, ruleJSON);
}

AutomationReply AutomationClient::removeRuleWithName(const std::string& name) {
    return call(S::removeRule, json::array({name}));
}

AutomationReply AutomationClient::setRuleEnabledWithName(const std::string& name, bool enabled) {
    return call(S::setRuleEnabled, json::array({name, enabled}));
}

AutomationReply AutomationClient::listProxiesWithReply() {
    return call(S::listProxies, json::array());
}

AutomationReply AutomationClient::addProxyWithJson(const std::string& proxyJSON) {
    return callWithData(S::addProxy, proxyJSON);
}

AutomationReply AutomationClient::setRouteWithApp(const std::string& app,
                                                  const std::string& target) {
    return call(S::setRoute, json::array({app, target}));
}

AutomationReply AutomationClient::testRouteWithApp(const std::string& app, const std::string& host,
                                                   std::uint16_t port) {
    return call(S::testRoute, json::array({app, host, port}));
}

AutomationReply AutomationClient::queryConnectionsWithFilterJSON(const std::string& filterJSON) {
    return callWithData(S::queryConnections, filterJSON);
}

AutomationReply AutomationClient::exportProfileWithName(const std::string& name) {
    return call(S::exportProfile, json::array({name}));
}

AutomationReply AutomationClient::importProfileWithJson(const std::string& profileJSON) {
    return callWithData(S::importProfile, profileJSON);
}

} // namespace veltrane::kit
