#pragma once

// The pattern tests themselves, inline and over small flat records, so that
// the pattern types' own `matches` and the rule engine's packed copy of its
// rules share one definition, and the engine's loop pays no call and no
// pointer chase per pattern.

#include "VeltraneKit/GlobMatcher.hpp"
#include "VeltraneKit/Matchers.hpp"

namespace veltrane::kit::kernels {

inline bool sameText(const char32_t* a, const char32_t* b, std::size_t length) {
    for (std::size_t i = 0; i < length; ++i) {
        if (a[i] != b[i]) {
            return false;
        }
    }
    return true;
}

// A wildcard test in a few words: the compiled matcher, or, without one, the
// folded literal it compares with.
struct TextTest {
    const GlobMatcher* glob = nullptr;
    WildcardPattern::Hint hint;
    const char32_t* literal = nullptr;
    std::size_t literalLength = 0;

    static TextTest of(const WildcardPattern& pattern) {
        return TextTest{pattern.regex.get(), pattern.hint, pattern.folded.data(),
                        pattern.folded.size()};
    }
};

inline bool textMatches(const TextTest& test, std::u32string_view candidate) {
    if (test.glob) {
        // Decided from the test's own fields where possible, without
        // touching the matcher's memory.
        const auto& hint = test.hint;
        return candidate.size() >= hint.minimumLength &&
               (hint.first == 0 || candidate.front() == hint.first) &&
               (hint.last == 0 || candidate.back() == hint.last) &&
               test.glob->matchesFolded(candidate);
    }
    return candidate.size() == test.literalLength &&
           sameText(candidate.data(), test.literal, test.literalLength);
}

inline bool appMatches(const TextTest& test, const AppCandidate& candidate) {
    for (std::size_t i = 0; i < candidate.count; ++i) {
        if (textMatches(test, candidate.field(i))) {
            return true;
        }
    }
    // A bare bundle identifier also covers the identifiers below it:
    // com.example.app takes in com.example.app.agent, not com.example.application.
    if (!test.glob && candidate.hasBundleID) {
        const std::u32string_view bundleID = candidate.field(0);
        return bundleID.size() > test.literalLength && bundleID[test.literalLength] == U'.' &&
               sameText(bundleID.data(), test.literal, test.literalLength);
    }
    return false;
}

struct HostTest {
    enum Kind : std::uint8_t { wildcard, cidr, range, exact };
    Kind kind = exact;
    std::uint32_t a = 0; // base or low
    std::uint32_t b = 0; // mask or high
    TextTest text;       // wildcard and exact

    static HostTest of(const HostPattern& pattern) {
        HostTest test;
        if (const auto* w = std::get_if<HostPattern::Wildcard>(&pattern.kind)) {
            test.kind = wildcard;
            test.text = TextTest::of(w->pattern);
        } else if (const auto* c = std::get_if<HostPattern::CIDR>(&pattern.kind)) {
            test.kind = cidr;
            test.a = c->base;
            test.b = c->mask;
        } else if (const auto* r = std::get_if<HostPattern::Range>(&pattern.kind)) {
            test.kind = range;
            test.a = r->low;
            test.b = r->high;
        } else {
            const auto& e = std::get<HostPattern::Exact>(pattern.kind);
            test.text.literal = e.folded.data();
            test.text.literalLength = e.folded.size();
        }
        return test;
    }
};

inline bool hostMatches(const HostTest& test, const HostCandidate& host) {
    switch (test.kind) {
    case HostTest::cidr:
        return host.ipv4 && (*host.ipv4 & test.b) == test.a;
    case HostTest::range:
        return host.ipv4 && test.a <= *host.ipv4 && *host.ipv4 <= test.b;
    default:
        return textMatches(test.text, host.folded);
    }
}

} // namespace veltrane::kit::kernels
