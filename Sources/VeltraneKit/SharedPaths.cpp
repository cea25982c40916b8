#include "VeltraneKit/SharedPaths.hpp"

#include <cerrno>
#include <cstdlib>
#include <pwd.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace veltrane::kit::SharedPaths {

namespace {

std::optional<std::string_view> variable(std::string_view name) {
    const char* value = std::getenv(std::string(name).c_str());
    if (value == nullptr) {
        return std::nullopt;
    }
    return std::string_view(value);
}

std::optional<std::filesystem::path> homeFromPasswd(uid_t uid) {
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
    for (;;) {
        passwd entry{};
        passwd* result = nullptr;
        int rc = getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &result);
        if (rc == ERANGE && buffer.size() < (1u << 20)) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (rc != 0 || result == nullptr || result->pw_dir == nullptr || *result->pw_dir == 0) {
            return std::nullopt;
        }
        return std::filesystem::path(result->pw_dir);
    }
}

} // namespace

std::filesystem::path storeDirectory(const StoreLocationInputs& inputs) {
    if (inputs.storeDirOverride && !inputs.storeDirOverride->empty()) {
        return std::filesystem::absolute(std::filesystem::path(*inputs.storeDirOverride));
    }
    if (inputs.effectiveUID == 0) {
        return std::filesystem::path(systemStoreDirectory);
    }
    // A relative XDG_CONFIG_HOME is invalid by the XDG rules and is ignored.
    if (inputs.xdgConfigHome && !inputs.xdgConfigHome->empty() &&
        inputs.xdgConfigHome->front() == '/') {
        return std::filesystem::path(*inputs.xdgConfigHome) / "veltrane";
    }
    std::optional<std::filesystem::path> home;
    if (inputs.home && !inputs.home->empty()) {
        home = std::filesystem::path(*inputs.home);
    } else if (inputs.passwdHome != nullptr) {
        home = inputs.passwdHome(inputs.effectiveUID);
    }
    if (!home) {
        throw std::system_error(ENOENT, std::generic_category(),
                                "no home directory for the profile store; set " +
                                    std::string(storeDirectoryVariable));
    }
    return *home / ".config" / "veltrane";
}

std::filesystem::path storeDirectory() {
    return storeDirectory({.storeDirOverride = variable(storeDirectoryVariable),
                           .xdgConfigHome = variable("XDG_CONFIG_HOME"),
                           .home = variable("HOME"),
                           .effectiveUID = geteuid(),
                           .passwdHome = homeFromPasswd});
}

} // namespace veltrane::kit::SharedPaths
