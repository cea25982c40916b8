#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace veltrane::app {

// A cgroup v2 directory named like the scope a desktop launcher makes,
// "app-veltrane-<NAME>-<PID>.scope", so that the running system knows every
// process inside as NAME, whatever its executable (static and Go programs
// alike). Removed by its owner once the last process has left.
class CommandScope {
public:
    ~CommandScope();
    CommandScope(const CommandScope&) = delete;
    CommandScope& operator=(const CommandScope&) = delete;

    // Makes the directory beside the caller's own cgroup (or, failing that,
    // at the root for root and inside the caller's own cgroup for others).
    // Where no cgroup2 hierarchy is mounted in this mount namespace, as
    // under `ip netns exec`, it is mounted in a private one first. Nothing,
    // with `whyNot` set, when it cannot be made.
    static std::unique_ptr<CommandScope> make(const std::string& name, std::string& whyNot);

    const std::string& path() const { return path_; }

    // Moves the calling process into the scope. Only async-signal-safe
    // calls: it runs between fork and exec. False (errno set) on failure.
    bool enter() const noexcept;

    // Waits until no process is left inside, then removes the directory.
    // Signals read from `signalFd` (a signalfd) meanwhile go on to every
    // process still inside. False, with `whyNot` set, when it could not be
    // removed.
    bool removeWhenEmpty(int signalFd, std::string& whyNot);

private:
    explicit CommandScope(std::string path, int procsFd);

    std::string path_;
    int procsFd_ = -1; // the scope's cgroup.procs, opened for enter()
    bool removed_ = false;
};

// NAME as one piece of a unit name: bytes other than letters, digits, ":",
// "_" and "." (and a leading ".") become "\xNN", as systemd writes them, so
// that "-" separates the scope name's parts only.
std::string escapedUnitPiece(std::string_view name);

} // namespace veltrane::app
