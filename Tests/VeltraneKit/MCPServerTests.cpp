#include "VeltraneKit/MCPIntegrations/MCPServer.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <set>

using namespace veltrane::kit;
using nlohmann::json;

namespace {

// Answers what the cases below ask and notes every call; anything else is a
// failed operation.
class ScriptedAutomation final : public AutomationXPCProtocol {
public:
    bool writesAllowed = true;
    std::vector<std::string> calls;

    AutomationReply getStatusWithReply() override {
        return AutomationReply::done("status", json{{"automationWritesAllowed", writesAllowed},
                                                    {"stats", {{"totalConnections", 7}}}}
                                                   .dump());
    }
    AutomationReply switchProfileWithName(const std::string& name) override {
        calls.push_back("switch " + name);
        return name == "Home" ? AutomationReply::done("switched")
                              : AutomationReply::failed("找不到 profile「" + name + "」");
    }
    AutomationReply addRuleWithJson(const std::string& rule) override {
        calls.push_back("addRule " + rule);
        return AutomationReply::done("added");
    }
    AutomationReply testRouteWithApp(const std::string& app, const std::string& host,
                                     std::uint16_t port) override {
        calls.push_back("testRoute " + app + " " + host + " " + std::to_string(port));
        return AutomationReply::done("route", R"({"action":"direct","trace":[]})");
    }

