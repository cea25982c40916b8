#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace veltrane::platform {

// Where the whole cgroup v2 hierarchy is mounted (/sys/fs/cgroup on most
// machines, /sys/fs/cgroup/unified on hybrid ones), found once per process;
// nothing without one. Paths from /proc/PID/cgroup append to it as they are.
const std::optional<std::string>& cgroup2Mount();

// The mount point of the whole cgroup2 hierarchy in a mountinfo text.
std::optional<std::string> cgroup2MountIn(std::string_view mountinfo);

} // namespace veltrane::platform
