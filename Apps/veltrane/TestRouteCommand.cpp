#include "AutomationAccess.hpp"
#include "Commands.hpp"
#include "VeltraneKit/ProfileCoding.hpp"
#include "VeltraneKit/RuleEngine.hpp"
#include "VeltraneKit/TestRouteDTO.hpp"
#include "store/VerbSupport.hpp"

#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

namespace veltrane::app {
namespace {

struct TestRouteOptions {
    std::string profilePath;
    std::string app;
    std::string host;
    std::uint16_t port = 0;
    bool udp = false;
    bool json = false;
};

std::optional<std::string> readFile(const std::string& path, std::string& problem) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        problem = "cannot open the file";
        return std::nullopt;
    }
    std::string text((std::istreambuf_iterator<char>(in)), {});
    if (in.bad()) {
        problem = "cannot read the file";
        return std::nullopt;
    }
    return text;
}

int printRoute(const kit::TestRouteDTO& dto, bool json) {
    if (json) {
        std::cout << dto.json() << "\n";
        return exitOK;
    }
    std::cout << "route: " << dto.action << "\n";
    std::cout << "rule: " << dto.matchedRule.value_or("(none)") << "\n";
    std::cout << "trace:\n";
    for (const auto& line : dto.trace) {
        std::cout << "  " << line << "\n";
    }
    return exitOK;
}

int testProfile(kit::Profile profile, const TestRouteOptions& options) {
    // The name given stands for every way a rule can name an application.
    kit::AppIdentity identity;
    identity.bundleID = options.app;
    identity.displayName = options.app;
    identity.executableName = options.app;

    const kit::RuleEngine engine(std::move(profile));
    const auto transport = options.udp ? kit::FlowTransport::udp : kit::FlowTransport::tcp;
    const kit::Verdict verdict = engine.match(identity, options.host, options.port, transport);
    return printRoute(kit::TestRouteDTO(verdict), options.json);
}

int runTestRoute(const TestRouteOptions& options) {
    std::string problem;
    const auto text = readFile(options.profilePath, problem);
    if (!text) {
        std::cerr << "veltrane: " << options.profilePath << ": " << problem << "\n";
        return exitBadInput;
    }
    std::optional<kit::ProfileDecodingError> error;
    auto profile = kit::decodeProfile(std::string_view(*text), &error);
    if (!profile) {
        std::cerr << "veltrane: " << options.profilePath << ": "
                  << (error ? error->localizedDescription() : "not a profile") << "\n";
        return exitBadInput;
    }
    return testProfile(std::move(*profile), options);
}

std::optional<kit::TestRouteDTO> routeFromJSON(const nlohmann::json& data) {
    if (!data.is_object() || !data.contains("action") || !data["action"].is_string()) {
        return std::nullopt;
    }
    kit::TestRouteDTO dto;
    dto.action = data["action"].get<std::string>();
    if (const auto rule = data.find("matchedRule"); rule != data.end() && rule->is_string()) {
        dto.matchedRule = rule->get<std::string>();
    }
    for (const auto& line : data.value("trace", nlohmann::json::array())) {
        if (line.is_string()) {
            dto.trace.push_back(line.get<std::string>());
        }
    }
    return dto;
}

// Without --profile: the active profile, as the running service (or, when
// none runs, the store) has it.
int runActiveTestRoute(const TestRouteOptions& options) {
    return store::withAutomation(options.json, [&](AutomationAccess& access) {
        if (options.udp) {
            // The operation tests TCP only: a UDP test runs here, over the
            // active profile that the service exports.
            const auto reply = access.operations().exportProfileWithName("");
            if (!reply.succeeded || !reply.data) {
                return store::finish(reply, options.json);
            }
            auto profile = kit::decodeProfile(std::string_view(*reply.data));
            if (!profile) {
                return store::fail("the active profile does not read", options.json,
                                   exitUnavailable);
            }
            return testProfile(std::move(*profile), options);
        }
        const auto reply =
            access.operations().testRouteWithApp(options.app, options.host, options.port);
        if (!reply.succeeded || !reply.data) {
            return store::finish(reply, options.json);
        }
        const auto dto = routeFromJSON(nlohmann::json::parse(*reply.data, nullptr, false));
        if (!dto) {
            return store::fail("the route test does not read", options.json, exitUnavailable);
        }
        return printRoute(*dto, options.json);
    });
}

} // namespace

void addTestRouteCommand(CLI::App& app, CommandRunner& runner) {
    auto options = std::make_shared<TestRouteOptions>();
    auto* command = app.add_subcommand(
        "test-route", "Show which route a profile gives one connection, and why, rule by rule");
    command->add_option("--profile", options->profilePath,
                        "Profile JSON file (default: the active profile, as the running "
                        "service or the profile store has it)");
    command
        ->add_option("--app", options->app,
                     "Application, as a rule names it (bundle id, display or executable name)")
        ->required();
    command->add_option("--host", options->host, "Destination host name or IPv4 address")
        ->required();
    command->add_option("--port", options->port, "Destination port (0-65535)")
        ->required()
        ->check(CLI::Range(0, 65535));
    command->add_flag("--udp", options->udp, "Test a UDP flow instead of TCP");
    command->add_flag("--json", options->json, "Print the route test as JSON");
    command->callback([options, &runner] {
        runner = [options] {
            return options->profilePath.empty() ? runActiveTestRoute(*options)
                                                : runTestRoute(*options);
        };
    });
}

} // namespace veltrane::app
