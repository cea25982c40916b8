#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <unordered_map>

namespace veltrane::platform::capture {

// The name rules know an application by, the first of: its flatpak app id,
// its snap name, the desktop app id of the systemd scope or service it was
// launched in, the file name of its executable. Empty once the process is
// gone or hidden from us. All of these are claims a user's own processes can
// make about themselves, so they choose rules, never privileges.
std::string signingIdentifier(pid_t pid);

// signingIdentifier, remembered per process and socket cgroup: a decision
// then costs one readlink instead of reading the sandbox info, the cgroup
// file and the link. An identifier that a sandbox or unit gave is the same
// for every process of that cgroup, across exec and pid reuse alike; one
// that the executable gave is checked against the link each time, as exec
// changes it. Safe to share between threads; no lock is held over /proc.
class SigningIdentifiers {
public:
    explicit SigningIdentifiers(std::size_t capacity = 4096);

    // `cgroupId` 0 (the kernel did not say): remembered while the process's
    // executable stays the same.
    std::string forProcess(pid_t pid, std::uint64_t cgroupId);

private:
    struct Key {
        pid_t pid = 0;
        std::uint64_t cgroupId = 0;
        friend bool operator==(const Key&, const Key&) = default;
    };
    struct KeyHash {
        std::size_t operator()(const Key& key) const {
            return std::hash<std::uint64_t>()(key.cgroupId * 0x9e3779b97f4a7c15ULL ^
                                              static_cast<std::uint64_t>(key.pid));
        }
    };
    struct Known {
        std::string id;
        std::string executableLink; // checked on use; empty: the cgroup pins `id`
    };

    const std::size_t capacity_;
    std::mutex mutex_;
    // Two generations, as in the socket owners' cache: entries in use
    // survive a turnover, memory stays bounded.
    std::unordered_map<Key, Known, KeyHash> recent_;
    std::unordered_map<Key, Known, KeyHash> older_;
};

// The app id one cgroup path names, innermost unit first: "snap.NAME.APP…"
// gives NAME; app[-<launcher>]-<ApplicationID>[@<RANDOM>|-<RANDOM>] as a
// .scope or .service gives the ApplicationID, with systemd's "\xNN" escapes
// decoded. Nothing for anything else ("session-3.scope", "user@1000.service").
std::optional<std::string> appIdFromCgroupPath(std::string_view cgroupPath);

// `name` of the [Application] group of a flatpak sandbox's /.flatpak-info.
std::optional<std::string> appIdFromFlatpakInfo(std::string_view info);

} // namespace veltrane::platform::capture
