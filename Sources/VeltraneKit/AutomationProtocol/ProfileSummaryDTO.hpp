#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace veltrane::kit {

struct Profile;

// One line of listProfilesWithReply.
struct ProfileSummaryDTO {
    std::string name;
    bool isActive = false;
    std::int64_t ruleCount = 0;
    std::int64_t proxyCount = 0;
    // Names of the profile's environments, in stored order.
    std::vector<std::string> boundEnvironments;

    ProfileSummaryDTO() = default;
    ProfileSummaryDTO(const Profile& profile, bool isActive);

    friend bool operator==(const ProfileSummaryDTO&, const ProfileSummaryDTO&) = default;
};

namespace DTOCoding {
// All five keys are required when decoding.
nlohmann::json toJSON(const ProfileSummaryDTO& summary);
std::optional<ProfileSummaryDTO> profileSummaryFromJSON(const nlohmann::json& value);
std::string encode(const std::vector<ProfileSummaryDTO>& summaries);
std::optional<std::vector<ProfileSummaryDTO>> decodeProfileSummaries(std::string_view text);
} // namespace DTOCoding

} // namespace veltrane::kit
