#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace veltrane::kit::UnicodeText {

// The bytes as UTF-8 text; every maximal invalid subsequence becomes U+FFFD,
// as a decoder that repairs rather than refuses does it.
std::string repairUTF8(std::span<const std::uint8_t> bytes);

// The text with every code point replaced by its Unicode simple case folding
// (the same folding the wildcard matcher uses), which is its lower-case form
// for every script with cases but Cherokee. Bytes that are not valid UTF-8
// pass through unchanged, so distinct inputs stay distinct.
std::string lowercased(std::string_view text);

// Case-insensitive comparisons over the folded texts. An empty needle is found in
// every haystack.
bool equalsIgnoringCase(std::string_view a, std::string_view b);
bool containsIgnoringCase(std::string_view haystack, std::string_view needle);

} // namespace veltrane::kit::UnicodeText
