#include "ControlCommands.hpp"
#include "Platform/RuntimePaths.hpp"
#include "VeltraneKit/SharedPaths.hpp"

#include <cstdio>
#include <iostream>

namespace veltrane::app::control {

using kit::ExtensionControlError;

std::vector<std::string> defaultSocketPaths() {
    return platform::RuntimePaths::socketCandidates(kit::SharedPaths::extensionMachService);
}

std::unique_ptr<kit::ExtensionControlClient> connect(const std::string& socketOption) {
    const std::vector<std::string> paths =
        socketOption.empty() ? defaultSocketPaths() : std::vector<std::string>{socketOption};
    std::optional<ExtensionControlError> firstOtherError;
    for (const auto& path : paths) {
        auto client = std::make_unique<kit::ExtensionControlClient>(path);
        try {
            client->connect();
            return client;
        } catch (const ExtensionControlError& error) {
            if (error.kind() != ExtensionControlError::Kind::notRunning && !firstOtherError) {
                firstOtherError = error;
            }
        }
    }
    // A socket that is there but refuses us says more than the ones that
    // are simply absent.
    if (firstOtherError) {
        std::cerr << "veltrane: " << firstOtherError->localizedDescription() << "\n";
        return nullptr;
    }
    std::string where;
    for (std::size_t i = 0; i < paths.size(); ++i) {
        where += (i == 0 ? "" : " or ") + paths[i];
    }
    std::cerr << "veltrane: "
              << ExtensionControlError(ExtensionControlError::Kind::notRunning, where, "")
                     .localizedDescription()
              << "\n";
    return nullptr;
}

std::string formatBytes(std::uint64_t bytes) {
    static constexpr const char* units[] = {"B", "KB", "MB", "GB", "TB", "PB", "EB"};
    if (bytes < 1000) {
        return std::to_string(bytes) + " B";
    }
    double value = static_cast<double>(bytes);
    std::size_t unit = 0;
    while (value >= 999.95 && unit + 1 < std::size(units)) {
        value /= 1000.0;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.1f %s", value, units[unit]);
    return text;
}

} // namespace veltrane::app::control
