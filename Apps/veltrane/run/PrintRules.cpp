#include "run/PrintRules.hpp"

#include "Commands.hpp"
#include "Platform/linux/capture/LinuxFlowHost.hpp"
#include "run/NetworkNamespace.hpp"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <net/if.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sched.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace veltrane::app {

namespace {

// The standard output of a program run to its end; nothing when it fails.
std::optional<std::string> output(std::vector<std::string> words) {
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) {
        return std::nullopt;
    }
    std::vector<char*> argv;
    for (auto& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(out[1], STDOUT_FILENO);
        // nft's notes on other tools' tables are not the rules.
        const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        ::dup2(null, STDERR_FILENO);
        ::execvp(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(out[1]);
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = ::read(out[0], buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(out[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (pid < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return std::nullopt;
    }
    return text;
}

// In the scratch namespace: starts the extension, waits until it captures,
// reads back what it installed, stops it. Runs in a child process.
int showInstalled(const ExtensionProcess::Options& options, const std::string& profile, bool json) {
    bool wasDown = false;
    if (::unshare(CLONE_NEWNET) != 0 || !bringLoopbackUp(wasDown)) {
        std::cerr << "veltrane run: cannot make a network namespace to show the rules in: "
                  << std::strerror(errno) << "\n";
        return exitUnavailable;
    }
    int input[2];
    int log[2];
    if (::pipe2(input, O_CLOEXEC) != 0 || ::pipe2(log, O_CLOEXEC) != 0) {
        return exitUnavailable;
    }
    auto words = extensionCommand(options);
    std::vector<char*> argv;
    for (auto& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    const pid_t extension = ::fork();
    if (extension == 0) {
        ::dup2(input[0], STDIN_FILENO);
        ::dup2(log[1], STDERR_FILENO);
        ::execvp(argv[0], argv.data());
        ::_exit(exitUnavailable);
    }
    ::close(input[0]);
    ::close(log[1]);
    (void)!::write(input[1], profile.data(), profile.size());
    ::close(input[1]);
    std::string said;
    bool capturing = false;
    char buffer[4096];
    while (!capturing) {
        pollfd ready{log[0], POLLIN, 0};
        if (::poll(&ready, 1, 10000) <= 0) {
            break;
        }
        const ssize_t n = ::read(log[0], buffer, sizeof buffer);
        if (n <= 0) {
            break;
        }
        said.append(buffer, static_cast<std::size_t>(n));
        capturing = said.find("capture running") != std::string::npos;
    }
    int status = exitUnavailable;
    if (capturing) {
        const auto table = output({"nft", json ? "-j" : "-s", "list", "ruleset"});
        const auto rules = output({"ip", json ? "-j" : "-d", "rule", "show"});
        const auto routes = output({"ip", json ? "-j" : "-d", "route", "show", "table", "all"});
        if (table && rules && routes) {
            const platform::capture::LinuxFlowHost::Options defaults;
            char marks[160];
            std::snprintf(
                marks, sizeof marks, "mask 0x%08x: bypass 0x%08x, carry 0x%08x, refuse 0x%08x",
                defaults.markMask, defaults.bypassMark, defaults.carryMark, defaults.refuseMark);
            if (json) {
                auto ruleset = nlohmann::json::parse(*table, nullptr, false);
                nlohmann::json shown = {
                    {"nftables", ruleset.is_object() && ruleset.contains("nftables")
                                     ? ruleset["nftables"]
                                     : nlohmann::json::array()},
                    {"rules", nlohmann::json::parse(*rules, nullptr, false)},
                    {"routes", nlohmann::json::parse(*routes, nullptr, false)},
                    {"marks", marks}};
                std::cout << shown.dump(2) << "\n";
            } else {
                std::cout << "# netfilter (nft list ruleset)\n"
                          << *table << "\n# policy routing (ip rule show)\n"
                          << *rules << "\n# routes (ip route show table all)\n"
                          << *routes << "\n# marks\n"
                          << marks << "\n";
                if (options.listenPort == 0) {
                    std::cout << "# the listener port above is a free port, chosen anew at "
                                 "each start (--listen-port fixes it); so is the transparent "
                                 "UDP port\n";
                }
            }
            status = exitOK;
        } else {
            std::cerr << "veltrane run: cannot read the rules back (are nft and ip installed?)\n";
        }
    } else {
        std::cerr << "veltrane run: the extension did not start capturing:\n" << said;
    }
    ::kill(extension, SIGTERM);
    ::close(log[0]);
    ::waitpid(extension, nullptr, 0);
    return status;
}

} // namespace

int printRules(const ExtensionProcess::Options& options, const std::string& profile, bool json) {
    // Sockets of its own, beside any running instance's.
    char scratch[] = "/tmp/veltrane-rules-XXXXXX";
    if (::mkdtemp(scratch) == nullptr) {
        std::cerr << "veltrane run: " << std::strerror(errno) << "\n";
        return exitUnavailable;
    }
    std::cout.flush();
    const pid_t child = ::fork();
    if (child == 0) {
        ::setenv("XDG_RUNTIME_DIR", scratch, 1);
        const int status = showInstalled(options, profile, json);
        std::cout.flush();
        ::_exit(status);
    }
    int status = 0;
    while (child > 0 && ::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    std::error_code ignored;
    std::filesystem::remove_all(scratch, ignored);
    return child > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : exitUnavailable;
}

} // namespace veltrane::app
