// The MCP server reads whatever an AI client writes to its stdin. Every line
// must get either no answer or one line of JSON-RPC, never a crash or an
// exception, whatever the automation service answers.
#include "VeltraneKit/MCPIntegrations/MCPServer.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

using namespace veltrane::kit;

namespace {

// Grants writes and answers every operation, echoing its argument as data so
// that argument texts reach the result; one answer carries bytes that are
// neither JSON nor UTF-8.
class EchoAutomation final : public AutomationXPCProtocol {
public:
    AutomationReply getStatusWithReply() override {
        return AutomationReply::done("status", R"({"automationWritesAllowed":true,"stats":{}})");
    }
    AutomationReply setEnabled(bool on) override { return echo(on ? "on" : "off"); }
    AutomationReply listProfilesWithReply() override { return echo("[]"); }
    AutomationReply switchProfileWithName(const std::string& n) override { return echo(n); }
    AutomationReply createProfileWithName(const std::string& n) override {
        return AutomationReply::failed(n);
    }
    AutomationReply listEnvironmentsWithReply() override { return echo("\xff\xfe{"); }
    AutomationReply bindCurrentEnvironmentWithProfileName(const std::string& n) override {
        return echo(n);
    }
    AutomationReply listRulesWithSearch(const std::string& s) override { return echo(s); }
    AutomationReply addRuleWithJson(const std::string& j) override { return echo(j); }
    AutomationReply updateRuleWithJson(const std::string& j) override { return echo(j); }
    AutomationReply removeRuleWithName(const std::string& n) override { return echo(n); }
    AutomationReply setRuleEnabledWithName(const std::string& n, bool) override { return echo(n); }
    AutomationReply listProxiesWithReply() override { return echo("[]"); }
    AutomationReply addProxyWithJson(const std::string& j) override { return echo(j); }
    AutomationReply setRouteWithApp(const std::string& a, const std::string& t) override {
        return echo(a + t);
    }
    AutomationReply testRouteWithApp(const std::string& a, const std::string& h,
                                     std::uint16_t) override {
        return echo(a + h);
    }
    AutomationReply queryConnectionsWithFilterJSON(const std::string& j) override {
        return echo(j);
    }
    AutomationReply exportProfileWithName(const std::string& n) override { return echo(n); }
    AutomationReply importProfileWithJson(const std::string& j) override { return echo(j); }

private:
    static AutomationReply echo(std::string data) {
        return AutomationReply::done("done", std::move(data));
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    EchoAutomation automation;
    MCPServer server(automation, {[] { return std::vector<LocalProxyScanner::Candidate>{}; },
                                  [] { return std::vector<TunnelInterface>{}; }});
    const auto reply =
        server.handleLine(std::string_view(reinterpret_cast<const char*>(data), size));
    if (!reply) {
        return 0;
    }
    const auto parsed = nlohmann::json::parse(*reply, nullptr, false);
    if (reply->find('\n') != std::string::npos || !parsed.is_object() ||
        parsed.value("jsonrpc", "") != "2.0" ||
        parsed.contains("result") == parsed.contains("error")) {
        std::abort();
    }
    return 0;
}
