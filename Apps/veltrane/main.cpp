#include "Commands.hpp"
#include "ControlCommands.hpp"

#include <iostream>

int main(int argc, char** argv) {
    CLI::App app{"veltrane: per-application traffic redirector"};
    app.require_subcommand(1);
    veltrane::app::CommandRunner runner;
    veltrane::app::addTestRouteCommand(app, runner);
    veltrane::app::addStatusCommands(app, runner);
    veltrane::app::addStatsCommand(app, runner);
    veltrane::app::addEventsCommand(app, runner);
    veltrane::app::addRunCommands(app, runner);
    veltrane::app::addScanCommand(app, runner);
    veltrane::app::addMcpCommand(app, runner);
    veltrane::app::addProfileCommands(app, runner);
    veltrane::app::addRuleCommands(app, runner);
    veltrane::app::addProxyCommands(app, runner);
    veltrane::app::addRouteCommands(app, runner);
    veltrane::app::addImportCommands(app, runner);
    veltrane::app::addEnvCommands(app, runner);
    veltrane::app::addExecCommand(app, runner);
    veltrane::app::addDnsCommand(app, runner);
    veltrane::app::addDoctorCommand(app, runner);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // Help is a success; any argument that does not read is bad input.
        return app.exit(e) == 0 ? veltrane::app::exitOK : veltrane::app::exitBadInput;
    }
    return runner ? runner() : veltrane::app::exitOK;
}
