#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace veltrane::kit::UnicodeText {

// The bytes as UTF-8 text; every maximal invalid subsequence becomes U+FFFD,
// as a decoder that repairs rather than refuses does it.
std::string repairUTF8(std::span<const std::uint8_t> bytes);

// In both mappings below, bytes that are not valid UTF-8 pass through
// unchanged, so distinct inputs stay distinct.

// The text with every code point replaced by its Unicode simple case folding
// (the same folding the wildcard matcher uses). For matching only: it merges
// letters that differ in writing ("ς" and "σ") and turns Cherokee into capitals.
std::string caseFolded(std::string_view text);

// The text with every code point replaced by its Unicode simple lowercase
// mapping: the lower-case form of a name as it may be shown and stored. It
// keeps the letters that folding merges with others ("ς", "ſ") and lowers
// Cherokee capitals to their small letters.
std::string lowercased(std::string_view text);

// Case-insensitive comparisons over the folded texts. An empty needle is found in
// every haystack.
bool equalsIgnoringCase(std::string_view a, std::string_view b);
bool containsIgnoringCase(std::string_view haystack, std::string_view needle);

} // namespace veltrane::kit::UnicodeText
