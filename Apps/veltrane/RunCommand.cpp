// "run" starts the extension under the Linux capture host; "reload" hands the
// running one a new profile.
#include "Commands.hpp"
#include "Platform/RuntimePaths.hpp"
#include "Platform/linux/capture/CaptureTables.hpp"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sched.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace veltrane::app {
namespace {

constexpr const char* hostService = "com.veltrane.flowhost";

struct RunOptions {
    std::string profile;
    std::string netns;
    std::uint16_t listenPort = 0;
    std::vector<std::string> includeLocal;
};

// The profile's bytes in one line, or nothing after one line on stderr.
std::optional<std::string> readProfile(const std::string& path, const char* verb) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::cerr << "veltrane " << verb << ": cannot read " << path << ": " << std::strerror(errno)
                  << "\n";
        return std::nullopt;
    }
    std::stringstream text;
    text << in.rdbuf();
    auto json = nlohmann::json::parse(text.str(), nullptr, false);
    if (json.is_discarded() || !json.is_object()) {
        std::cerr << "veltrane " << verb << ": " << path << " is not a JSON profile\n";
        return std::nullopt;
    }
    return json.dump();
}

std::string extensionPath() {
    const auto self = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    // Installed side by side; in a build tree, in the extension's folder.
    for (const auto& candidate :
         {self / "veltrane-extension", self / "../../Extension/Sources/veltrane-extension"}) {
        if (::access(candidate.c_str(), X_OK) == 0) {
            return std::filesystem::weakly_canonical(candidate).string();
        }
    }
    return "veltrane-extension"; // from PATH
}

pid_t child = -1;

void forward(int signal) {
    if (child > 0) {
        ::kill(child, signal);
    }
}

int run(const RunOptions& options) {
    if (::geteuid() != 0) {
        std::cerr << "veltrane run: capturing traffic needs root (CAP_NET_ADMIN)\n";
        return exitBadInput;
    }
    int namespaceFd = -1;
    if (!options.netns.empty()) {
        const std::string path = "/run/netns/" + options.netns;
        namespaceFd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (namespaceFd < 0) {
            std::cerr << "veltrane run: no network namespace " << options.netns << " ("
                      << std::strerror(errno) << ")\n";
            return exitBadInput;
        }
    }
    // A missing or broken profile stops nothing: the extension then lets
    // every connection go direct, and says so.
    std::string profile;
    if (!options.profile.empty()) {
        if (auto bytes = readProfile(options.profile, "run")) {
            profile = std::move(*bytes);
        } else {
            std::cerr << "veltrane run: running without a profile: every connection goes direct\n";
        }
    }

    int input[2];
    if (::pipe2(input, O_CLOEXEC) != 0) {
        std::cerr << "veltrane run: " << std::strerror(errno) << "\n";
        return exitUnavailable;
    }
    const std::string program = extensionPath();
    std::vector<std::string> words{program};
    if (options.listenPort != 0) {
        words.insert(words.end(), {"--listen-port", std::to_string(options.listenPort)});
    }
    for (const auto& network : options.includeLocal) {
        words.insert(words.end(), {"--include-local", network});
    }
    std::vector<char*> argv;
    for (auto& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    child = ::fork();
    if (child == 0) {
        if (namespaceFd >= 0 && ::setns(namespaceFd, CLONE_NEWNET) != 0) {
            std::cerr << "veltrane run: cannot enter " << options.netns << ": "
                      << std::strerror(errno) << "\n";
            ::_exit(exitBadInput);
        }
        // The extension must not outlive the command that runs it, however
        // that ends: it then stops cleanly and its tables go with it.
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        ::dup2(input[0], STDIN_FILENO);
        ::execvp(program.c_str(), argv.data());
        std::cerr << "veltrane run: cannot start " << program << ": " << std::strerror(errno)
                  << "\n";
        ::_exit(exitUnavailable);
    }
    ::close(input[0]);
    if (namespaceFd >= 0) {
        ::close(namespaceFd);
    }
    if (child < 0) {
        std::cerr << "veltrane run: " << std::strerror(errno) << "\n";
        return exitUnavailable;
    }
    struct sigaction action {};
    action.sa_handler = forward;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    for (std::size_t at = 0; at < profile.size();) {
        const ssize_t n = ::write(input[1], profile.data() + at, profile.size() - at);
        if (n <= 0) {
            break;
        }
        at += static_cast<std::size_t>(n);
    }
    ::close(input[1]);

    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    return 128 + WTERMSIG(status);
}

int reload(const std::string& profilePath) {
    const auto profile = readProfile(profilePath, "reload");
    if (!profile) {
        return exitBadInput;
    }
    for (const auto& path : platform::RuntimePaths::socketCandidates(hostService)) {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            ::close(fd);
            continue;
        }
        const std::string line = *profile + "\n";
        std::string reply;
        if (::send(fd, line.data(), line.size(), MSG_NOSIGNAL) == ssize_t(line.size())) {
            char c = 0;
            while (::recv(fd, &c, 1, 0) == 1 && c != '\n') {
                reply += c;
            }
        }
        ::close(fd);
        if (reply == "ok") {
            std::cout << "reloaded " << profilePath << "\n";
            return exitOK;
        }
        std::cerr << "veltrane reload: the extension did not take the profile\n";
        return exitUnavailable;
    }
    std::cerr << "veltrane reload: no running extension (is `veltrane run` running?)\n";
    return exitUnavailable;
}

} // namespace

void addRunCommands(CLI::App& app, CommandRunner& runner) {
    auto options = std::make_shared<RunOptions>();
    auto* runVerb = app.add_subcommand(
        "run", "Capture this machine's (or a namespace's) new connections and route them by a "
               "profile, until interrupted. Needs root.");
    runVerb->add_option("--profile", options->profile, "The profile to route by (JSON file)");
    runVerb->add_option("--netns", options->netns,
                        "Run inside this existing network namespace (ip netns) instead");
    runVerb
        ->add_option("--listen-port", options->listenPort,
                     "Receive carried connections on this port of 127.0.0.1 and ::1 "
                     "(default: a free one)")
        ->check(CLI::Range(1, 65535));
    runVerb
        ->add_option("--include-local", options->includeLocal,
                     "Also route connections to this machine's own addresses inside this "
                     "network (192.0.2.0/24, 2001:db8::/32; repeatable); they are left alone "
                     "by default")
        ->check([](const std::string& value) {
            return platform::capture::Network::parse(value)
                       ? std::string()
                       : "not an address or a network: " + value;
        });
    runVerb->callback([&runner, options] { runner = [options] { return run(*options); }; });

    auto profile = std::make_shared<std::string>();
    auto* reloadVerb = app.add_subcommand(
        "reload", "Hand the running extension a new profile; connections already carried keep "
                  "their route.");
    reloadVerb->add_option("--profile", *profile, "The profile (JSON file)")->required();
    reloadVerb->callback([&runner, profile] { runner = [profile] { return reload(*profile); }; });
}

} // namespace veltrane::app
