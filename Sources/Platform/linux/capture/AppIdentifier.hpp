#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace veltrane::platform::capture {

// The name rules know an application by, the first of: its flatpak app id,
// its snap name, the desktop app id of the systemd scope or service it was
// launched in, the file name of its executable. Empty once the process is
// gone or hidden from us. All of these are claims a user's own processes can
// make about themselves, so they choose rules, never privileges.
std::string signingIdentifier(pid_t pid);

// The app id one cgroup path names, innermost unit first: "snap.NAME.APP…"
// gives NAME; app[-<launcher>]-<ApplicationID>[@<RANDOM>|-<RANDOM>] as a
// .scope or .service gives the ApplicationID, with systemd's "\xNN" escapes
// decoded. Nothing for anything else ("session-3.scope", "user@1000.service").
std::optional<std::string> appIdFromCgroupPath(std::string_view cgroupPath);

// `name` of the [Application] group of a flatpak sandbox's /.flatpak-info.
std::optional<std::string> appIdFromFlatpakInfo(std::string_view info);

} // namespace veltrane::platform::capture
