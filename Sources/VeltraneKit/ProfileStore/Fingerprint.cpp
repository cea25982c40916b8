#include "VeltraneKit/ProfileStore/Fingerprint.hpp"

#include "VeltraneKit/JSONText.hpp"

#include <nlohmann/json.hpp>

namespace veltrane::kit {

using Fingerprint = NetworkEnvironment::Fingerprint;
using InterfaceType = Fingerprint::InterfaceType;

std::string_view rawValue(InterfaceType value) {
    switch (value) {
    case InterfaceType::wifi:
        return "wifi";
    case InterfaceType::wired:
        return "wired";
    case InterfaceType::other:
        return "other";
    }
    return "other";
}

std::optional<InterfaceType> interfaceTypeFromRaw(std::string_view text) {
    for (auto value : {InterfaceType::wifi, InterfaceType::wired, InterfaceType::other}) {
        if (rawValue(value) == text) {
            return value;
        }
    }
    return std::nullopt;
}

nlohmann::json toJSON(const Fingerprint& fingerprint) {
    nlohmann::json value = {{"interfaceType", rawValue(fingerprint.interfaceType)}};
    if (fingerprint.ssid) {
        value["ssid"] = *fingerprint.ssid;
    }
    if (fingerprint.gatewayMAC) {
        value["gatewayMAC"] = *fingerprint.gatewayMAC;
    }
    if (fingerprint.subnet) {
        value["subnet"] = *fingerprint.subnet;
    }
    return value;
}

std::optional<Fingerprint> fingerprintFromJSON(const nlohmann::json& value) {
    if (!value.is_object()) {
        return std::nullopt;
    }
    auto type = value.find("interfaceType");
    if (type == value.end() || !type->is_string()) {
        return std::nullopt;
    }
    auto interfaceType = interfaceTypeFromRaw(type->get_ref<const std::string&>());
    if (!interfaceType) {
        return std::nullopt;
    }
    Fingerprint fingerprint;
    fingerprint.interfaceType = *interfaceType;
    bool ok = true;
    auto optionalString = [&](std::string_view key, std::optional<std::string>& into) {
        auto found = value.find(key);
        if (found == value.end() || found->is_null()) {
            return;
        }
        if (!found->is_string()) {
            ok = false;
            return;
        }
        into = found->get<std::string>();
    };
    optionalString("ssid", fingerprint.ssid);
    optionalString("gatewayMAC", fingerprint.gatewayMAC);
    optionalString("subnet", fingerprint.subnet);
    if (!ok) {
        return std::nullopt;
    }
    return fingerprint;
}

std::string encodeFingerprint(const Fingerprint& fingerprint, bool pretty) {
    return dumpEscapingSlashes(toJSON(fingerprint), pretty ? 2 : -1);
}

std::optional<Fingerprint> decodeFingerprint(std::string_view text) {
    // The parser rejects invalid UTF-8 and never throws in this form.
    auto document = nlohmann::json::parse(text.begin(), text.end(), nullptr, false);
    if (document.is_discarded()) {
        return std::nullopt;
    }
    return fingerprintFromJSON(document);
}

} // namespace veltrane::kit
