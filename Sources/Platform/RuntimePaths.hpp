#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

// Where the extension's sockets live: the runtime directory of whoever runs it.
namespace veltrane::platform::RuntimePaths {

// "$XDG_RUNTIME_DIR/veltrane" when that variable is set and not empty, else
// "/run/veltrane" for root, else "/tmp/veltrane-<uid>".
std::string runtimeDirectory();
std::string runtimeDirectory(std::optional<std::string_view> xdgRuntimeDir, uid_t uid);

// The directory a root extension uses when started without a user session.
inline constexpr std::string_view systemRuntimeDirectory = "/run/veltrane";

// runtimeDirectory() + "/" + serviceName.
std::string socketPath(std::string_view serviceName);

// Where a reader looks for a service, in order: its own runtime directory,
// then the system one. No duplicates.
std::vector<std::string> socketCandidates(std::string_view serviceName);

// Makes `directory` if it is missing (its parent must exist) and checks that
// an existing one is a real directory owned by this user that nobody else
// can write into. The system directory is made 0755 so that group members
// can reach a 0660 socket inside; every other one 0700. Throws
// std::system_error.
void prepareDirectory(const std::string& directory);

} // namespace veltrane::platform::RuntimePaths
