#include "VeltraneKit/GlobMatcher.hpp"
#include "VeltraneKit/Matchers.hpp"

#include <gtest/gtest.h>
#include <string>

using namespace veltrane::kit;

namespace {

TEST(WildcardPatternTest, MatchesAsWildcardOrLiteral) {
    struct {
        const char* pattern;
        const char* candidate;
        bool expected;
    } cases[] = {
        {"*.example.com", "a.example.com", true},
        {"*.example.com", "a.b.example.com", true}, // "*" crosses dots
        {"*.example.com", "example.com", false},
        {"*.EXAMPLE.com", "a.example.COM", true},
        {"ex?mple.com", "example.com", true},
        {"ex?mple.com", "exmple.com", false},
        {"ex?mple.com", "exaample.com", false},
        {"*", "", true},
        {"?", "", false},
        {"?", "ü", true},   // one non-ASCII character, two bytes
        {"?", "中", true},  // three bytes
        {"?", "😀", true},   // four bytes
        {"??", "ü", false}, // not one per byte
        {"a*b", "ab", true},
        {"a*b", "axxb", true},
        {"a*b", "axxbc", false},
        {"*a*a*a*a*b", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", false},
        {"*a*a*a*a*b", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaab", true},
        {"a**b", "ab", true},
        {"a.b", "aXb", false}, // "." is no regex dot
        {"[ab]", "a", false},
        {"(x)|y*", "(x)|yz", true},
        {"Safari", "safari", true},
        {"Safari", "safari2", false},
        {"", "", true},
        {"", "x", false},
        {"ÄRGER*", "ärger.de", true}, // folding beyond ASCII, with and without a wildcard
        {"ÄRGER", "ärger", true},
        {"STRASSE", "straße", false}, // full folding is not applied
        {"\xff*", "\xff\xfe", true},  // invalid bytes are units of their own
        {"?", "\xff", true},
        {"?", "\xc3", true}, // truncated sequence
        {"???", "\xe0\x80\x80", true},
        {"\xff", "\xfe", false},
        {"?", "\xed\xa0\x80", false}, // encoded surrogate is three units
    };
    for (const auto& c : cases) {
        EXPECT_EQ(WildcardPattern(c.pattern).matches(c.candidate), c.expected)
            << c.pattern << " vs " << c.candidate;
    }
}

TEST(CaseFoldingTest, FoldsSimpleMappingsOnly) {
    struct {
        char32_t from;
        char32_t to;
    } cases[] = {
        {U'A', U'a'},     {U'Z', U'z'},       {U'a', U'a'},     {U'@', U'@'},
        {U'[', U'['},     {0xC4, 0xE4},       {0xD7, 0xD7},     {0xDF, 0xDF},
        {0x100, 0x101},   {0x101, 0x101},     {0x3A3, 0x3C3},   {0x3C2, 0x3C3},
        {0x410, 0x430},   {0x1E9E, 0xDF},     {0x212A, U'k'},   {0x130, 0x130},
        {0xFF21, 0xFF41}, {0x10400, 0x10428}, {0x4E2D, 0x4E2D}, {0x10FFFF, 0x10FFFF},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(std::uint32_t(foldCase(c.from)), std::uint32_t(c.to))
            << std::hex << std::uint32_t(c.from);
    }
}

TEST(TrimBlanksTest, TrimsSpacesAndTabsNotLineEnds) {
    struct {
        const char* text;
        const char* expected;
    } cases[] = {
        {"  a b\t", "a b"},
        {"\t\t", ""},
        {"", ""},
        {"\na\n", "\na\n"},
        {"\xc2\xa0x\xe3\x80\x80", "x"},
        {"é ", "é"},
        {"\xa0", "\xa0"}, // a lone continuation byte is no blank
    };
    for (const auto& c : cases) {
        EXPECT_EQ(trimBlanks(c.text), c.expected) << c.text;
    }
}

TEST(HostPatternTest, ClassifiesText) {
    enum Kind { wildcard, cidr, range, exact };
    struct {
        const char* text;
        Kind kind;
        std::uint32_t a; // base or low
        std::uint32_t b; // mask or high
        const char* source;
    } cases[] = {
        {"10.1.2.3/8", cidr, 0x0A000000, 0xFF000000, "10.1.2.3/8"},
        {"0.0.0.0/0", cidr, 0, 0, "0.0.0.0/0"},
        {"1.2.3.4/32", cidr, 0x01020304, 0xFFFFFFFF, "1.2.3.4/32"},
        {"1.2.3.4/+24", cidr, 0x01020300, 0xFFFFFF00, "1.2.3.4/+24"},
        {"1.2.3.4/33", exact, 0, 0, "1.2.3.4/33"},
        {"1.2.3.4/", exact, 0, 0, "1.2.3.4/"},
        {"1.2.3/8", exact, 0, 0, "1.2.3/8"},
        {"10.0.0.1-10.0.0.5", range, 0x0A000001, 0x0A000005, "10.0.0.1-10.0.0.5"},
        {"10.0.0.5-10.0.0.5", range, 0x0A000005, 0x0A000005, "10.0.0.5-10.0.0.5"},
        {"10.0.0.5-10.0.0.1", exact, 0, 0, "10.0.0.5-10.0.0.1"},
        {"10.0.0.1 - 10.0.0.5", exact, 0, 0, "10.0.0.1 - 10.0.0.5"},
        {"my-host.example.com", exact, 0, 0, "my-host.example.com"},
        {"1.2.3.*", wildcard, 0, 0, "1.2.3.*"},
        {"1.2.3.4/3?", wildcard, 0, 0, "1.2.3.4/3?"},
        {"  *.example.com\t", wildcard, 0, 0, "*.example.com"},
        {"fe80::/10", exact, 0, 0, "fe80::/10"},
        {" \t", exact, 0, 0, ""},
    };
    for (const auto& c : cases) {
        const HostPattern pattern(c.text);
        EXPECT_EQ(pattern.source, c.source) << c.text;
        ASSERT_EQ(int(pattern.kind.index()), int(c.kind)) << c.text;
        if (const auto* v = std::get_if<HostPattern::CIDR>(&pattern.kind)) {
            EXPECT_EQ(v->base, c.a) << c.text;
            EXPECT_EQ(v->mask, c.b) << c.text;
        }
        if (const auto* v = std::get_if<HostPattern::Range>(&pattern.kind)) {
            EXPECT_EQ(v->low, c.a) << c.text;
            EXPECT_EQ(v->high, c.b) << c.text;
        }
        if (const auto* v = std::get_if<HostPattern::Exact>(&pattern.kind)) {
            EXPECT_EQ(v->name, c.source) << c.text;
        }
    }
}

TEST(HostPatternTest, MatchesHosts) {
    struct {
        const char* pattern;
        const char* host;
        bool expected;
    } cases[] = {
        {"10.1.2.3/8", "11.0.0.0", false},
        {"10.1.2.3/8", "10.0.0.0", true},
        {"10.1.2.3/8", "10.255.255.255", true},
        {"0.0.0.0/0", "255.255.255.255", true},
        {"0.0.0.0/0", "example.com", false},
        {"0.0.0.0/0", "", false},
        {"1.2.3.4/32", "1.2.3.4", true},
        {"1.2.3.4/32", "1.2.3.5", false},
        {"192.168.1.0/24", "192.168.1.0/24", false}, // a host is never a prefix
        {"10.0.0.1-10.0.0.5", "10.0.0.1", true},
        {"10.0.0.1-10.0.0.5", "10.0.0.5", true},
        {"10.0.0.1-10.0.0.5", "10.0.0.0", false},
        {"10.0.0.1-10.0.0.5", "10.0.0.6", false},
        {"1.2.3.*", "1.2.3.", true}, // on the text, not the address
        {"*", "", true},
        {"example.com", "EXAMPLE.com", true},
        {"example.com", "example.com.", false}, // trailing dot stays
        {"example.com", "www.example.com", false},
        {" example.com ", "example.com", true},
        {"%ComputerName%", "%computername%", true},
        {"MÜNCHEN.de", "münchen.DE", true},
        {"::1", "::1", true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(HostPattern(c.pattern).matches(c.host), c.expected)
            << c.pattern << " vs " << c.host;
        EXPECT_EQ(HostPattern(c.pattern).matches(HostCandidate(c.host)), c.expected)
            << c.pattern << " vs " << c.host;
    }
}

TEST(PortPatternTest, Parses) {
    struct {
        const char* text;
        std::optional<std::pair<int, int>> expected;
    } cases[] = {
        {"80", std::pair{80, 80}},
        {"0", std::pair{0, 0}},
        {"65535", std::pair{65535, 65535}},
        {"8000-9000", std::pair{8000, 9000}},
        {"443-443", std::pair{443, 443}},
        {" 443 ", std::pair{443, 443}},
        {"+1-+2", std::pair{1, 2}},
        {"0080", std::pair{80, 80}},
        {"9000-8000", std::nullopt},
        {"-80", std::nullopt},
        {"80-", std::nullopt},
        {"80 - 90", std::nullopt},
        {"65536", std::nullopt},
        {"1-65536", std::nullopt},
        {"99999999999999999999", std::nullopt},
        {"1-2-3", std::nullopt},
        {"", std::nullopt},
        {"++80", std::nullopt},
        {"80,443", std::nullopt},
        {"0x50", std::nullopt},
        {"８０", std::nullopt}, // full-width digits are no digits
    };
    for (const auto& c : cases) {
        const auto pattern = PortPattern::parse(c.text);
        ASSERT_EQ(pattern.has_value(), c.expected.has_value()) << "'" << c.text << "'";
        if (pattern) {
            EXPECT_EQ(pattern->low, c.expected->first) << c.text;
            EXPECT_EQ(pattern->high, c.expected->second) << c.text;
        }
    }
}

TEST(PortPatternTest, ContainsBothEnds) {
    const auto range = *PortPattern::parse("8000-9000");
    EXPECT_TRUE(range.contains(8000));
    EXPECT_TRUE(range.contains(9000));
    EXPECT_FALSE(range.contains(7999));
    EXPECT_FALSE(range.contains(9001));
}

TEST(AppPatternTest, MatchesIdentity) {
    AppIdentity full;
    full.bundleID = "com.example.App";
    full.displayName = "Example";
    full.executableName = "example-bin";
    full.responsibleBundleID = "com.parent.shell";
    full.responsibleAppName = "Parent Shell";
    full.responsibleExecutable = "parentd";
    full.appBundleName = "Example Suite";

    AppIdentity onlyResponsible;
    onlyResponsible.responsibleBundleID = "com.example.app";

    AppIdentity agent;
    agent.bundleID = "com.example.app.agent";

    AppIdentity application;
    application.bundleID = "com.example.application";

    AppIdentity emptyBundle;
    emptyBundle.bundleID = "";

    const AppIdentity none;

    struct {
        const char* pattern;
        const AppIdentity& identity;
        bool expected;
    } cases[] = {
        {"com.example.app", full, true},  // bundleID, without regard to case
        {"EXAMPLE", full, true},          // displayName
        {"example-bin", full, true},      // executableName
        {"com.parent.shell", full, true}, // responsibleBundleID
        {"parent shell", full, true},     // responsibleAppName
        {"parentd", full, true},          // responsibleExecutable
        {"Example Suite", full, true},    // appBundleName
        {"Example*", full, true},
        {"com.example", full, true},      // bundle prefix
        {"com.exam", full, false},        // prefix ends at a dot only
        {"*", none, false},               // no candidate at all
        {"com.example.app", agent, true}, // prefix step
        {"COM.EXAMPLE.APP", agent, true},
        {"com.example.app", application, false},
        {"com.example.a*", agent, true}, // wildcard on the whole text
        {"com.example.a?", agent, false},
        {"com.example.app", onlyResponsible, true}, // literal on responsibleBundleID
        {"com", onlyResponsible, false},            // prefix step reads bundleID only
        {"*", emptyBundle, true},
    };
    for (const auto& c : cases) {
        const AppPattern pattern{WildcardPattern(c.pattern)};
        EXPECT_EQ(pattern.matches(c.identity), c.expected) << c.pattern;
        EXPECT_EQ(pattern.matches(AppCandidate(c.identity)), c.expected) << c.pattern;
    }

    // com.example.a* matches in the wildcard step; prove the prefix step is
    // not what carries it by a bundle that only the prefix step would take.
    AppIdentity prefixOnly;
    prefixOnly.bundleID = "com.example.a.b";
    EXPECT_TRUE(AppPattern(WildcardPattern("com.example.a")).matches(prefixOnly));
    EXPECT_FALSE(AppPattern(WildcardPattern("com.example.?")).matches(prefixOnly));
}

} // namespace
