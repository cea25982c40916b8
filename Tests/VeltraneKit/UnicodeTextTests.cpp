#include "VeltraneKit/UnicodeText.hpp"

#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace veltrane::kit;

namespace {

std::string repaired(std::vector<std::uint8_t> bytes) {
    return UnicodeText::repairUTF8(bytes);
}

TEST(UnicodeTextTest, RepairsEachMaximalInvalidSubsequenceWithOneReplacement) {
    const std::string r = "\xEF\xBF\xBD"; // U+FFFD
    struct {
        std::vector<std::uint8_t> bytes;
        std::string text;
    } cases[] = {
        {{0xC3, 0xA9}, "\xC3\xA9"},
        {{0xE2, 0x82}, r},               // cut short: one replacement for the valid prefix
        {{0xE2, 0x82, 'x'}, r + "x"},    // the byte that broke it is read again
        {{0xC0, 0xAF}, r + r},           // overlong lead byte, lone continuation
        {{0xED, 0xA0, 0x80}, r + r + r}, // surrogate
        {{0xF4, 0x90, 0x80, 0x80}, r + r + r + r},
        {{0xF0, 0x9F, 0x98, 0x80}, "\xF0\x9F\x98\x80"},
        {{0xFF, 'a'}, r + "a"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(repaired(c.bytes), c.text);
    }
}

TEST(UnicodeTextTest, FoldsCaseBeyondASCIIAndKeepsInvalidBytes) {
    struct {
        const char* text;
        const char* folded;
    } cases[] = {
        {"Example.COM", "example.com"},
        {"ÉCOLE", "école"},
        {"МОСКВА.РФ", "москва.рф"},
        {"Ｆｕｌｌ", "ｆｕｌｌ"},
        {"a\xFF"
         "B",
         "a\xFF"
         "b"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(UnicodeText::caseFolded(c.text), c.folded) << c.text;
    }
    EXPECT_TRUE(UnicodeText::containsIgnoringCase("Mozilla Firefox", "FIREFOX"));
    EXPECT_TRUE(UnicodeText::containsIgnoringCase("anything", ""));
    EXPECT_FALSE(UnicodeText::containsIgnoringCase("fire", "firefox"));
    EXPECT_TRUE(UnicodeText::equalsIgnoringCase("Straße", "STRAßE"));
}

TEST(UnicodeTextTest, LowerCasingKeepsWhatFoldingMerges) {
    // Cherokee goes the other way: folding raises its small letters.
    struct {
        const char* text;
        const char* lower;
        const char* folded;
    } cases[] = {
        {"ς", "ς", "σ"},   {"Σ", "σ", "σ"},     {"ſ", "ſ", "s"},
        {"µ", "µ", "μ"},   {"İ", "i", "İ"},     {"ẞ", "ß", "ß"},
        {"Ꭰ", "ꭰ", "Ꭰ"}, {"ꭰ", "ꭰ", "Ꭰ"}, {"A\xFFİ", "a\xFFi", "a\xFFİ"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(UnicodeText::lowercased(c.text), c.lower) << c.text;
        EXPECT_EQ(UnicodeText::caseFolded(c.text), c.folded) << c.text;
    }
}

} // namespace
