#include "VeltraneKit/IPv4.hpp"

namespace veltrane::kit::IPv4 {

namespace {

// A plain decimal piece: an optional "+", then one or more ASCII digits,
// nothing else. Leading zeros are decimal.
std::optional<std::uint32_t> parseOctet(std::string_view piece) {
    if (!piece.empty() && piece.front() == '+') {
        piece.remove_prefix(1);
    }
    if (piece.empty()) {
        return std::nullopt;
    }
    std::uint32_t value = 0;
    for (char c : piece) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        value = value * 10 + std::uint32_t(c - '0');
        if (value > 255) {
            return std::nullopt;
        }
    }
    return value;
}

} // namespace

std::optional<std::uint32_t> parse(std::string_view text) {
    std::uint32_t value = 0;
    for (int index = 0; index < 4; ++index) {
        const std::size_t dot = text.find('.');
        if ((index < 3) == (dot == std::string_view::npos)) {
            return std::nullopt; // fewer or more than four pieces
        }
        const auto octet = parseOctet(text.substr(0, dot));
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
