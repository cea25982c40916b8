// "exec": runs one command so that the running system knows all its
// processes by one name, and routes that name first when asked. Works for
// every binary, static and Go programs included, because nothing is loaded
// into the command: the name comes from the cgroup scope it runs in.
#include "Commands.hpp"
#include "exec/CommandScope.hpp"
#include "mcp/AutomationConnection.hpp"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <memory>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace veltrane::app {
namespace {

struct ExecOptions {
    std::string as;
    std::string via;
    std::vector<std::string> command;
};

constexpr int forwardedSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

// What the child reports through the pipe when it cannot become the command.
struct ChildFailure {
    bool entering = false; // true: could not enter the scope; false: exec failed
    int error = 0;
};

bool usableName(const std::string& name) {
    return !name.empty() && std::none_of(name.begin(), name.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < 0x20 || byte == 0x7f;
    });
}

int statusOf(int waitStatus) {
    if (WIFEXITED(waitStatus)) {
        return WEXITSTATUS(waitStatus);
    }
    return WIFSIGNALED(waitStatus) ? 128 + WTERMSIG(waitStatus) : 1;
}

// Starts `command` inside `scope`, passes signals on until it ends, and
// gives its exit status. Signals that the terminal sent reached the command
// already (it is in our process group), so only the others are passed on.
int runInScope(CommandScope& scope, const std::vector<std::string>& command) {
    sigset_t taken;
    sigset_t previous;
    sigemptyset(&taken);
    for (int signal : forwardedSignals) {
        sigaddset(&taken, signal);
    }
    sigaddset(&taken, SIGCHLD);
    ::sigprocmask(SIG_BLOCK, &taken, &previous);
    const int signals = ::signalfd(-1, &taken, SFD_CLOEXEC);
    int report[2];
    if (signals < 0 || ::pipe2(report, O_CLOEXEC) != 0) {
        std::cerr << "veltrane exec: " << std::strerror(errno) << "\n";
        return exitUnavailable;
    }
    std::vector<char*> arguments;
    for (const auto& argument : command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);

    const pid_t child = ::fork();
    if (child == 0) {
        ::close(report[0]);
        ::sigprocmask(SIG_SETMASK, &previous, nullptr);
        ChildFailure failure;
        failure.entering = !scope.enter();
        if (!failure.entering) {
            ::execvp(arguments[0], arguments.data());
        }
        failure.error = errno;
        [[maybe_unused]] auto written = ::write(report[1], &failure, sizeof failure);
        ::_exit(failure.error == ENOENT ? 127 : 126);
    }
    ::close(report[1]);
    if (child < 0) {
        std::cerr << "veltrane exec: cannot start " << command.front() << ": "
                  << std::strerror(errno) << "\n";
        ::close(report[0]);
        return exitUnavailable;
    }
    ChildFailure failure;
    ssize_t got = 0;
    do {
        got = ::read(report[0], &failure, sizeof failure);
    } while (got < 0 && errno == EINTR);
    ::close(report[0]);

    int waitStatus = 0;
    if (got == static_cast<ssize_t>(sizeof failure)) {
        ::waitpid(child, &waitStatus, 0);
        if (failure.entering) {
            std::cerr << "veltrane exec: cannot enter " << scope.path() << ": "
                      << std::strerror(failure.error) << "\n";
        } else {
            std::cerr << "veltrane exec: " << command.front() << ": "
                      << std::strerror(failure.error) << "\n";
        }
    } else {
        for (;;) {
            signalfd_siginfo info{};
            if (::read(signals, &info, sizeof info) != sizeof info) {
                continue; // EINTR
            }
            if (info.ssi_signo == SIGCHLD) {
                if (::waitpid(child, &waitStatus, WNOHANG) == child) {
                    break;
                }
            } else if (info.ssi_code != SI_KERNEL) {
                ::kill(child, static_cast<int>(info.ssi_signo));
            }
        }
    }
    std::string whyNot;
    if (!scope.removeWhenEmpty(signals, whyNot)) {
        std::cerr << "veltrane exec: " << whyNot << "\n";
    }
    ::close(signals);
    if (got == static_cast<ssize_t>(sizeof failure)) {
        return failure.entering ? exitUnavailable : statusOf(waitStatus);
    }
    return statusOf(waitStatus);
}

int execute(const ExecOptions& options) {
    const auto& program = options.command.front();
    const std::string name =
        options.as.empty() ? program.substr(program.rfind('/') + 1) : options.as;
    if (!usableName(name)) {
        std::cerr << "veltrane exec: the name must be non-empty text without control "
                     "characters\n";
        return exitBadInput;
    }
    std::unique_ptr<kit::AutomationClient> automation;
    try {
        automation = connectAutomation("");
    } catch (const kit::AutomationClientError& error) {
        if (error.kind() == kit::AutomationClientError::Kind::notRunning) {
            std::cerr << "veltrane exec: no running system (start `veltrane run`)\n";
            return exitBadInput;
        }
        std::cerr << "veltrane exec: " << error.localizedDescription() << "\n";
        return exitUnavailable;
    }
    std::string whyNot;
    auto scope = CommandScope::make(name, whyNot);
    if (!scope) {
        // Run unnamed, the command would be routed by rules the caller did
        // not ask for.
        std::cerr << "veltrane exec: cannot give " << name << " a cgroup scope: " << whyNot << "\n";
        return exitUnavailable;
    }
    if (!options.via.empty()) {
        try {
            const auto reply = automation->setRouteWithApp(name, options.via);
            if (!reply.succeeded) {
                std::cerr << "veltrane exec: " << reply.text << "\n";
                return exitUnavailable;
            }
        } catch (const kit::AutomationClientError& error) {
            std::cerr << "veltrane exec: " << error.localizedDescription() << "\n";
            return exitUnavailable;
        }
    }
    automation.reset(); // the command has no business with our connection
    return runInScope(*scope, options.command);
}

} // namespace

void addExecCommand(CLI::App& app, CommandRunner& runner) {
    auto options = std::make_shared<ExecOptions>();
    auto* exec = app.add_subcommand(
        "exec", "Run a command that the running system knows, with every process it starts, "
                "by one name (any binary, static ones included); optionally route that name "
                "first");
    exec->add_option("--as", options->as,
                     "The name rules know the command by (default: the command's file name)");
    exec->add_option("--via", options->via,
                     "Route the name first: direct, block, proxy:NAME or interface:NAME");
    exec->add_option("CMD", options->command, "The command and its arguments, after --")
        ->required();
    exec->footer("Example: veltrane exec --as tool --via proxy:S -- curl https://example.com/\n"
                 "Exit status: the command's (128+N when signal N ended it); 2 when no "
                 "`veltrane run` is running; 1 when the route or the scope cannot be made.");
    exec->callback([options, &runner] { runner = [options] { return execute(*options); }; });
}

} // namespace veltrane::app
