#include "VeltraneKit/MCPIntegrations/MCPServer.hpp"

#include "VeltraneKit/ConnectionQueryDTO.hpp"
#include "VeltraneKit/DTOCoding.hpp"
#include "VeltraneKit/Discovery/TunnelInterfaceScanner.hpp"
#include "VeltraneKit/ProfileCoding.hpp"

#include <algorithm>
#include <exception>
#include <nlohmann/json.hpp>
#include <utility>

namespace veltrane::kit {

using Json = nlohmann::json;

struct MCPServer::Tool {
    std::string name;
    std::string description;
    bool changes = false;
    Json inputSchema;
    std::function<AutomationReply(const Json& arguments)> run;
};

namespace {

constexpr int parseError = -32700;
constexpr int invalidRequest = -32600;
constexpr int methodNotFound = -32601;
constexpr int invalidParams = -32602;
constexpr int internalError = -32603;

// A request that cannot be answered with a result; handleLine turns it into
// the error object.
struct RPCFailure {
    int code;
    std::string message;
};

[[noreturn]] void badParams(const std::string& detail) {
    throw RPCFailure{invalidParams, "Invalid params: " + detail};
}

// Texts from the automation service or the system may hold bytes that are
// not UTF-8; the client still gets a line it can parse.
std::string dumpLine(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json errorReply(const Json& id, int code, const std::string& message) {
    return {{"jsonrpc", "2.0"}, {"id", id}, {"error", {{"code", code}, {"message", message}}}};
}

// --- Input schemas -------------------------------------------------------

Json property(std::string_view type, std::string_view description) {
    return {{"type", type}, {"description", description}};
}

Json integerProperty(std::string_view description, std::int64_t minimum, std::int64_t maximum) {
    Json p = property("integer", description);
    p["minimum"] = minimum;
    p["maximum"] = maximum;
    return p;
}

Json stringsProperty(std::string_view description) {
    Json p = property("array", description);
    p["items"] = {{"type", "string"}};
    return p;
}

Json schema(Json properties = Json::object(), std::vector<std::string> required = {}) {
    return {{"type", "object"}, {"properties", std::move(properties)}, {"required", required}};
}

// The arguments against the subset of JSON Schema that the tables below use,
// so that every tool can rely on the types of what it reads.
void checkArguments(const Json& schema, const Json& arguments) {
    for (const auto& name : schema.at("required")) {
        if (!arguments.contains(name.get<std::string>())) {
            badParams("missing argument \"" + name.get<std::string>() + "\"");
        }
    }
    for (const auto& [key, propertySchema] : schema.at("properties").items()) {
        const auto found = arguments.find(key);
        if (found == arguments.end()) {
            continue;
        }
        const Json& value = *found;
        const auto type = propertySchema.at("type").get<std::string>();
        bool fits = false;
        if (type == "string") {
            fits = value.is_string();
        } else if (type == "boolean") {
            fits = value.is_boolean();
        } else if (type == "object") {
            fits = value.is_object();
        } else if (type == "array") {
            fits = value.is_array();
            for (const auto& item : value) {
                fits = fits && item.is_string();
            }
        } else if (type == "integer" && value.is_number_integer()) {
            const auto minimum = propertySchema.at("minimum").get<std::int64_t>();
            const auto maximum = propertySchema.at("maximum").get<std::int64_t>();
            if (value.is_number_unsigned()) {
                fits = value.get<std::uint64_t>() <= static_cast<std::uint64_t>(maximum);
            } else {
                const auto n = value.get<std::int64_t>();
                fits = n >= minimum && n <= maximum;
            }
            if (!fits) {
                badParams("argument \"" + key + "\" must lie between " + std::to_string(minimum) +
                          " and " + std::to_string(maximum));
            }
        }
        if (fits && propertySchema.contains("enum")) {
            const auto& allowed = propertySchema.at("enum");
            fits = std::find(allowed.begin(), allowed.end(), value) != allowed.end();
        }
        if (!fits) {
            badParams("argument \"" + key + "\" must be " +
                      (propertySchema.contains("enum")
                           ? "one of " + dumpLine(propertySchema.at("enum"))
                       : type == "array"  ? std::string("an array of strings")
                       : type == "object" ? std::string("an object")
                                          : "a " + type));
        }
    }
}

std::string text(const Json& arguments, const char* key) {
    return arguments.value(key, "");
}

// --- Results -------------------------------------------------------------

// The reply's words, then its data pretty-printed, as one text block that a
// model reads as it stands.
Json toolResult(const AutomationReply& reply) {
    std::string body = reply.text;
    if (reply.data) {
        auto parsed = DTOCoding::parse(*reply.data);
        const std::string data =
            parsed ? parsed->dump(2, ' ', false, Json::error_handler_t::replace) : *reply.data;
        body += body.empty() ? data : "\n\n" + data;
    }
    if (body.empty()) {
        body = reply.succeeded ? "Done." : "The operation failed.";
    }
    return {{"content", Json::array({{{"type", "text"}, {"text", body}}})},
            {"isError", !reply.succeeded}};
}

Json ruleDocument(const Json& arguments) {
    return {
        {"name", arguments.at("name")},
        {"action", arguments.at("action")},
        {"enabled", arguments.value("enabled", true)},
        {"apps", arguments.value("apps", Json::array())},
        {"hosts", arguments.value("hosts", Json::array())},
        {"ports", arguments.value("ports", Json::array())},
        {"locked", arguments.value("locked", false)},
    };
}

Json ruleProperties() {
    return {
        {"name", property("string", "Rule name, unique within the profile")},
        {"action", property("string", "What the rule does: direct, block, proxy:<proxy name>, "
                                      "chain:<chain name> or interface:<interface name>")},
        {"apps", stringsProperty("Application patterns (bundle id, name or executable; * and ? "
                                 "wildcards). Empty matches every application")},
        {"hosts", stringsProperty("Host patterns: names with wildcards, IPv4 addresses or CIDR "
                                  "ranges. Empty matches every host")},
        {"ports", stringsProperty("Ports or ranges such as \"443\" or \"8000-8100\". Empty "
                                  "matches every port")},
        {"enabled", property("boolean", "Whether the rule takes part in routing (default true)")},
        {"locked", property("boolean", "Accepted for completeness; the service stores new and "
                                       "updated rules unlocked")},
    };
}

AutomationReply scanReply(std::size_t count, std::string_view what, Json array) {
    return AutomationReply::done(std::to_string(count) + " " + std::string(what) + " found.",
                                 DTOCoding::encode(array));
}

} // namespace

// --- Discovery JSON ------------------------------------------------------

Json toJSON(const LocalProxyScanner::Candidate& candidate) {
    return {{"name", candidate.name},
            {"port", candidate.port},
            {"proto", rawValue(candidate.proto)},
            {"source", candidate.source},
            {"listening", candidate.listening}};
}

Json toJSON(const TunnelInterface& tunnel) {
    Json object = {{"name", tunnel.name}, {"isSystemOwned", tunnel.isSystemOwned}};
    if (tunnel.ipv4) {
        object["ipv4"] = *tunnel.ipv4;
    }
    if (tunnel.ownerName) {
        object["ownerName"] = *tunnel.ownerName;
    }
    if (tunnel.ownerPath) {
        object["ownerPath"] = *tunnel.ownerPath;
    }
    return object;
}

std::string encodeProxyServer(const ProxyServer& proxy) {
    // Through the profile's own coding, so that a proxy travels exactly as the
    // store keeps it.
    Profile carrier;
    carrier.proxies = {proxy};
    return DTOCoding::encode(Json::parse(encodeProfile(carrier, false)).at("proxies").at(0));
}

MCPServer::Scanners MCPServer::Scanners::system() {
    return {[] { return LocalProxyScanner().scan(); },
            [] { return TunnelInterfaceScanner().scan(); }};
}

const std::vector<std::string>& MCPServer::supportedProtocolVersions() {
    static const std::vector<std::string> versions = {"2025-06-18", "2025-11-25"};
    return versions;
}

MCPServer::~MCPServer() = default;

MCPServer::MCPServer(AutomationXPCProtocol& automation, Scanners scanners)
    : automation_(automation), scanners_(std::move(scanners)) {
    auto& a = automation_;
    const Json nameOnly = {{"name", property("string", "Profile name")}};
    const Json ruleName = {{"name", property("string", "Rule name")}};

    tools_ = {
        {"get_status",
         "Whether routing is on, the active profile, the current network environment, the "
         "counters, and whether automation may change anything",
         false, schema(), [&a](const Json&) { return a.getStatusWithReply(); }},
        {"get_statistics",
         "Connection and traffic counters since the extension started, in total and per "
         "application",
         false, schema(),
         [&a](const Json&) {
             auto status = a.getStatusWithReply();
             if (!status.succeeded) {
                 return status;
             }
             auto document = status.data ? DTOCoding::parse(*status.data) : std::nullopt;
             if (!document || !document->is_object() || !document->contains("stats")) {
                 return AutomationReply::failed("The service's status holds no statistics.");
             }
             return AutomationReply::done("Statistics", DTOCoding::encode((*document)["stats"]));
         }},
        {"query_connections",
         "Recent connection events (open, close, failed, blocked...), newest last, filtered by "
         "application, host and age",
         false,
         schema({{"app", property("string", "Substring of the application's name or bundle id")},
                 {"host", property("string", "Substring of the destination host")},
                 {"sinceMinutes",
                  integerProperty("Only events of the last so many minutes", 0, 60 * 24 * 366)},
                 {"limit", integerProperty("At most so many of the newest matching events "
                                           "(default 500)",
                                           0, 100000)}}),
         [&a](const Json& args) {
             ConnectionQueryDTO query;
             if (args.contains("app")) {
                 query.app = text(args, "app");
             }
             if (args.contains("host")) {
                 query.host = text(args, "host");
             }
             if (args.contains("sinceMinutes")) {
                 query.sinceMinutes = args["sinceMinutes"].get<std::int64_t>();
             }
             if (args.contains("limit")) {
                 query.limit = args["limit"].get<std::int64_t>();
             }
             return a.queryConnectionsWithFilterJSON(DTOCoding::encode(query));
         }},
        {"set_enabled", "Turn routing on or off as a whole", true,
         schema({{"enabled", property("boolean", "true to route by the rules, false to let all "
                                                 "traffic go out directly")}},
                {"enabled"}),
         [&a](const Json& args) { return a.setEnabled(args["enabled"].get<bool>()); }},
        {"list_profiles",
         "The stored profiles with their rule and proxy counts, which one is active, and the "
         "network environments bound to each",
         false, schema(), [&a](const Json&) { return a.listProfilesWithReply(); }},
        {"switch_profile", "Make another stored profile the active one", true,
         schema(nameOnly, {"name"}),
         [&a](const Json& args) { return a.switchProfileWithName(text(args, "name")); }},
        {"create_profile", "Create a new profile with the default rules", true,
         schema(nameOnly, {"name"}),
         [&a](const Json& args) { return a.createProfileWithName(text(args, "name")); }},
        {"export_profile", "The whole profile document: proxies, chains, rules, DNS and settings",
         false, schema(nameOnly, {"name"}),
         [&a](const Json& args) { return a.exportProfileWithName(text(args, "name")); }},
        {"import_profile", "Store a profile document, as export_profile gives it", true,
         schema({{"profile", property("object", "The profile document")}}, {"profile"}),
         [&a](const Json& args) { return a.importProfileWithJson(dumpLine(args["profile"])); }},
        {"list_rules",
         "The active profile's rules in evaluation order, optionally those whose name, "
         "applications or hosts contain a search text",
         false, schema({{"search", property("string", "Text to look for; empty lists all")}}),
         [&a](const Json& args) { return a.listRulesWithSearch(text(args, "search")); }},
        {"add_rule", "Add a rule to the active profile, before the fallback rule", true,
         schema(ruleProperties(), {"name", "action"}),
         [&a](const Json& args) { return a.addRuleWithJson(dumpLine(ruleDocument(args))); }},
        {"update_rule", "Replace the rule of the given name in the active profile", true,
         schema(ruleProperties(), {"name", "action"}),
         [&a](const Json& args) { return a.updateRuleWithJson(dumpLine(ruleDocument(args))); }},
        {"remove_rule", "Remove a rule from the active profile", true, schema(ruleName, {"name"}),
         [&a](const Json& args) { return a.removeRuleWithName(text(args, "name")); }},
        {"enable_rule", "Let a rule take part in routing again", true, schema(ruleName, {"name"}),
         [&a](const Json& args) { return a.setRuleEnabledWithName(text(args, "name"), true); }},
        {"disable_rule", "Keep a rule but leave it out of routing", true,
         schema(ruleName, {"name"}),
         [&a](const Json& args) { return a.setRuleEnabledWithName(text(args, "name"), false); }},
        {"set_route", "Route one application's traffic a given way, through its own rule", true,
         schema({{"app", property("string", "Application: bundle id, name or executable")},
                 {"target", property("string", "direct, block, proxy:<proxy name>, "
                                               "chain:<chain name> or interface:<name>")}},
                {"app", "target"}),
         [&a](const Json& args) {
             return a.setRouteWithApp(text(args, "app"), text(args, "target"));
         }},
        {"test_route",
         "Which route the active profile gives one connection, with the rules tried on the way",
         false,
         schema({{"app", property("string", "Application: bundle id, name or executable")},
                 {"host", property("string", "Destination host name or IPv4 address")},
                 {"port", integerProperty("Destination port", 0, 65535)}},
                {"app", "host", "port"}),
         [&a](const Json& args) {
             return a.testRouteWithApp(text(args, "app"), text(args, "host"),
                                       args["port"].get<std::uint16_t>());
         }},
        {"list_proxies", "The proxies of the active profile", false, schema(),
         [&a](const Json&) { return a.listProxiesWithReply(); }},
        {"add_proxy", "Add a SOCKS5 or HTTP proxy to the active profile", true,
         schema({{"name", property("string", "Name for rules to refer to (proxy:<name>)")},
                 {"address", property("string", "Host name or IP address")},
                 {"port", integerProperty("Port", 1, 65535)},
                 {"proto",
                  [] {
                      Json p = property("string", "Protocol (default socks5)");
                      p["enum"] = {"socks5", "http"};
                      return p;
                  }()},
                 {"username", property("string", "User name, when the proxy asks for one")},
                 {"password", property("string", "Password, with username")}},
                {"name", "address", "port"}),
         [&a](const Json& args) {
             ProxyServer proxy;
             proxy.id = UUID::random();
             proxy.name = text(args, "name");
             proxy.address = text(args, "address");
             proxy.port = args["port"].get<std::uint16_t>();
             proxy.proto = proxyProtocolFromRaw(args.value("proto", "socks5"))
                               .value_or(ProxyProtocol::socks5);
             if (args.contains("username") || args.contains("password")) {
                 proxy.credentials =
                     ProxyCredentials{text(args, "username"), text(args, "password")};
             }
             return a.addProxyWithJson(encodeProxyServer(proxy));
         }},
        {"list_environments",
         "The network environments (Wi-Fi networks, wired networks) and the profiles bound to "
         "them",
         false, schema(), [&a](const Json&) { return a.listEnvironmentsWithReply(); }},
        {"bind_environment",
         "Bind the network the machine is on now to a profile, so that the profile becomes "
         "active whenever this network is",
         true, schema({{"profile", property("string", "Profile name")}}, {"profile"}),
         [&a](const Json& args) {
             return a.bindCurrentEnvironmentWithProfileName(text(args, "profile"));
         }},
        {"scan_proxies",
         "Find the SOCKS5 and HTTP proxies that listen on this machine's loopback; add_proxy "
         "adds one (address 127.0.0.1) to the profile",
         false, schema(),
         [this](const Json&) {
             Json array = Json::array();
             const auto found = scanners_.proxies ? scanners_.proxies()
                                                  : std::vector<LocalProxyScanner::Candidate>{};
             for (const auto& candidate : found) {
                 array.push_back(toJSON(candidate));
             }
             return scanReply(found.size(), "local proxies", std::move(array));
         }},
        {"scan_tunnels",
         "List the tunnel interfaces that are up (VPNs, WireGuard, tun devices) with the "
         "process that holds each, for rules with interface:<name>",
         false, schema(),
         [this](const Json&) {
             Json array = Json::array();
             const auto found =
                 scanners_.tunnels ? scanners_.tunnels() : std::vector<TunnelInterface>{};
             for (const auto& tunnel : found) {
                 array.push_back(toJSON(tunnel));
             }
             return scanReply(found.size(), "tunnel interfaces", std::move(array));
         }},
    };
}

std::optional<std::string> MCPServer::writesRefused() {
    AutomationReply status;
    try {
        status = automation_.getStatusWithReply();
    } catch (const std::exception& error) {
        return std::string("Changes are not possible now: ") + error.what();
    }
    if (!status.succeeded) {
        return "Changes are not possible now: " + status.text;
    }
    const auto document = status.data ? DTOCoding::parse(*status.data) : std::nullopt;
    if (!document || !document->is_object()) {
        return std::string("Changes are not possible now: the automation service's status "
                           "does not read.");
    }
    const auto allowed = document->find("automationWritesAllowed");
    if (allowed == document->end() || !allowed->is_boolean() || !allowed->get<bool>()) {
        return std::string("The automation service does not allow changes from automation "
                           "clients, so this tool is turned off.");
    }
    return std::nullopt;
}

Json MCPServer::listTools() {
    const bool writable = !writesRefused();
    Json list = Json::array();
    for (const auto& tool : tools_) {
        if (tool.changes && !writable) {
            continue;
        }
        list.push_back({{"name", tool.name},
                        {"description", tool.description},
                        {"inputSchema", tool.inputSchema},
                        {"annotations", {{"readOnlyHint", !tool.changes}}}});
    }
    return {{"tools", std::move(list)}};
}

Json MCPServer::callTool(const Json& params) {
    const auto name = params.find("name");
    if (name == params.end() || !name->is_string()) {
        badParams("the tool's \"name\" is missing");
    }
    const auto tool = std::find_if(tools_.begin(), tools_.end(), [&](const Tool& t) {
        return t.name == name->get<std::string>();
    });
    if (tool == tools_.end()) {
        badParams("unknown tool \"" + name->get<std::string>() + "\"");
    }
    Json arguments = Json::object();
    if (const auto given = params.find("arguments"); given != params.end() && !given->is_null()) {
        if (!given->is_object()) {
            badParams("\"arguments\" must be an object");
        }
        arguments = *given;
    }
    checkArguments(tool->inputSchema, arguments);
    if (tool->changes) {
        if (auto why = writesRefused()) {
            return toolResult(AutomationReply::failed(*why));
        }
    }
    try {
        return toolResult(tool->run(arguments));
    } catch (const std::exception& error) {
        // The service went away or answered nonsense: the model should see
        // that the tool failed, not that the protocol broke.
        return toolResult(AutomationReply::failed(error.what()));
    }
}

Json MCPServer::dispatch(const std::string& method, const Json& params) {
    if (method == "ping") {
        return Json::object();
    }
    if (method != "initialize" && method != "tools/list" && method != "tools/call") {
        throw RPCFailure{methodNotFound, "Method not found: " + method};
    }
    if (!params.is_object()) {
        badParams("params must be an object");
    }
    if (method == "tools/list") {
        return listTools();
    }
    if (method == "tools/call") {
        return callTool(params);
    }
    const auto requested = params.find("protocolVersion");
    if (requested == params.end() || !requested->is_string()) {
        badParams("\"protocolVersion\" is missing");
    }
    const auto& versions = supportedProtocolVersions();
    const bool known = std::find(versions.begin(), versions.end(), requested->get<std::string>()) !=
                       versions.end();
    return {{"protocolVersion", known ? requested->get<std::string>() : versions.back()},
            {"capabilities", {{"tools", Json::object()}}},
            {"serverInfo", {{"name", serverName}, {"version", serverVersion}}},
            {"instructions",
             "Tools of the veltrane per-application traffic redirector: read its status, "
             "connections and profiles, test routes, and (when the running service allows "
             "changes) edit rules, routes, proxies and profiles."}};
}

std::optional<std::string> MCPServer::handleLine(std::string_view line) {
    Json id = nullptr;
    try {
        if (line.find_first_not_of(" \t\r\n") == std::string_view::npos) {
            return std::nullopt;
        }
        const Json message = Json::parse(line.begin(), line.end(), nullptr, false);
        if (message.is_discarded()) {
            return dumpLine(errorReply(nullptr, parseError, "Parse error"));
        }
        if (!message.is_object()) {
            return dumpLine(errorReply(nullptr, invalidRequest,
                                       message.is_array()
                                           ? "Invalid Request: batches are not supported"
                                           : "Invalid Request: not an object"));
        }
        const auto foundID = message.find("id");
        const bool hasID = foundID != message.end();
        if (hasID) {
            if (!foundID->is_string() && !foundID->is_number()) {
                return dumpLine(errorReply(nullptr, invalidRequest,
                                           "Invalid Request: id must be a string or a number"));
            }
            id = *foundID;
        }
        const auto version = message.find("jsonrpc");
        if (version == message.end() || *version != "2.0") {
            return dumpLine(
                errorReply(id, invalidRequest, "Invalid Request: jsonrpc must be \"2.0\""));
        }
        const auto method = message.find("method");
        if (method == message.end()) {
            // A response to a request of ours; this server sends none.
            if (hasID && (message.contains("result") || message.contains("error"))) {
                return std::nullopt;
            }
            return dumpLine(errorReply(id, invalidRequest, "Invalid Request: no method"));
        }
        if (!method->is_string()) {
            return dumpLine(errorReply(id, invalidRequest, "Invalid Request: method not a string"));
        }
        const auto params = message.find("params");
        if (params != message.end() && !params->is_object() && !params->is_array()) {
            return dumpLine(errorReply(id, invalidRequest,
                                       "Invalid Request: params must be an object or array"));
        }
        if (!hasID) {
            // notifications/initialized, notifications/cancelled and any
            // other: nothing to answer, nothing to do.
            return std::nullopt;
        }
        try {
            Json result = dispatch(method->get<std::string>(),
                                   params == message.end() ? Json::object() : Json(*params));
            return dumpLine({{"jsonrpc", "2.0"}, {"id", id}, {"result", std::move(result)}});
        } catch (const RPCFailure& failure) {
            return dumpLine(errorReply(id, failure.code, failure.message));
        }
    } catch (const std::exception& error) {
        try {
            return dumpLine(
                errorReply(id, internalError, std::string("Internal error: ") + error.what()));
        } catch (...) {
        }
    } catch (...) {
    }
    return R"({"jsonrpc":"2.0","id":null,"error":{"code":-32603,"message":"Internal error"}})";
}

} // namespace veltrane::kit
