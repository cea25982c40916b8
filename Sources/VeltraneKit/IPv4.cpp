#include "VeltraneKit/IPv4.hpp"

#include "VeltraneKit/PlainDecimal.hpp"

namespace veltrane::kit::IPv4 {

std::optional<std::uint32_t> parse(std::string_view text) {
    std::uint32_t value = 0;
    for (int index = 0; index < 4; ++index) {
        const std::size_t dot = text.find('.');
        if ((index < 3) == (dot == std::string_view::npos)) {
            return std::nullopt; // fewer or more than four pieces
        }
        const auto octet = parsePlainDecimal(text.substr(0, dot), 255);
        if (!octet) {
            return std::nullopt;
        }
        value = (value << 8) | *octet;
        text = dot == std::string_view::npos ? std::string_view{} : text.substr(dot + 1);
    }
    return value;
}

std::string format(std::uint32_t value) {
    std::string out;
    out.reserve(15);
    for (int shift = 24; shift >= 0; shift -= 8) {
        out += std::to_string((value >> shift) & 0xFF);
        if (shift > 0) {
            out += '.';
        }
    }
    return out;
}

} // namespace veltrane::kit::IPv4
