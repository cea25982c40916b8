#pragma once

#include "VeltraneKit/StatsSnapshot.hpp"

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace veltrane::kit {

// What getStatusWithReply reports.
struct StatusDTO {
    bool enabled = false;
    bool extensionInstalled = false;
    std::string activeProfile;
    // The name of the environment that the current network matches; absent
    // when there is none.
    std::optional<std::string> currentEnvironment;
    StatsSnapshot stats;
    // Whether changing operations are open to clients.
    bool automationWritesAllowed = false;

    friend bool operator==(const StatusDTO&, const StatusDTO&) = default;
};

namespace DTOCoding {
// "currentEnvironment" is left out when absent and read as absent from a
// missing key or null; every other key is required.
nlohmann::json toJSON(const StatusDTO& status);
std::optional<StatusDTO> statusFromJSON(const nlohmann::json& value);
std::string encode(const StatusDTO& status);
std::optional<StatusDTO> decodeStatus(std::string_view text);
} // namespace DTOCoding

} // namespace veltrane::kit
