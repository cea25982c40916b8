#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace veltrane::kit::IPv4 {

// Dotted quad to a 32-bit value, first octet most significant. Exactly four
// non-empty decimal pieces 0..255; leading zeros are decimal, a leading "+"
// is accepted.
std::optional<std::uint32_t> parse(std::string_view text);

// The four octets in decimal, no leading zeros.
std::string format(std::uint32_t value);

} // namespace veltrane::kit::IPv4
