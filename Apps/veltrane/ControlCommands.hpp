#pragma once

#include "Commands.hpp"
#include "VeltraneKit/ExtensionControlClient.hpp"

#include <memory>
#include <string>
#include <vector>

namespace veltrane::app {

// Registers "stats": the running extension's counters, as a table or JSON.
void addStatsCommand(CLI::App& app, CommandRunner& runner);

// Registers "events": the running extension's recent connection events, once
// or followed as they come.
void addEventsCommand(CLI::App& app, CommandRunner& runner);

// Shared by the verbs that read the extension's control socket.
namespace control {

// The sockets tried when --socket is not given: this user's runtime
// directory, then the system one where an extension run as root listens.
std::vector<std::string> defaultSocketPaths();

// A connected client, or nullptr after printing one line to stderr that says
// why no extension could be reached. `socketOption` empty means the defaults.
std::unique_ptr<kit::ExtensionControlClient> connect(const std::string& socketOption);

// "512 B", "1.2 KB", "30.4 MB" (powers of 1000).
std::string formatBytes(std::uint64_t bytes);

} // namespace control

} // namespace veltrane::app
