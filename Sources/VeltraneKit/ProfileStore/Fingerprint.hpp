#pragma once

#include "VeltraneKit/Profile.hpp"

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace veltrane::kit {

// What the machine's current network looks like, as far as choosing a
// profile for it needs. Built by its caller (see FingerprintReader.hpp for
// this machine's) and compared against a profile's environments with
// NetworkEnvironment::matches.
struct NetworkEnvironment::Fingerprint {
    // Kind of the interface that carries the default route.
    enum class InterfaceType { wifi, wired, other };

    InterfaceType interfaceType = InterfaceType::other;
    // Name of the Wi-Fi network, as its bytes.
    std::optional<std::string> ssid;
    // Hardware address of the default gateway, e.g. "aa:bb:cc:00:11:22".
    std::optional<std::string> gatewayMAC;
    // The local subnet as text, e.g. "192.168.1.0/24"; matched as written.
    std::optional<std::string> subnet;

    friend bool operator==(const Fingerprint&, const Fingerprint&) = default;
};

// "wifi", "wired", "other", and back (nullopt for any other text).
std::string_view rawValue(NetworkEnvironment::Fingerprint::InterfaceType value);
std::optional<NetworkEnvironment::Fingerprint::InterfaceType>
interfaceTypeFromRaw(std::string_view text);

// The JSON form: keys "interfaceType" (required), "ssid", "gatewayMAC",
// "subnet" (optional: left out when absent, read as absent from a missing key
// or null). Reading is all or nothing and never throws: a missing or null
// "interfaceType", a value of the wrong type or an unknown interface type
// gives nullopt; other keys are ignored.
nlohmann::json toJSON(const NetworkEnvironment::Fingerprint& fingerprint);
std::optional<NetworkEnvironment::Fingerprint> fingerprintFromJSON(const nlohmann::json& value);

// Documents: sorted keys, "/" written as "\/"; one line unless `pretty`.
std::string encodeFingerprint(const NetworkEnvironment::Fingerprint& fingerprint,
                              bool pretty = false);
std::optional<NetworkEnvironment::Fingerprint> decodeFingerprint(std::string_view text);

} // namespace veltrane::kit
