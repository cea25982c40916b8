#pragma once

#include <optional>
#include <string>

namespace veltrane::kit {

// What is known of the application that owns a flow; rules match against it.
// Not part of any file format.
struct AppIdentity {
    std::optional<std::string> bundleID{};
    std::optional<std::string> displayName{};
    std::optional<std::string> executableName{};
    std::optional<std::string> responsibleBundleID{};
    std::optional<std::string> responsibleAppName{};
    std::optional<std::string> responsibleExecutable{};
    std::optional<std::string> appBundleName{};

    // First present of displayName, executableName, bundleID; an empty string
    // counts as present. "unknown" when all three are absent.
    std::string bestDescription() const;

    friend bool operator==(const AppIdentity&, const AppIdentity&) = default;
};

} // namespace veltrane::kit
