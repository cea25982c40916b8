#include "VeltraneKit/AutomationProtocol/StatusDTO.hpp"

#include "VeltraneKit/AutomationProtocol/DTOFields.hpp"
#include "VeltraneKit/DTOCoding.hpp"

#include <nlohmann/json.hpp>

namespace veltrane::kit::DTOCoding {

using nlohmann::json;

json toJSON(const StatusDTO& status) {
    json object{{"enabled", status.enabled},
                {"extensionInstalled", status.extensionInstalled},
                {"activeProfile", status.activeProfile},
                {"stats", toJSON(status.stats)},
                {"automationWritesAllowed", status.automationWritesAllowed}};
    if (status.currentEnvironment) {
        object["currentEnvironment"] = *status.currentEnvironment;
    }
    return object;
}

std::optional<StatusDTO> statusFromJSON(const json& value) {
    StatusDTO status;
    if (!value.is_object() || !DTOFields::readBool(value, "enabled", status.enabled) ||
        !DTOFields::readBool(value, "extensionInstalled", status.extensionInstalled) ||
        !DTOFields::readString(value, "activeProfile", status.activeProfile) ||
        !DTOFields::readBool(value, "automationWritesAllowed", status.automationWritesAllowed)) {
        return std::nullopt;
    }
    if (auto it = value.find("currentEnvironment"); it != value.end() && !it->is_null()) {
        if (!it->is_string()) {
            return std::nullopt;
        }
        status.currentEnvironment = it->get<std::string>();
    }
    auto stats = value.find("stats");
    if (stats == value.end()) {
        return std::nullopt;
    }
    auto snapshot = statsFromJSON(*stats);
    if (!snapshot) {
        return std::nullopt;
    }
    status.stats = std::move(*snapshot);
    return status;
}

std::string encode(const StatusDTO& status) {
    return encode(toJSON(status));
}

std::optional<StatusDTO> decodeStatus(std::string_view text) {
    auto value = parse(text);
    return value ? statusFromJSON(*value) : std::nullopt;
}

} // namespace veltrane::kit::DTOCoding
