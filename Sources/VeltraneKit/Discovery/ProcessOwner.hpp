#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Small operations that turn a process or an executable path into something
// to show a user. Executables inside an application bundle (a directory
// named "*.app") are shown by the bundle; all others by their file name.
namespace veltrane::kit::ProcessOwner {

// Lower-case substrings of the executables of known proxy cores, in the
// order they are tried.
inline constexpr std::array<std::string_view, 12> proxyCoreHints{
    "clash", "mihomo", "verge", "sing-box", "singbox",  "surge",
    "stash", "v2ray",  "xray",  "trojan",   "hysteria", "outline"};

// Runs the program at `program` (no PATH search) with `arguments` and gives
// its standard output, read to the end, as text; nullopt when it cannot be
// started or the output is not UTF-8. Standard error is discarded and the
// exit status is not looked at. The time the program takes is not bounded.
std::optional<std::string> run(const std::string& program,
                               const std::vector<std::string>& arguments);

// The executable of a running process (/proc/PID/exe); nullopt when the
// process is gone or not ours to look at.
std::optional<std::string> executablePath(std::int32_t pid,
                                          const std::filesystem::path& proc = "/proc");

// The nearest enclosing "*.app" directory of `executable` (itself
// included), else `executable` as given; nullopt for an empty path.
std::optional<std::string> bundleOrExecutable(std::string_view executable);

// The bundle's name without ".app", else the executable's file name;
// nullopt for an empty path.
std::optional<std::string> displayName(std::string_view executable);

// Whether the path lies under one of the system's own program directories.
bool isSystemExecutable(std::string_view path);

// The first running executable (by process id) whose lower-case path holds a
// proxy core hint and which lies inside an application bundle.
std::optional<std::string> runningProxyCorePath(const std::filesystem::path& proc = "/proc");

} // namespace veltrane::kit::ProcessOwner
