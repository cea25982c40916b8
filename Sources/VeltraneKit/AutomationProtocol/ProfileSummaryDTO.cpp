#include "VeltraneKit/AutomationProtocol/ProfileSummaryDTO.hpp"

#include "VeltraneKit/AutomationProtocol/DTOFields.hpp"
#include "VeltraneKit/DTOCoding.hpp"
#include "VeltraneKit/Profile.hpp"

#include <nlohmann/json.hpp>

namespace veltrane::kit {

using nlohmann::json;

ProfileSummaryDTO::ProfileSummaryDTO(const Profile& profile, bool active)
    : name(profile.name), isActive(active),
      ruleCount(static_cast<std::int64_t>(profile.rules.size())),
      proxyCount(static_cast<std::int64_t>(profile.proxies.size())) {
    for (const auto& environment : profile.environments) {
        boundEnvironments.push_back(environment.name);
    }
}

namespace DTOCoding {

json toJSON(const ProfileSummaryDTO& summary) {
    return json{{"name", summary.name},
                {"isActive", summary.isActive},
                {"ruleCount", summary.ruleCount},
                {"proxyCount", summary.proxyCount},
                {"boundEnvironments", summary.boundEnvironments}};
}

std::optional<ProfileSummaryDTO> profileSummaryFromJSON(const json& value) {
    ProfileSummaryDTO summary;
    if (!value.is_object() || !DTOFields::readString(value, "name", summary.name) ||
        !DTOFields::readBool(value, "isActive", summary.isActive) ||
        !DTOFields::readInteger(value, "ruleCount", summary.ruleCount) ||
        !DTOFields::readInteger(value, "proxyCount", summary.proxyCount) ||
        !DTOFields::readStrings(value, "boundEnvironments", summary.boundEnvironments)) {
        return std::nullopt;
    }
    return summary;
}

std::string encode(const std::vector<ProfileSummaryDTO>& summaries) {
    json array = json::array();
    for (const auto& summary : summaries) {
        array.push_back(toJSON(summary));
    }
    return encode(array);
}

std::optional<std::vector<ProfileSummaryDTO>> decodeProfileSummaries(std::string_view text) {
    return DTOFields::decodeArray<ProfileSummaryDTO>(text, &profileSummaryFromJSON);
}

} // namespace DTOCoding

} // namespace veltrane::kit
