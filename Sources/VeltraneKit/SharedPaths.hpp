#pragma once

#include <filesystem>
#include <optional>
#include <string_view>
#include <sys/types.h>

namespace veltrane::kit::SharedPaths {

inline constexpr std::string_view appGroupID = "group.com.veltrane.shared";
inline constexpr std::string_view automationMachService = "com.veltrane.automation";
inline constexpr std::string_view extensionMachService = "group.com.veltrane.shared.xpc";

// The store of the root service: one for the whole machine.
inline constexpr std::string_view systemStoreDirectory = "/var/lib/veltrane";

// The environment variable that moves the profile store anywhere, for any
// user including root: tests point it at a scratch directory, and a user may
// keep profiles on another disk or share one store between accounts.
inline constexpr std::string_view storeDirectoryVariable = "VELTRANE_STORE_DIR";

// Where the profile store lives, in this order:
//   1. $VELTRANE_STORE_DIR when set and not empty (made absolute against the
//      working directory);
//   2. for root (effective uid 0), systemStoreDirectory, so the root service
//      and root's commands share one store;
//   3. $XDG_CONFIG_HOME/veltrane when that is an absolute path;
//   4. <home>/.config/veltrane, home from $HOME or, when that is unset or
//      empty, from the user's passwd entry.
// It creates nothing. Throws std::system_error (ENOENT) for a user without
// any home directory and no override.
std::filesystem::path storeDirectory();

// The same rule over explicit inputs; nullopt stands for an unset variable.
// `passwdHome` is only called when it is needed.
struct StoreLocationInputs {
    std::optional<std::string_view> storeDirOverride;
    std::optional<std::string_view> xdgConfigHome;
    std::optional<std::string_view> home;
    uid_t effectiveUID = 0;
    std::optional<std::filesystem::path> (*passwdHome)(uid_t) = nullptr;
};
std::filesystem::path storeDirectory(const StoreLocationInputs& inputs);

} // namespace veltrane::kit::SharedPaths
