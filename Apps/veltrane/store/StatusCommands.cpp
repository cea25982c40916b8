// "status": whether traffic is being redirected, and by which profile;
// "enable" and "disable": redirection on and off in the running system.
#include "../AutomationAccess.hpp"
#include "../Commands.hpp"
#include "VerbSupport.hpp"

#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

namespace veltrane::app {
namespace {

struct StatusOptions {
    bool json = false;
};

void printStatus(const nlohmann::json& status, bool served) {
    const bool enabled = status.value("enabled", false);
    std::cout << "redirection  " << (enabled ? "on" : "off") << "\n";
    if (!served) {
        std::cout << "extension    not running (start it with `veltrane run`)\n";
    } else {
        std::cout << "extension    " << (enabled ? "running" : "stopped: connections go direct")
                  << "\n";
    }
    std::cout << "profile      \"" << status.value("activeProfile", "") << "\"\n";
    if (status.contains("currentEnvironment")) {
        std::cout << "network      \"" << status.value("currentEnvironment", "")
                  << "\" (bound to the profile)\n";
    }
    if (enabled) {
        const auto stats = status.value("stats", nlohmann::json::object());
        std::cout << "connections  " << stats.value("activeConnections", 0) << " active, "
                  << stats.value("totalConnections", 0) << " since the start\n";
    }
    if (!status.value("automationWritesAllowed", true)) {
        std::cout << "changes      refused: the service runs with --automation-read-only\n";
    }
}

int showStatus(const StatusOptions& o) {
    return store::withAutomation(o.json, [&](AutomationAccess& access) {
        const bool served = access.served();
        return store::finish(
            access.operations().getStatusWithReply(), o.json,
            [served](const nlohmann::json& status) { printStatus(status, served); });
    });
}

int setEnabled(bool enabled, const StatusOptions& o) {
    return store::withAutomation(o.json, [&](AutomationAccess& access) {
        if (!access.served()) {
            return store::fail("no running system to turn " + std::string(enabled ? "on" : "off") +
                                   " (is `veltrane run` running?)",
                               o.json, exitUnavailable);
        }
        return store::finish(access.operations().setEnabled(enabled), o.json);
    });
}

} // namespace

void addStatusCommands(CLI::App& app, CommandRunner& runner) {
    auto options = std::make_shared<StatusOptions>();
    auto* status = app.add_subcommand(
        "status", "Show whether connections are being redirected, by which profile, and how many");
    status->add_flag("--json", options->json, "Print the status as JSON (one line)");
    status->footer("Exit status: 0 shown (also when nothing runs), 1 failed.");
    status->callback([options, &runner] { runner = [options] { return showStatus(*options); }; });

    auto* enable = app.add_subcommand(
        "enable", "Turn redirection back on in the running system, with the profile in effect");
    enable->add_flag("--json", options->json, "Print the result as JSON (one line)");
    enable->footer("Exit status: 0 on, 1 nothing runs or it did not start.");
    enable->callback(
        [options, &runner] { runner = [options] { return setEnabled(true, *options); }; });

    auto* disable = app.add_subcommand(
        "disable", "Turn redirection off in the running system: the connections it carries "
                   "end, and new ones go direct until `veltrane enable`; `veltrane run` keeps "
                   "running");
    disable->add_flag("--json", options->json, "Print the result as JSON (one line)");
    disable->footer("Exit status: 0 off, 1 nothing runs or it did not stop.");
    disable->callback(
        [options, &runner] { runner = [options] { return setEnabled(false, *options); }; });
}

} // namespace veltrane::app
