// "env": the network this machine is on and the profile bound to it; "env
// bind" binds the active network to a profile.
#include "../AutomationAccess.hpp"
#include "../Commands.hpp"
#include "VerbSupport.hpp"

#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

namespace veltrane::app {
namespace {

struct EnvOptions {
    std::string profile;
    bool json = false;
};

std::string describeFingerprint(const nlohmann::json& fingerprint) {
    std::string text = fingerprint.value("interfaceType", "other");
    if (fingerprint.contains("ssid")) {
        text += ", network \"" + fingerprint.value("ssid", "") + "\"";
    }
    if (fingerprint.contains("gatewayMAC")) {
        text += ", gateway " + fingerprint.value("gatewayMAC", "");
    }
    if (fingerprint.contains("subnet")) {
        text += ", subnet " + fingerprint.value("subnet", "");
    }
    return text;
}

// An environment as the profile document writes it.
std::string describeEnvironment(const nlohmann::json& environment) {
    const auto kind = environment.value("kind", nlohmann::json::object());
    std::string text = environment.value("name", "?") + " (" + kind.value("type", "?");
    if (kind.contains("ssid")) {
        text += " \"" + kind.value("ssid", "") + "\"";
    }
    if (kind.contains("gatewayMAC")) {
        text += " " + kind.value("gatewayMAC", "");
    }
    if (kind.contains("subnet")) {
        text += " " + kind.value("subnet", "");
    }
    return text + ")";
}

void printEnvironments(const nlohmann::json& data) {
    if (data.contains("current")) {
        std::cout << "network: " << describeFingerprint(data["current"]) << "\n";
        std::cout << "profile: "
                  << (data.contains("matchingProfile")
                          ? data.value("matchingProfile", "")
                          : std::string("none bound (the active profile stays)"))
                  << "\n";
    } else {
        std::cout << "network: none\n";
    }
    for (const auto& profile : data.value("profiles", nlohmann::json::array())) {
        const auto environments = profile.value("environments", nlohmann::json::array());
        if (environments.empty()) {
            continue;
        }
        std::vector<std::string> texts;
        for (const auto& environment : environments) {
            texts.push_back(describeEnvironment(environment));
        }
        std::cout << "  " << profile.value("name", "?") << ": " << store::joined(texts) << "\n";
    }
}

int show(const EnvOptions& o) {
    return store::withAutomation(o.json, [&](AutomationAccess& access) {
        return store::finish(access.operations().listEnvironmentsWithReply(), o.json,
                             printEnvironments);
    });
}

int bind(const EnvOptions& o) {
    return store::withAutomation(o.json, [&](AutomationAccess& access) {
        return store::finish(access.operations().bindCurrentEnvironmentWithProfileName(o.profile),
                             o.json, {}, "bound " + o.profile + " to this network");
    });
}

} // namespace

void addEnvCommands(CLI::App& app, CommandRunner& runner) {
    auto options = std::make_shared<EnvOptions>();
    auto* env = app.add_subcommand(
        "env", "Show the network this machine is on, the profile bound to it, and every "
               "profile's bound networks");
    env->add_flag("--json", options->json, "Print it as JSON (one line)");
    env->footer("A Wi-Fi network is known by its name, a wired one by its gateway's hardware "
                "address and subnet. Exit status: 0 done, 1 refused or failed, 2 bad input.");
    env->callback([options, &runner, env] {
        // The bare verb shows; "env bind" leaves its own work.
        if (env->get_subcommands().empty()) {
            runner = [options] { return show(*options); };
        }
    });

    auto* bindVerb = env->add_subcommand(
        "bind", "Bind the network this machine is on to a profile, so that the profile is "
                "chosen here");
    bindVerb->add_option("PROFILE", options->profile, "The profile to bind")->required();
    bindVerb->add_flag("--json", options->json, "Print the result as JSON (one line)");
    bindVerb->callback([options, &runner] { runner = [options] { return bind(*options); }; });
}

} // namespace veltrane::app
