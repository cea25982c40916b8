#include "Platform/RuntimePaths.hpp"

#include <cerrno>
#include <cstdlib>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace veltrane::platform::RuntimePaths {

std::string runtimeDirectory() {
    const char* xdg = std::getenv("XDG_RUNTIME_DIR");
    std::optional<std::string_view> value;
    if (xdg != nullptr) {
        value = xdg;
    }
    return runtimeDirectory(value, geteuid());
}

std::string runtimeDirectory(std::optional<std::string_view> xdgRuntimeDir, uid_t uid) {
    if (xdgRuntimeDir && !xdgRuntimeDir->empty()) {
        std::string dir(*xdgRuntimeDir);
        while (dir.size() > 1 && dir.back() == '/') {
            dir.pop_back();
        }
        return dir + "/veltrane";
    }
    if (uid == 0) {
        return std::string(systemRuntimeDirectory);
    }
    return "/tmp/veltrane-" + std::to_string(uid);
}

std::string socketPath(std::string_view serviceName) {
    return runtimeDirectory() + "/" + std::string(serviceName);
}

std::vector<std::string> socketCandidates(std::string_view serviceName) {
    std::vector<std::string> candidates{socketPath(serviceName)};
    const std::string system = std::string(systemRuntimeDirectory) + "/" + std::string(serviceName);
    if (candidates.front() != system) {
        candidates.push_back(system);
    }
    return candidates;
}

void prepareDirectory(const std::string& directory) {
    const mode_t mode = directory == systemRuntimeDirectory ? 0755 : 0700;
    if (::mkdir(directory.c_str(), mode) == 0) {
        // The umask may have narrowed the mode; the directory must be
        // exactly what was asked for.
        if (::chmod(directory.c_str(), mode) != 0) {
            throw std::system_error(errno, std::generic_category(), "chmod " + directory);
        }
        return;
    }
    if (errno != EEXIST) {
        throw std::system_error(errno, std::generic_category(), "mkdir " + directory);
    }
    struct stat st {};
    if (::lstat(directory.c_str(), &st) != 0) {
        throw std::system_error(errno, std::generic_category(), "lstat " + directory);
    }
    if (!S_ISDIR(st.st_mode)) {
        throw std::system_error(ENOTDIR, std::generic_category(), directory);
    }
    // In a shared place such as /tmp another user could have made it first.
    if (st.st_uid != geteuid() || (st.st_mode & 0022) != 0) {
        throw std::system_error(EPERM, std::generic_category(),
                                directory + " belongs to another user or is writable by others");
    }
}

} // namespace veltrane::platform::RuntimePaths
