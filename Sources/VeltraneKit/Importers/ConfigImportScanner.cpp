#include "VeltraneKit/Importers/ConfigImportScanner.hpp"

#include "VeltraneKit/Importers/ImportError.hpp"
#include "VeltraneKit/Importers/PPXImportAdapter.hpp"
#include "VeltraneKit/Localize.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace veltrane::kit {

namespace {

namespace fs = std::filesystem;

std::string lowerCaseExtension(const fs::path& path) {
    std::string extension = path.extension().string();
    if (!extension.empty()) {
        extension.erase(0, 1); // the dot
    }
    std::transform(extension.begin(), extension.end(), extension.begin(), [](unsigned char c) {
        return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : char(c);
    });
    return extension;
}

bool takes(const ConfigImportAdapter& adapter, const std::string& extension) {
    const auto extensions = adapter.fileExtensions();
    return !extension.empty() &&
           std::find(extensions.begin(), extensions.end(), extension) != extensions.end();
}

[[noreturn]] void failRead(const fs::path& path, int error) {
    throw fs::filesystem_error("cannot read", path,
                               std::error_code(error, std::generic_category()));
}

std::vector<std::uint8_t> readFile(const fs::path& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        failRead(path, errno);
    }
    std::vector<std::uint8_t> bytes;
    std::uint8_t buffer[65536];
    while (true) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            const int error = errno;
            ::close(fd);
            failRead(path, error);
        }
        if (got == 0) {
            break;
        }
        bytes.insert(bytes.end(), buffer, buffer + got);
    }
    ::close(fd);
    return bytes;
}

} // namespace

ConfigImportScanner::ConfigImportScanner()
    : ConfigImportScanner({std::make_shared<const PPXImportAdapter>()}) {}

ConfigImportScanner::ConfigImportScanner(
    std::vector<std::shared_ptr<const ConfigImportAdapter>> adapters)
    : adapters_(std::move(adapters)) {}

std::vector<DiscoveredConfig> ConfigImportScanner::discover(const fs::path& home) const {
    std::vector<DiscoveredConfig> found;
    if (home.empty()) {
        return found;
    }
    for (const auto& adapter : adapters_) {
        for (const auto& searchPath : adapter->searchPaths()) {
            std::error_code error;
            fs::directory_iterator it(home / searchPath, error);
            for (; !error && it != fs::directory_iterator(); it.increment(error)) {
                const fs::path& path = it->path();
                std::error_code statusError;
                if (it->is_directory(statusError) || !takes(*adapter, lowerCaseExtension(path))) {
                    continue;
                }
                found.push_back(DiscoveredConfig{
                    UUID::random(), path, RL("同类工具配置 · %@", {path.filename().string()}),
                    adapter->adapterID()});
            }
        }
    }
    return found;
}

ImportedConfig ConfigImportScanner::parse(const DiscoveredConfig& config) const {
    const auto adapter = std::find_if(adapters_.begin(), adapters_.end(), [&](const auto& a) {
        return a->adapterID() == config.adapterID;
    });
    if (adapter == adapters_.end()) {
        throw ImportError::unrecognizedFormat();
    }
    const auto bytes = readFile(config.url);
    return (*adapter)->parse(bytes);
}

ImportedConfig ConfigImportScanner::parse(const fs::path& url) const {
    const auto bytes = readFile(url);
    const std::string extension = lowerCaseExtension(url);
    for (const auto& adapter : adapters_) {
        if (takes(*adapter, extension)) {
            return adapter->parse(bytes);
        }
    }
    throw ImportError::unrecognizedFormat();
}

fs::path ConfigImportScanner::defaultHome() {
    if (const char* home = std::getenv("HOME"); home && *home) {
        return home;
    }
    long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? std::size_t(size) : 16384);
    passwd entry{};
    passwd* result = nullptr;
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &result) == 0 && result &&
        result->pw_dir) {
        return result->pw_dir;
    }
    return {};
}

} // namespace veltrane::kit
