#pragma once

#include <string>

namespace veltrane::kit {

// How one client fared. On success `detail` is the bare name of the file that
// was written; on failure, the reason in the user's words.
struct MCPInstallResult {
    std::string id;
    std::string displayName;
    bool installed = false;
    std::string detail;

    bool operator==(const MCPInstallResult&) const = default;
};

} // namespace veltrane::kit
