#include "run/ExtensionProcess.hpp"

#include "Commands.hpp"
#include "Platform/RuntimePaths.hpp"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace veltrane::app {

namespace {

constexpr const char* hostService = "com.veltrane.flowhost";

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

int exitStatus(int status) {
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    return 128 + WTERMSIG(status);
}

} // namespace

std::optional<std::string> readProfileFile(const std::string& path, const char* verb) {
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

std::optional<bool> handToRunningExtension(const std::string& profile) {
    for (const auto& path : platform::RuntimePaths::socketCandidates(hostService)) {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            ::close(fd);
            continue;
        }
        const std::string line = profile + "\n";
        std::string reply;
        if (::send(fd, line.data(), line.size(), MSG_NOSIGNAL) == ssize_t(line.size())) {
            char c = 0;
            while (::recv(fd, &c, 1, 0) == 1 && c != '\n') {
                reply += c;
            }
        }
        ::close(fd);
        return reply == "ok";
    }
    return std::nullopt;
}

std::vector<std::string> extensionCommand(const ExtensionProcess::Options& options) {
    std::vector<std::string> words{extensionPath()};
    if (options.listenPort != 0) {
        words.insert(words.end(), {"--listen-port", std::to_string(options.listenPort)});
    }
    for (const auto& network : options.includeLocal) {
        words.insert(words.end(), {"--include-local", network});
    }
    for (const auto& user : options.exemptUsers) {
        words.insert(words.end(), {"--exempt-user", user});
    }
    if (options.fakeDNS) {
        words.emplace_back("--capture-dns");
    }
    return words;
}

ExtensionProcess::ExtensionProcess(Options options) : options_(std::move(options)) {}

bool ExtensionProcess::start(const std::string& profile) {
    std::lock_guard guard(mutex_);
    if (child_ > 0 || pending_ || finishedBy_) {
        return false;
    }
    // The child is forked by the thread in wait(): the parent-death signal
    // that keeps it from outliving us belongs to the forking thread.
    pending_ = profile;
    changed_.notify_all();
    return true;
}

pid_t ExtensionProcess::spawn(const std::string& profile) {
    int input[2];
    if (::pipe2(input, O_CLOEXEC) != 0) {
        std::cerr << "veltrane run: " << std::strerror(errno) << "\n";
        return -1;
    }
    auto words = extensionCommand(options_);
    const std::string program = words.front();
    std::vector<char*> argv;
    for (auto& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        // The extension must not outlive the command that runs it, however
        // that ends: it then stops cleanly and its tables go with it.
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        sigset_t none;
        sigemptyset(&none);
        ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
        ::dup2(input[0], STDIN_FILENO);
        ::execvp(program.c_str(), argv.data());
        // Only async-signal-safe calls here: another thread may hold a lock.
        const char* why = std::strerror(errno);
        for (const char* part : {"veltrane run: cannot start ", program.c_str(), ": ", why, "\n"}) {
            (void)!::write(STDERR_FILENO, part, std::strlen(part));
        }
        ::_exit(exitUnavailable);
    }
    ::close(input[0]);
    if (pid < 0) {
        std::cerr << "veltrane run: " << std::strerror(errno) << "\n";
        ::close(input[1]);
        return -1;
    }
    for (std::size_t at = 0; at < profile.size();) {
        const ssize_t n = ::write(input[1], profile.data() + at, profile.size() - at);
        if (n <= 0) {
            break;
        }
        at += static_cast<std::size_t>(n);
    }
    ::close(input[1]);
    return pid;
}

void ExtensionProcess::stop() {
    std::unique_lock lock(mutex_);
    pending_.reset();
    if (child_ <= 0) {
        return;
    }
    stopping_ = true;
    ::kill(child_, SIGTERM);
    changed_.wait(lock, [this] { return child_ <= 0; });
}

bool ExtensionProcess::hand(const std::string& profile) const {
    if (!running()) {
        return false;
    }
    return handToRunningExtension(profile).value_or(false);
}

bool ExtensionProcess::running() const {
    std::lock_guard guard(mutex_);
    return child_ > 0;
}

int ExtensionProcess::wait() {
    std::unique_lock lock(mutex_);
    for (;;) {
        if (child_ <= 0) {
            if (finishedBy_) {
                return 0;
            }
            if (!pending_) {
                changed_.wait(lock);
                continue;
            }
            const std::string profile = std::move(*pending_);
            pending_.reset();
            lock.unlock();
            const pid_t pid = spawn(profile);
            lock.lock();
            if (pid < 0) {
                return exitUnavailable;
            }
            child_ = pid;
            changed_.notify_all();
            if (finishedBy_) {
                ::kill(child_, *finishedBy_);
            }
        }
        const pid_t pid = child_;
        lock.unlock();
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        lock.lock();
        child_ = -1;
        const bool requested = stopping_;
        stopping_ = false;
        changed_.notify_all();
        if (finishedBy_ || !requested) {
            return exitStatus(status);
        }
    }
}

void ExtensionProcess::finish(int signal) {
    std::lock_guard guard(mutex_);
    finishedBy_ = signal;
    pending_.reset();
    if (child_ > 0) {
        ::kill(child_, signal);
    }
    changed_.notify_all();
}

} // namespace veltrane::app
