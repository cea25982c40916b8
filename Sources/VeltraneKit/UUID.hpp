#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace veltrane::kit {

// A 128-bit identifier. Written in the canonical upper-case 8-4-4-4-12 form;
// read from any string libuuid accepts, lower case included.
struct UUID {
    std::array<std::uint8_t, 16> bytes{};

    static UUID random();
    static std::optional<UUID> parse(std::string_view text);

    std::string uuidString() const;

    friend auto operator<=>(const UUID&, const UUID&) = default;
    friend bool operator==(const UUID&, const UUID&) = default;
};

} // namespace veltrane::kit

template <>
struct std::hash<veltrane::kit::UUID> {
    std::size_t operator()(const veltrane::kit::UUID& u) const noexcept {
        std::size_t h = 1469598103934665603ull;
        for (auto b : u.bytes) {
            h = (h ^ b) * 1099511628211ull;
        }
        return h;
    }
};
