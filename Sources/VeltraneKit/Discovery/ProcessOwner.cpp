#include "VeltraneKit/Discovery/ProcessOwner.hpp"

#include "VeltraneKit/Discovery/ProcTables.hpp"
#include "VeltraneKit/UnicodeText.hpp"

#include <cerrno>
#include <fcntl.h>
#include <span>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace veltrane::kit::ProcessOwner {

namespace {

bool hasAppExtension(const std::filesystem::path& path) {
    return path.extension() == ".app";
}

// The walk shared by bundleOrExecutable and displayName: from the path
// itself upwards, the first "*.app"; the path as given when none encloses it.
std::filesystem::path bundleWalk(std::string_view executable) {
    std::filesystem::path given(executable);
    std::filesystem::path current = given;
    // A trailing "/" leaves an empty last component; it names the same thing.
    while (current.has_relative_path() && current.filename().empty()) {
        current = current.parent_path();
    }
    while (true) {
        if (hasAppExtension(current)) {
            return current;
        }
        if (!current.has_relative_path() || current.parent_path() == current ||
            current.parent_path().empty()) {
            return given;
        }
        current = current.parent_path();
    }
}

} // namespace

std::optional<std::string> run(const std::string& program,
                               const std::vector<std::string>& arguments) {
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
        return std::nullopt;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::vector<std::string> argumentCopies;
    argumentCopies.push_back(program);
    argumentCopies.insert(argumentCopies.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& argument : argumentCopies) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    int spawned = ::posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[1]);
    if (spawned != 0) {
        ::close(pipeFds[0]);
        return std::nullopt;
    }
    std::string output;
    char buffer[4096];
    while (true) {
        auto count = ::read(pipeFds[0], buffer, sizeof buffer);
        if (count > 0) {
            output.append(buffer, std::size_t(count));
        } else if (count == 0 || errno != EINTR) {
            break;
        }
    }
    ::close(pipeFds[0]);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    std::span<const std::uint8_t> raw(reinterpret_cast<const std::uint8_t*>(output.data()),
                                      output.size());
    // Repair changes exactly the texts that are not valid UTF-8.
    if (UnicodeText::repairUTF8(raw) != output) {
        return std::nullopt;
    }
    return output;
}

std::optional<std::string> executablePath(std::int32_t pid, const std::filesystem::path& proc) {
    std::error_code error;
    auto target = std::filesystem::read_symlink(proc / std::to_string(pid) / "exe", error);
    if (error || target.empty()) {
        return std::nullopt;
    }
    auto path = target.string();
    // An executable replaced on disk while running (an upgrade) keeps its name.
    constexpr std::string_view deleted = " (deleted)";
    if (path.size() > deleted.size() && path.ends_with(deleted)) {
        path.resize(path.size() - deleted.size());
    }
    return path;
}

std::optional<std::string> bundleOrExecutable(std::string_view executable) {
    if (executable.empty()) {
        return std::nullopt;
    }
    return bundleWalk(executable).string();
}

std::optional<std::string> displayName(std::string_view executable) {
    if (executable.empty()) {
        return std::nullopt;
    }
    auto found = bundleWalk(executable);
    while (found.has_relative_path() && found.filename().empty()) {
        found = found.parent_path();
    }
    if (hasAppExtension(found)) {
        return found.stem().string();
    }
    return found.filename().string();
}

bool isSystemExecutable(std::string_view path) {
    for (std::string_view prefix : {"/System/", "/usr/libexec/", "/usr/sbin/", "/usr/bin/"}) {
        if (path.starts_with(prefix)) {
            return true;
        }
    }
    return false;
}

std::optional<std::string> runningProxyCorePath(const std::filesystem::path& proc) {
    for (auto pid : ProcTables::processIDs(proc)) {
        auto path = executablePath(pid, proc);
        if (!path) {
            continue;
        }
        auto lower = UnicodeText::lowercased(*path);
        bool hinted = false;
        for (auto hint : proxyCoreHints) {
            hinted = hinted || lower.find(hint) != std::string::npos;
        }
        auto bundle = bundleOrExecutable(*path);
        if (hinted && bundle && bundle->ends_with(".app")) {
            return path;
        }
    }
    return std::nullopt;
}

} // namespace veltrane::kit::ProcessOwner
