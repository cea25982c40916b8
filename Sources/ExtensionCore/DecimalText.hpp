#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace veltrane::core {

// Whole-text decimal numbers as the protocol code reads them from untrusted
// text: an optional "+" or "-", then one or more ASCII digits and nothing
// else. Leading zeros are fine. Out of range gives nothing; "-0" is zero.
std::optional<std::uint64_t> parseUnsignedDecimal(std::string_view text, std::uint64_t maximum);
std::optional<std::int64_t> parseSignedDecimal(std::string_view text);

} // namespace veltrane::core
