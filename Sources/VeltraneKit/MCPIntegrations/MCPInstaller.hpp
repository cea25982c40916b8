#pragma once

#include "VeltraneKit/MCPIntegrations/MCPClientIntegration.hpp"
#include "VeltraneKit/MCPIntegrations/MCPHome.hpp"
#include "VeltraneKit/MCPIntegrations/MCPInstallResult.hpp"

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace veltrane::kit {

// Registers one MCP server in the configuration files of the AI clients on
// this machine, and removes it again, leaving everything else in those files
// as it was. Files are rewritten whole, pretty-printed with sorted keys, and
// replaced atomically, so a reader sees either the old text or the new one.
// Synchronous and unguarded: two installers on one file race, and the last
// rename wins.
struct MCPInstaller {
    // What a caller registers when it has no reason to register anything else:
    // the "veltrane" server, started as `veltrane mcp serve`.
    static constexpr std::string_view defaultServerName = "veltrane";
    static constexpr std::string_view defaultCommand = "veltrane";
    static std::vector<std::string> defaultArgs() { return {"mcp", "serve"}; }

    // The clients this system knows, in the order they are offered:
    // claude-desktop, claude-code, codex, opencode, cursor, windsurf.
    static const std::vector<MCPClientIntegration>& knownClients();

    std::string serverName;
    std::string command;
    std::vector<std::string> args;
    std::vector<MCPClientIntegration> integrations;

    // Nothing is defaulted: pass knownClients() for every client.
    MCPInstaller(std::string command, std::string serverName, std::vector<std::string> args,
                 std::vector<MCPClientIntegration> integrations);

    // The integrations that are present (any detect path exists, as a file or
    // a directory), in the order of `integrations`.
    std::vector<MCPClientIntegration> detected(const MCPHome& home) const;

    // The file that install works on (and uninstall, when it exists): the
    // first config path that exists, else the first one; empty when the
    // integration names none. Useful to show before installing.
    static std::filesystem::path targetPath(const MCPClientIntegration& integration,
                                            const MCPHome& home);

    // Writes {"command": command, "args": args} under the format's key and
    // serverName, replacing an entry of that name whole. Never throws: a file
    // that is there but does not read as a JSON object (or whose servers' key
    // holds something else) is left untouched, and the result says why.
    MCPInstallResult install(const MCPClientIntegration& into, const MCPHome& home) const;

    // install for each detected client, in order; one failure stops nothing.
    std::vector<MCPInstallResult> installIntoDetected(const MCPHome& home) const;

    // Removes the entry named serverName, keeping the servers' object even
    // when it ends up empty. Silent: without a file, or with one that does
    // not read, nothing is written, and a failed write leaves the old text.
    void uninstall(const MCPClientIntegration& from, const MCPHome& home) const;

    // Whether the client's file holds an entry named serverName (of any
    // content). False when there is no file or it does not read.
    bool isInstalled(const MCPClientIntegration& in, const MCPHome& home) const;

    bool operator==(const MCPInstaller&) const = default;
};

} // namespace veltrane::kit
