#pragma once

#include <filesystem>
#include <string_view>

namespace veltrane::kit {

// Where a user's AI clients keep their files: the home directory, and the
// XDG configuration directory that stands for "~/.config". Tests and tools
// that work for another user pass their own; a bare path means that home
// with its own ".config".
struct MCPHome {
    std::filesystem::path home;
    std::filesystem::path configHome; // empty: home / ".config"

    MCPHome(std::filesystem::path home, std::filesystem::path configHome = {});

    // The calling user's: $HOME (else the password database) and
    // $XDG_CONFIG_HOME when it is set to an absolute path.
    static MCPHome current();

    // A client path as the table writes it: absolute when it begins with "/",
    // otherwise under home, with a leading ".config" component taken as the
    // configuration directory.
    std::filesystem::path resolve(std::string_view path) const;

    bool operator==(const MCPHome&) const = default;
};

} // namespace veltrane::kit
