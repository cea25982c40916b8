#include "VeltraneKit/ProfileStore/Fingerprint.hpp"
#include "VeltraneKit/UnicodeText.hpp"

namespace veltrane::kit {

namespace {

// An environment's value that is absent or empty sets no condition.
bool conditionHolds(const std::optional<std::string>& wanted,
                    const std::optional<std::string>& seen, bool ignoringCase) {
    if (!wanted || wanted->empty()) {
        return true;
    }
    if (!seen) {
        return false;
    }
    return ignoringCase ? UnicodeText::equalsIgnoringCase(*wanted, *seen) : *wanted == *seen;
}

} // namespace

bool NetworkEnvironment::matches(const Fingerprint& fingerprint) const {
    using InterfaceType = Fingerprint::InterfaceType;
    if (const auto* wifi = std::get_if<Wifi>(&kind)) {
        return fingerprint.interfaceType == InterfaceType::wifi && fingerprint.ssid &&
               UnicodeText::equalsIgnoringCase(wifi->ssid, *fingerprint.ssid);
    }
    const auto& wired = std::get<Wired>(kind);
    // Addresses and prefixes are compared as the text they are written in.
    return fingerprint.interfaceType == InterfaceType::wired &&
           conditionHolds(wired.gatewayMAC, fingerprint.gatewayMAC, true) &&
           conditionHolds(wired.subnet, fingerprint.subnet, false);
}

} // namespace veltrane::kit
