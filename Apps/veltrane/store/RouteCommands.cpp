// "route set": one application's route, through its own rule.
#include "../AutomationAccess.hpp"
#include "../Commands.hpp"
#include "VerbSupport.hpp"

#include <memory>

namespace veltrane::app {
namespace {

struct RouteOptions {
    std::string app;
    std::string target;
    bool json = false;
};

int setRoute(const RouteOptions& o) {
    return store::withAutomation(o.json, [&](AutomationAccess& access) {
        return store::finish(access.operations().setRouteWithApp(o.app, o.target), o.json, {},
                             "routed " + o.app + " to " + o.target);
    });
}

} // namespace

void addRouteCommands(CLI::App& app, CommandRunner& runner) {
    auto options = std::make_shared<RouteOptions>();
    auto* route = app.add_subcommand("route", "Route applications in the active profile");
    route->require_subcommand(1);
    auto* set = route->add_subcommand(
        "set", "Route one application: its rule \"App: APP\" is made or changed, and stands "
               "before the Default rule");
    set->add_option("APP", options->app,
                    "The application as a rule names it (bundle id, name or path)")
        ->required();
    set->add_option("TARGET", options->target,
                    "direct, block, proxy:NAME, chain:NAME or interface:NAME")
        ->required();
    set->add_flag("--json", options->json, "Print the result as JSON (one line)");
    set->footer("Check the result with `veltrane test-route --app APP --host HOST --port PORT`. "
                "Exit status: 0 done, 1 refused or failed, 2 bad input.");
    set->callback([options, &runner] { runner = [options] { return setRoute(*options); }; });
}

} // namespace veltrane::app
