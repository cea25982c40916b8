// Request lines reach the automation service from any local client. Whatever
// arrives, the answer is one line holding one JSON object: a reply array or
// an error text, never a crash.
#include "VeltraneKit/AutomationProtocol/AutomationWire.hpp"
#include "VeltraneKit/DTOCoding.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string_view>

using namespace veltrane::kit;

namespace {

// Echoes its arguments back, as data where the operation has data, and fails
// when the first text argument says so; so both reply forms and embedded
// documents of every shape get written.
class EchoService final : public AutomationXPCProtocol {
public:
    AutomationReply getStatusWithReply() override { return reply("{}"); }
    AutomationReply setEnabled(bool enabled) override { return reply(enabled ? "true" : "false"); }
    AutomationReply listProfilesWithReply() override { return reply("[]"); }
    AutomationReply switchProfileWithName(const std::string& name) override { return reply(name); }
    AutomationReply createProfileWithName(const std::string& name) override { return reply(name); }
    AutomationReply listEnvironmentsWithReply() override { return AutomationReply::done("none"); }
    AutomationReply bindCurrentEnvironmentWithProfileName(const std::string& name) override {
        return reply(name);
    }
    AutomationReply listRulesWithSearch(const std::string& search) override {
        return reply(search);
    }
    AutomationReply addRuleWithJson(const std::string& json) override { return reply(json); }
    AutomationReply updateRuleWithJson(const std::string& json) override { return reply(json); }
    AutomationReply removeRuleWithName(const std::string& name) override { return reply(name); }
    AutomationReply setRuleEnabledWithName(const std::string& name, bool) override {
        return reply(name);
    }
    AutomationReply listProxiesWithReply() override { return reply("[]"); }
    AutomationReply addProxyWithJson(const std::string& json) override { return reply(json); }
    AutomationReply setRouteWithApp(const std::string& app, const std::string&) override {
        return reply(app);
    }
    AutomationReply testRouteWithApp(const std::string& app, const std::string&,
                                     std::uint16_t) override {
        return reply(app);
    }
    AutomationReply queryConnectionsWithFilterJSON(const std::string& json) override {
        return reply(json);
    }
    AutomationReply exportProfileWithName(const std::string& name) override { return reply(name); }
    AutomationReply importProfileWithJson(const std::string& json) override { return reply(json); }

private:
    static AutomationReply reply(const std::string& echo) {
        if (echo.rfind("fail", 0) == 0) {
            return AutomationReply::failed(echo);
        }
        // Text that is not JSON goes out as data too: the wire must refuse it
        // cleanly rather than write a broken line.
        return AutomationReply::done(echo, echo);
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    EchoService service;
    const std::string_view line(reinterpret_cast<const char*>(data), size);
    const std::string reply = handleAutomationLine(service, line);
    if (reply.find('\n') != std::string::npos) {
        std::abort();
    }
    auto value = DTOCoding::parse(reply);
    if (!value || !value->is_object()) {
        std::abort();
    }
    const auto error = value->find("error");
    const auto values = value->find("reply");
    const bool isError = error != value->end() && error->is_string();
    const bool isReply = values != value->end() && values->is_array() && !values->empty() &&
                         values->back().is_string();
    if (isError == isReply) {
        std::abort();
    }
    return 0;
}
