#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace veltrane::platform {

using Bytes = std::vector<std::uint8_t>; // the same alias as in NWConnection.hpp

// A value of the provider's configuration or start options: bytes or text.
// Readers that want bytes take only bytes: text under the same key is a
// different value, not a convertible one.
using ProviderValue = std::variant<Bytes, std::string>;
using ProviderDictionary = std::map<std::string, ProviderValue>;

// The configuration the host keeps for the provider.
struct NETunnelProviderProtocol {
    std::optional<ProviderDictionary> providerConfiguration;

    friend bool operator==(const NETunnelProviderProtocol&,
                           const NETunnelProviderProtocol&) = default;
};

// The bytes under `key`, or nothing when the key is missing or holds text.
inline std::optional<Bytes> providerBytes(const std::optional<ProviderDictionary>& dictionary,
                                          const std::string& key) {
    if (!dictionary) {
        return std::nullopt;
    }
    auto found = dictionary->find(key);
    if (found == dictionary->end()) {
        return std::nullopt;
    }
    if (const auto* bytes = std::get_if<Bytes>(&found->second)) {
        return *bytes;
    }
    return std::nullopt;
}

} // namespace veltrane::platform
