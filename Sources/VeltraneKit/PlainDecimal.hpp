#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace veltrane::kit {

// The one reading of numbers in patterns and addresses: the whole text as a
// decimal number not above `maximum`, an optional "+" and then ASCII digits
// only. No blanks, no other sign; leading zeros are decimal.
inline std::optional<std::uint32_t> parsePlainDecimal(std::string_view text,
                                                      std::uint32_t maximum) {
    if (!text.empty() && text.front() == '+') {
        text.remove_prefix(1);
    }
    if (text.empty()) {
        return std::nullopt;
    }
    std::uint64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        value = value * 10 + std::uint64_t(c - '0');
        if (value > maximum) {
            return std::nullopt;
        }
    }
    return std::uint32_t(value);
}

} // namespace veltrane::kit
