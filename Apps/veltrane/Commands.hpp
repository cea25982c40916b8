#pragma once

#include <CLI/CLI.hpp>
#include <functional>

namespace veltrane::app {

// Each verb adds its subcommand to the app and sets its callback. A callback
// returns the process's exit status through CommandResult.
struct CommandResult {
    int status = 0;
};

// Exit statuses shared by the verbs.
inline constexpr int exitOK = 0;
inline constexpr int exitUnavailable = 1; // nothing to talk to (no extension running)
inline constexpr int exitBadInput = 2;    // a file or argument that does not read

using CommandRunner = std::function<int()>;

// Registers "test-route".
void addTestRouteCommand(CLI::App& app, CommandRunner& runner);

} // namespace veltrane::app