    AutomationReply setEnabled(bool) override { return no(); }
    AutomationReply listProfilesWithReply() override { return no(); }
    AutomationReply createProfileWithName(const std::string&) override { return no(); }
    AutomationReply listEnvironmentsWithReply() override { return no(); }
    AutomationReply bindCurrentEnvironmentWithProfileName(const std::string&) override {
        return no();
    }
    AutomationReply listRulesWithSearch(const std::string&) override { return no(); }
    AutomationReply updateRuleWithJson(const std::string&) override { return no(); }
    AutomationReply removeRuleWithName(const std::string&) override { return no(); }
    AutomationReply setRuleEnabledWithName(const std::string&, bool) override { return no(); }
    AutomationReply listProxiesWithReply() override { return no(); }
    AutomationReply addProxyWithJson(const std::string&) override { return no(); }
    AutomationReply setRouteWithApp(const std::string&, const std::string&) override {
        return no();
    }
    AutomationReply queryConnectionsWithFilterJSON(const std::string&) override { return no(); }
    AutomationReply exportProfileWithName(const std::string&) override { return no(); }
    AutomationReply importProfileWithJson(const std::string&) override { return no(); }

private:
    static AutomationReply no() { return AutomationReply::failed("not scripted"); }
};

std::string call(const std::string& tool, const json& arguments) {
    return json{{"jsonrpc", "2.0"},
                {"id", 9},
                {"method", "tools/call"},
                {"params", {{"name", tool}, {"arguments", arguments}}}}
        .dump();
}

std::string initialize(const std::string& version) {
    return json{{"jsonrpc", "2.0"},
                {"id", 1},
                {"method", "initialize"},
                {"params", {{"protocolVersion", version}, {"capabilities", json::object()}}}}
        .dump();
}

TEST(MCPServerTests, HandleLine) {
    const std::string list = R"({"jsonrpc":"2.0","id":5,"method":"tools/list"})";
    struct Case {
        const char* name;
        bool writesAllowed;
        std::string line;
        std::vector<std::pair<std::string, json>> expect; // JSON pointer, value; empty: no reply
        std::string textContains = {};
        std::string call = {}; // the one automation call expected, if any
        std::optional<bool> listsChanging = {};
    } cases[] = {
        {"initialize with our version",
         true,
         initialize("2025-06-18"),
         {{"/id", 1},
          {"/result/protocolVersion", "2025-06-18"},
          {"/result/capabilities", {{"tools", json::object()}}},
          {"/result/serverInfo/name", "veltrane"}}},
        {"initialize with an older version",
         true,
         initialize("2024-11-05"),
         {{"/result/protocolVersion", "2025-11-25"}}},
        {"initialize without params",
         true,
         R"({"jsonrpc":"2.0","id":1,"method":"initialize"})",
         {{"/error/code", -32602}}},
        {"notification", true, R"({"jsonrpc":"2.0","method":"notifications/initialized"})", {}},
        {"blank line", true, "  \r", {}},
        {"ping",
         true,
         R"({"jsonrpc":"2.0","id":"p","method":"ping"})",
         {{"/id", "p"}, {"/result", json::object()}}},
        {"tools/list with writes", true, list, {{"/id", 5}}, {}, {}, true},
        {"tools/list without writes", false, list, {{"/id", 5}}, {}, {}, false},
        {"read tool",
         false,
         call("test_route", {{"app", "curl"}, {"host", "a.b"}, {"port", 443}}),
         {{"/result/isError", false}, {"/result/content/0/type", "text"}},
         "\"action\": \"direct\"",
         "testRoute curl a.b 443"},
        {"statistics from status",
         true,
         call("get_statistics", json::object()),
         {{"/result/isError", false}},
         "\"totalConnections\": 7"},
        {"scanner tool",
         true,
         call("scan_tunnels", nullptr),
         {{"/result/isError", false}},
         "\"ipv4\": \"10.8.0.2\""},
        {"changing tool",
         true,
         call("switch_profile", {{"name", "Home"}}),
         {{"/result/isError", false}},
         "switched",
         "switch Home"},
        {"changing tool fails",
         true,
         call("switch_profile", {{"name", "Nope"}}),
         {{"/result/isError", true}},
         "找不到 profile「Nope」",
         "switch Nope"},
        {"changing tool without writes",
         false,
         call("switch_profile", {{"name", "Home"}}),
         {{"/result/isError", true}},
         "does not allow changes"},
        {"rule defaults filled in",
         true,
         call("add_rule", {{"name", "r"}, {"action", "block"}, {"hosts", {"*.ads"}}}),
         {{"/result/isError", false}},
         "added",
         R"(addRule {"action":"block","apps":[],"enabled":true,"hosts":["*.ads"],)"
         R"("locked":false,"name":"r","ports":[]})"},
        {"unknown tool", true, call("rm_rf", json::object()), {{"/error/code", -32602}}},
        {"missing argument",
         true,
         call("switch_profile", json::object()),
         {{"/error/code", -32602}}},
        {"argument of the wrong type",
         true,
         call("test_route", {{"app", "a"}, {"host", "h"}, {"port", "443"}}),
         {{"/error/code", -32602}}},
        {"port out of range",
         true,
         call("test_route", {{"app", "a"}, {"host", "h"}, {"port", 65536}}),
         {{"/error/code", -32602}}},
        {"arguments not an object",
         true,
         R"({"jsonrpc":"2.0","id":9,"method":"tools/call","params":{"name":"get_status","arguments":[]}})",
         {{"/error/code", -32602}}},
        {"parse error",
         true,
         R"({"jsonrpc":"2.0","id":1,)",
         {{"/error/code", -32700}, {"/id", nullptr}}},
        {"batch",
         true,
         R"([{"jsonrpc":"2.0","id":1,"method":"ping"}])",
         {{"/error/code", -32600}, {"/id", nullptr}}},
        {"wrong version",
         true,
         R"({"jsonrpc":"1.0","id":2,"method":"ping"})",
         {{"/error/code", -32600}, {"/id", 2}}},
        {"id of the wrong type",
         true,
         R"({"jsonrpc":"2.0","id":{},"method":"ping"})",
         {{"/error/code", -32600}, {"/id", nullptr}}},
        {"method not a string",
         true,
         R"({"jsonrpc":"2.0","id":3,"method":7})",
         {{"/error/code", -32600}}},
        {"unknown method",
         true,
         R"({"jsonrpc":"2.0","id":4,"method":"resources/list"})",
         {{"/error/code", -32601}, {"/id", 4}}},
        {"params not an object",
         true,
         R"({"jsonrpc":"2.0","id":4,"method":"tools/list","params":[]})",
         {{"/error/code", -32602}}},
        {"client's response is not answered", true, R"({"jsonrpc":"2.0","id":4,"result":{}})", {}},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ScriptedAutomation automation;
        automation.writesAllowed = c.writesAllowed;
        MCPServer server(automation, {[] { return std::vector<LocalProxyScanner::Candidate>{}; },
                                      [] {
                                          TunnelInterface tun;
                                          tun.name = "tun0";
                                          tun.ipv4 = "10.8.0.2";
                                          return std::vector<TunnelInterface>{tun};
                                      }});
        const auto reply = server.handleLine(c.line);
        if (c.expect.empty()) {
            EXPECT_FALSE(reply) << *reply;
            continue;
        }
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->find('\n'), std::string::npos);
        const json parsed = json::parse(*reply);
        EXPECT_EQ(parsed["jsonrpc"], "2.0");
        for (const auto& [pointer, value] : c.expect) {
            EXPECT_EQ(parsed.value(json::json_pointer(pointer), json("<absent>")), value)
                << pointer << " in " << *reply;
        }
        if (!c.textContains.empty()) {
            EXPECT_NE(
                parsed["result"]["content"][0]["text"].get<std::string>().find(c.textContains),
                std::string::npos)
                << *reply;
        }
        EXPECT_EQ(automation.calls,
                  c.call.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.call});
        if (c.listsChanging) {
            std::set<std::string> names;
            for (const auto& tool : parsed["result"]["tools"]) {
                names.insert(tool["name"]);
                EXPECT_FALSE(tool["description"].get<std::string>().empty());
                EXPECT_EQ(tool["inputSchema"]["type"], "object");
                EXPECT_TRUE(tool["inputSchema"]["properties"].is_object());
                EXPECT_TRUE(tool["inputSchema"]["required"].is_array());
            }
            for (const char* read : {"get_status", "test_route", "scan_proxies", "list_rules"}) {
                EXPECT_TRUE(names.count(read)) << read;
            }
            for (const char* change : {"switch_profile", "add_rule", "set_route", "add_proxy"}) {
                EXPECT_EQ(names.count(change) == 1, *c.listsChanging) << change;
            }
        }
    }
}

} // namespace
