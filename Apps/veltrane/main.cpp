#include "Commands.hpp"
#include "ControlCommands.hpp"

#include <iostream>

int main(int argc, char** argv) {
    CLI::App app{"veltrane: per-application traffic redirector"};
    app.require_subcommand(1);
    veltrane::app::CommandRunner runner;
    veltrane::app::addTestRouteCommand(app, runner);
    veltrane::app::addStatsCommand(app, runner);
    veltrane::app::addEventsCommand(app, runner);
    veltrane::app::addRunCommands(app, runner);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    }
    return runner ? runner() : veltrane::app::exitOK;
}
