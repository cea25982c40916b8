#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace veltrane::core::ProcessLookup {

// What is known of the process that another one runs on behalf of.
struct Responsible {
    std::optional<std::string> bundleID;
    std::optional<std::string> appName;
    std::optional<std::string> executable;

    friend bool operator==(const Responsible&, const Responsible&) = default;
};

// The process id inside a flow's audit token; nothing for a short token or an
// id that is not positive.
std::optional<std::int32_t> pid(std::span<const std::uint8_t> auditToken);

// The executable a process runs, as the kernel names it; nothing once the
// process is gone or when we may not look at it.
std::optional<std::string> path(std::int32_t pid);

// CFBundleIdentifier of the innermost ".app/" bundle around an executable,
// read from the bundle's XML property list.
std::optional<std::string> bundleID(std::string_view executablePath);

// A function from a process id to the process it works for; a result below 1
// means "none known".
using ResponsiblePIDFunction = std::int32_t (*)(std::int32_t);

// On Linux the process a desktop or terminal started for an application leads
// the application's cgroup scope, and every helper it starts stays in that
// scope. The function answers with that leader, and is absent when this
// machine has no cgroup2 hierarchy. Looked up once per process; its answers
// are remembered for a short while.
ResponsiblePIDFunction responsiblePIDFn();

// Where the cgroup2 hierarchy is mounted, found once per process.
const std::optional<std::string>& cgroup2Mount();

} // namespace veltrane::core::ProcessLookup
