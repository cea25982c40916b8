#pragma once

#include <CLI/CLI.hpp>
#include <functional>

namespace veltrane::app {

// Exit statuses shared by the verbs.
inline constexpr int exitOK = 0;
inline constexpr int exitUnavailable = 1; // nothing to talk to (no extension running)
inline constexpr int exitBadInput = 2;    // a file or argument that does not read

// Each verb adds its subcommand to the app and, when it is chosen, leaves in
// the runner the work to do; the runner's result is the exit status.
using CommandRunner = std::function<int()>;

// Registers "test-route".
void addTestRouteCommand(CLI::App& app, CommandRunner& runner);

// Registers "run" and "reload".
void addRunCommands(CLI::App& app, CommandRunner& runner);

// Registers "scan proxies" and "scan tunnels".
void addScanCommand(CLI::App& app, CommandRunner& runner);

// Registers "mcp list", "mcp install", "mcp uninstall" and "mcp serve".
void addMcpCommand(CLI::App& app, CommandRunner& runner);

// Registers "profile list|create|duplicate|delete|switch|export|import".
void addProfileCommands(CLI::App& app, CommandRunner& runner);

// Registers "rule list|add|update|remove|enable|disable".
void addRuleCommands(CLI::App& app, CommandRunner& runner);

// Registers "proxy list|add".
void addProxyCommands(CLI::App& app, CommandRunner& runner);

// Registers "route set".
void addRouteCommands(CLI::App& app, CommandRunner& runner);

// Registers "import" and "discover".
void addImportCommands(CLI::App& app, CommandRunner& runner);

// Registers "env" and "env bind".
void addEnvCommands(CLI::App& app, CommandRunner& runner);

// Registers "exec".
void addExecCommand(CLI::App& app, CommandRunner& runner);

// Registers "dns".
void addDnsCommand(CLI::App& app, CommandRunner& runner);

// Registers "status", "enable" and "disable".
void addStatusCommands(CLI::App& app, CommandRunner& runner);

// Registers "doctor".
void addDoctorCommand(CLI::App& app, CommandRunner& runner);

} // namespace veltrane::app
