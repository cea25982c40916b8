#include "VeltraneKit/AutomationProtocol/AutomationWire.hpp"

#include "VeltraneKit/DTOCoding.hpp"
#include "VeltraneKit/ExtensionControlWire.hpp"
#include "VeltraneKit/JSONText.hpp"
#include "VeltraneKit/Localize.hpp"

#include <functional>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

namespace veltrane::kit {

using nlohmann::json;
namespace Wire = ExtensionControlWire;
namespace S = AutomationSelectors;

namespace {

enum class Arg { text, boolean, data, port };

// Arguments checked against the operation's kinds, in the form the
// interface takes them.
struct Arguments {
    const json& values;
    std::string text(std::size_t i) const { return values[i].get<std::string>(); }
    bool boolean(std::size_t i) const { return values[i].get<bool>(); }
    std::string data(std::size_t i) const { return dumpEscapingSlashes(values[i], -1); }
    std::uint16_t port(std::size_t i) const {
        return static_cast<std::uint16_t>(values[i].get<std::uint64_t>());
    }
};

struct Operation {
    std::string_view selector;
    std::vector<Arg> arguments;
    bool hasData;
    std::function<AutomationReply(AutomationXPCProtocol&, const Arguments&)> call;
};

using P = AutomationXPCProtocol;
using A = const Arguments&;

const std::vector<Operation>& operations() {
    static const std::vector<Operation> table{
        {S::getStatus, {}, true, [](P& s, A) { return s.getStatusWithReply(); }},
        {S::setEnabled,
         {Arg::boolean},
         false,
         [](P& s, A a) { return s.setEnabled(a.boolean(0)); }},
        {S::listProfiles, {}, true, [](P& s, A) { return s.listProfilesWithReply(); }},
        {S::switchProfile,
         {Arg::text},
         false,
         [](P& s, A a) { return s.switchProfileWithName(a.text(0)); }},
        {S::createProfile,
         {Arg::text},
         false,
         [](P& s, A a) { return s.createProfileWithName(a.text(0)); }},
        {S::listEnvironments, {}, true, [](P& s, A) { return s.listEnvironmentsWithReply(); }},
        {S::bindCurrentEnvironment,
         {Arg::text},
         false,
         [](P& s, A a) { return s.bindCurrentEnvironmentWithProfileName(a.text(0)); }},
        {S::listRules,
         {Arg::text},
         true,
         [](P& s, A a) { return s.listRulesWithSearch(a.text(0)); }},
        {S::addRule, {Arg::data}, false, [](P& s, A a) { return s.addRuleWithJson(a.data(0)); }},
        {S::updateRule,
         {Arg::data},
         false,
         [](P& s, A a) { return s.updateRuleWithJson(a.data(0)); }},
        {S::removeRule,
         {Arg::text},
         false,
         [](P& s, A a) { return s.removeRuleWithName(a.text(0)); }},
        {S::setRuleEnabled,
         {Arg::text, Arg::boolean},
         false,
         [](P& s, A a) { return s.setRuleEnabledWithName(a.text(0), a.boolean(1)); }},
        {S::listProxies, {}, true, [](P& s, A) { return s.listProxiesWithReply(); }},
        {S::addProxy, {Arg::data}, false, [](P& s, A a) { return s.addProxyWithJson(a.data(0)); }},
        {S::setRoute,
         {Arg::text, Arg::text},
         false,
         [](P& s, A a) { return s.setRouteWithApp(a.text(0), a.text(1)); }},
        {S::testRoute,
         {Arg::text, Arg::text, Arg::port},
         true,
         [](P& s, A a) { return s.testRouteWithApp(a.text(0), a.text(1), a.port(2)); }},
        {S::queryConnections,
         {Arg::data},
         true,
         [](P& s, A a) { return s.queryConnectionsWithFilterJSON(a.data(0)); }},
        {S::exportProfile,
         {Arg::text},
         true,
         [](P& s, A a) { return s.exportProfileWithName(a.text(0)); }},
        {S::importProfile,
         {Arg::data},
         false,
         [](P& s, A a) { return s.importProfileWithJson(a.data(0)); }},
    };
    return table;
}

const Operation* find(std::string_view selector) {
    for (const auto& operation : operations()) {
        if (operation.selector == selector) {
            return &operation;
        }
    }
    return nullptr;
}

// Writing a document back out recurses once per level, so a request nested
// millions deep could take the server's stack; none of the contract's
// documents comes near this.
constexpr std::size_t kMaxDataDepth = 128;

bool shallowEnough(const json& value) {
    std::vector<std::pair<const json*, std::size_t>> pending{{&value, 1}};
    while (!pending.empty()) {
        const auto [node, depth] = pending.back();
        pending.pop_back();
        if (depth > kMaxDataDepth) {
            return false;
        }
        if (node->is_structured()) {
            for (const auto& child : *node) {
                pending.emplace_back(&child, depth + 1);
            }
        }
    }
    return true;
}

bool fits(const json& value, Arg kind) {
    switch (kind) {
    case Arg::text:
        return value.is_string();
    case Arg::boolean:
        return value.is_boolean();
    case Arg::data:
        return shallowEnough(value);
    case Arg::port:
        return value.is_number_unsigned() && value.get<std::uint64_t>() <= 0xFFFF;
    }
    return false;
}

std::string_view kindName(Arg kind) {
    switch (kind) {
    case Arg::text:
        return "text";
    case Arg::boolean:
        return "a boolean";
    case Arg::data:
        return "a JSON document (at most 128 levels deep)";
    case Arg::port:
        return "a port from 0 to 65535";
    }
    return "";
}

std::string signature(const Operation& operation) {
    if (operation.arguments.empty()) {
        return RL("%@ takes no arguments", {std::string(operation.selector)});
    }
    std::string kinds;
    for (auto kind : operation.arguments) {
        kinds += kinds.empty() ? "" : ", ";
        kinds += kindName(kind);
    }
    return RL("%@ takes %lld arguments: %@",
              {std::string(operation.selector),
               static_cast<std::int64_t>(operation.arguments.size()), kinds});
}

std::string serve(AutomationXPCProtocol& service, std::string_view line) {
    auto request = DTOCoding::parse(line);
    if (!request) {
        return Wire::errorLine(RL("the request is not JSON"), nullptr);
    }
    if (!request->is_object()) {
        return Wire::errorLine(RL("the request is not a JSON object"), nullptr);
    }
    const json* id = nullptr;
    if (auto it = request->find("id"); it != request->end()) {
        if (!shallowEnough(*it)) {
            return Wire::errorLine(RL("the request's id is nested too deeply"), nullptr);
        }
        id = &*it;
    }
    auto selector = request->find("selector");
    if (selector == request->end() || !selector->is_string()) {
        return Wire::errorLine(RL("the request names no selector"), id);
    }
    // Referred to, never copied: a copy recurses as deep as the document.
    static const json noArguments = json::array();
    const json* given = &noArguments;
    if (auto it = request->find("arguments"); it != request->end() && !it->is_null()) {
        if (!it->is_array()) {
            return Wire::errorLine(RL("\"arguments\" is not an array"), id);
        }
        given = &*it;
    }
    const json& arguments = *given;
    const auto name = selector->get<std::string>();
    const Operation* operation = find(name);
    if (!operation) {
        return Wire::errorLine(RL("unknown selector \"%@\"", {name}), id);
    }
    if (arguments.size() != operation->arguments.size()) {
        return Wire::errorLine(signature(*operation), id);
    }
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        if (!fits(arguments[i], operation->arguments[i])) {
            return Wire::errorLine(signature(*operation), id);
        }
    }

    const AutomationReply reply = operation->call(service, Arguments{arguments});
    if (!reply.succeeded) {
        return Wire::errorLine(reply.text, id);
    }
    json values = json::array();
    if (operation->hasData) {
        if (!reply.data) {
            values.push_back(nullptr);
        } else if (auto document = DTOCoding::parse(*reply.data)) {
            values.push_back(std::move(*document));
        } else {
            return Wire::errorLine(RL("the service's reply is not JSON"), id);
        }
    }
    values.push_back(reply.text);
    return Wire::replyLine(dumpEscapingSlashes(values, -1), id);
}

} // namespace

bool AutomationWire::replyHasData(std::string_view selector) {
    const Operation* operation = find(selector);
    return operation && operation->hasData;
}

std::string handleAutomationLine(AutomationXPCProtocol& service, std::string_view line) {
    try {
        return serve(service, line);
    } catch (const std::exception& error) {
        return Wire::errorLine(RL("the request failed: %@", {std::string(error.what())}), nullptr);
    } catch (...) {
        return Wire::errorLine(RL("the request failed"), nullptr);
    }
}

} // namespace veltrane::kit
