#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace veltrane::platform {

// A regular file's whole contents, up to `limit` bytes (nothing past it).
// Files under /proc and the cgroup tree report no size, so this reads to the
// end. Opened without blocking, and anything but a regular file refused, so a
// FIFO or device planted where we look cannot stall the path of a flow.
// `extraFlags` adds open(2) flags (O_NOFOLLOW where another party chooses
// what lies at the path).
std::optional<std::string> readSmallFile(const std::string& path, std::size_t limit,
                                         int extraFlags = 0);

} // namespace veltrane::platform
