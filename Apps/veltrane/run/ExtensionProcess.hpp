#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace veltrane::app {

// The extension as a child process of `veltrane run`: started with a profile
// on its standard input, handed later profiles through its host socket, and
// stopped and started again when routing is switched off and on. Only the
// thread that called wait() reaps the child; the others ask.
class ExtensionProcess {
public:
    struct Options {
        std::uint16_t listenPort = 0;
        std::vector<std::string> includeLocal;
        std::vector<std::string> exemptUsers;
        bool fakeDNS = false; // also capture the machine's DNS (--capture-dns)
    };

    explicit ExtensionProcess(Options options);

    // Has wait() start the child with `profile` (JSON text, empty for none).
    // False when one runs or is about to, or after finish().
    bool start(const std::string& profile);
    // Asks the running child to stop and waits until wait() has reaped it.
    // Routing then stays off until start(). Does nothing when none runs.
    void stop();
    // Hands the running child a new profile; true when it took it.
    bool hand(const std::string& profile) const;
    bool running() const;

    // Starts the children that start() asked for, and blocks until one ends
    // by itself or `finish` is called; gives the status for `veltrane run`
    // to exit with. A child stopped by stop() does not end the wait. Call it
    // from one thread, the one that lives as long as the command.
    int wait();
    // Ends wait() with `status`, stopping the child first (a signal).
    void finish(int signal);

private:
    pid_t spawn(const std::string& profile);

    Options options_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    pid_t child_ = -1;
    bool stopping_ = false;
    std::optional<std::string> pending_; // a start that wait() has yet to carry out
    std::optional<int> finishedBy_;
};

// The extension's command line for these options: its path, then its
// arguments.
std::vector<std::string> extensionCommand(const ExtensionProcess::Options& options);

// The profile at `path` as one line of JSON, or nothing after one line on
// stderr naming `verb`.
std::optional<std::string> readProfileFile(const std::string& path, const char* verb);

// Hands `profile` to a running extension through its host socket: true when
// it took it; nothing when no extension listens.
std::optional<bool> handToRunningExtension(const std::string& profile);

} // namespace veltrane::app
