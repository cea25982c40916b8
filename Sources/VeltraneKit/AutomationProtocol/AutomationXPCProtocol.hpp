#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace veltrane::kit {

// The answer of one automation operation. `data` is a JSON document for the
// operations that return one; `text` says what happened, for people. An
// operation that could not be done has `succeeded` false, no data, and the
// reason in `text`.
struct AutomationReply {
    std::optional<std::string> data;
    std::string text;
    bool succeeded = true;

    static AutomationReply done(std::string text, std::optional<std::string> data = {}) {
        return {std::move(data), std::move(text), true};
    }
    static AutomationReply failed(std::string why) { return {std::nullopt, std::move(why), false}; }

    friend bool operator==(const AutomationReply&, const AutomationReply&) = default;
};

// The automation service's nineteen operations, in the order of the
// contract. `veltrane run` serves one implementation over the store and the
// extension's control service; the `veltrane` verbs and the MCP server reach
// it through AutomationClient. Data arguments are JSON documents.
class AutomationXPCProtocol {
public:
    virtual ~AutomationXPCProtocol() = default;

    virtual AutomationReply getStatusWithReply() = 0;
    virtual AutomationReply setEnabled(bool enabled) = 0;
    virtual AutomationReply listProfilesWithReply() = 0;
    virtual AutomationReply switchProfileWithName(const std::string& name) = 0;
    virtual AutomationReply createProfileWithName(const std::string& name) = 0;
    virtual AutomationReply listEnvironmentsWithReply() = 0;
    virtual AutomationReply bindCurrentEnvironmentWithProfileName(const std::string& name) = 0;
    virtual AutomationReply listRulesWithSearch(const std::string& search) = 0;
    virtual AutomationReply addRuleWithJson(const std::string& ruleJSON) = 0;
    virtual AutomationReply updateRuleWithJson(const std::string& ruleJSON) = 0;
    virtual AutomationReply removeRuleWithName(const std::string& name) = 0;
    virtual AutomationReply setRuleEnabledWithName(const std::string& name, bool enabled) = 0;
    virtual AutomationReply listProxiesWithReply() = 0;
    virtual AutomationReply addProxyWithJson(const std::string& proxyJSON) = 0;
    virtual AutomationReply setRouteWithApp(const std::string& app, const std::string& target) = 0;
    virtual AutomationReply testRouteWithApp(const std::string& app, const std::string& host,
                                             std::uint16_t port) = 0;
    virtual AutomationReply queryConnectionsWithFilterJSON(const std::string& filterJSON) = 0;
    virtual AutomationReply exportProfileWithName(const std::string& name) = 0;
    virtual AutomationReply importProfileWithJson(const std::string& profileJSON) = 0;
};

// The selectors as they travel on the service's socket.
namespace AutomationSelectors {
inline constexpr std::string_view getStatus = "getStatusWithReply:";
inline constexpr std::string_view setEnabled = "setEnabled:reply:";
inline constexpr std::string_view listProfiles = "listProfilesWithReply:";
inline constexpr std::string_view switchProfile = "switchProfileWithName:reply:";
inline constexpr std::string_view createProfile = "createProfileWithName:reply:";
inline constexpr std::string_view listEnvironments = "listEnvironmentsWithReply:";
inline constexpr std::string_view bindCurrentEnvironment =
    "bindCurrentEnvironmentWithProfileName:reply:";
inline constexpr std::string_view listRules = "listRulesWithSearch:reply:";
inline constexpr std::string_view addRule = "addRuleWithJson:reply:";
inline constexpr std::string_view updateRule = "updateRuleWithJson:reply:";
inline constexpr std::string_view removeRule = "removeRuleWithName:reply:";
inline constexpr std::string_view setRuleEnabled = "setRuleEnabledWithName:enabled:reply:";
inline constexpr std::string_view listProxies = "listProxiesWithReply:";
inline constexpr std::string_view addProxy = "addProxyWithJson:reply:";
inline constexpr std::string_view setRoute = "setRouteWithApp:target:reply:";
inline constexpr std::string_view testRoute = "testRouteWithApp:host:port:reply:";
inline constexpr std::string_view queryConnections = "queryConnectionsWithFilterJSON:reply:";
inline constexpr std::string_view exportProfile = "exportProfileWithName:reply:";
inline constexpr std::string_view importProfile = "importProfileWithJson:reply:";
} // namespace AutomationSelectors

} // namespace veltrane::kit
