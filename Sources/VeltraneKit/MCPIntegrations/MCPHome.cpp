#include "VeltraneKit/MCPIntegrations/MCPHome.hpp"

#include <cstdlib>
#include <pwd.h>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace veltrane::kit {

namespace {

std::filesystem::path homeFromPasswordDatabase() {
    long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
    struct passwd entry {};
    struct passwd* found = nullptr;
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found &&
        found->pw_dir) {
        return found->pw_dir;
    }
    return "/";
}

} // namespace

MCPHome::MCPHome(std::filesystem::path home, std::filesystem::path configHome)
    : home(std::move(home)), configHome(std::move(configHome)) {}

MCPHome MCPHome::current() {
    std::filesystem::path home;
    if (const char* value = std::getenv("HOME"); value && *value) {
        home = value;
    } else {
        home = homeFromPasswordDatabase();
    }
    // The base directory convention ignores a relative XDG_CONFIG_HOME.
    std::filesystem::path config;
    if (const char* value = std::getenv("XDG_CONFIG_HOME"); value && *value == '/') {
        config = value;
    }
    return MCPHome(std::move(home), std::move(config));
}

std::filesystem::path MCPHome::resolve(std::string_view path) const {
    if (!path.empty() && path.front() == '/') {
        return std::filesystem::path(path);
    }
    constexpr std::string_view configDir = ".config";
    if (path.starts_with(configDir) &&
        (path.size() == configDir.size() || path[configDir.size()] == '/')) {
        const auto base = configHome.empty() ? home / configDir : configHome;
        const auto rest = path.substr(configDir.size());
        return rest.size() <= 1 ? base : base / rest.substr(1);
    }
    return home / path;
}

} // namespace veltrane::kit
