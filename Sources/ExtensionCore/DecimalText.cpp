#include "ExtensionCore/DecimalText.hpp"

#include <limits>

namespace veltrane::core {

namespace {

struct Magnitude {
    bool negative = false;
    std::uint64_t value = 0;
};

// Digits after an optional sign; nothing when the magnitude passes `limit`.
std::optional<Magnitude> parseMagnitude(std::string_view text, std::uint64_t limit) {
    Magnitude result;
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        result.negative = text.front() == '-';
        text.remove_prefix(1);
    }
    if (text.empty()) {
        return std::nullopt;
    }
    for (char c : text) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        auto digit = static_cast<std::uint64_t>(c - '0');
        if (result.value > (limit - digit) / 10) {
            return std::nullopt;
        }
        result.value = result.value * 10 + digit;
    }
    return result;
}

} // namespace

std::optional<std::uint64_t> parseUnsignedDecimal(std::string_view text, std::uint64_t maximum) {
    auto magnitude = parseMagnitude(text, maximum);
    if (!magnitude || (magnitude->negative && magnitude->value != 0)) {
        return std::nullopt;
    }
    return magnitude->value;
}

std::optional<std::int64_t> parseSignedDecimal(std::string_view text) {
    constexpr auto maxPositive =
        static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    auto magnitude = parseMagnitude(text, maxPositive + 1);
    if (!magnitude) {
        return std::nullopt;
    }
    if (!magnitude->negative) {
        if (magnitude->value > maxPositive) {
            return std::nullopt;
        }
        return static_cast<std::int64_t>(magnitude->value);
    }
    if (magnitude->value == maxPositive + 1) {
        return std::numeric_limits<std::int64_t>::min();
    }
    return -static_cast<std::int64_t>(magnitude->value);
}

} // namespace veltrane::core
