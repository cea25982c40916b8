#pragma once

#include "VeltraneKit/AppIdentity.hpp"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace veltrane::kit {

class GlobMatcher; // compiled "*" / "?" matcher, case-insensitive

// A text with "*" (any run, dots included) and "?" (one character). Without
// either it is a literal compared without regard to case.
struct WildcardPattern {
    explicit WildcardPattern(std::string text);

    std::string source;
    // Absent when `source` holds no wildcard (or could not be compiled).
    std::shared_ptr<const GlobMatcher> regex;
    // `source` case-folded, for the literal comparison when `regex` is absent.
    std::u32string folded;
    // With a `regex`: the fewest characters a match has, and the characters
    // it must start and end with (0 when a wildcard stands there). Kept here,
    // beside the pattern, so that most misses are told without reaching the
    // compiled matcher.
    struct Hint {
        std::size_t minimumLength = 0;
        char32_t first = 0;
        char32_t last = 0;
    } hint;

    bool matches(std::string_view candidate) const;
    // `candidate` already passed through the same case folding.
    bool matchesFolded(std::u32string_view candidate) const;
};

// An identity folded once, so that every application pattern of every rule
// can be tried against it without folding the same strings again.
struct AppCandidate {
    explicit AppCandidate(const AppIdentity& identity);

    struct Field {
        std::uint32_t offset;
        std::uint32_t length;
    };
    // The present fields in matching order (bundleID, displayName,
    // executableName, responsibleBundleID, responsibleAppName,
    // responsibleExecutable, appBundleName), folded into one buffer.
    std::u32string text;
    Field present[7] = {};
    std::uint8_t count = 0;
    bool hasBundleID = false; // then present[0] is the bundleID

    std::u32string_view field(std::size_t index) const {
        return {text.data() + present[index].offset, present[index].length};
    }
};

struct AppPattern {
    explicit AppPattern(WildcardPattern pattern) : pattern(std::move(pattern)) {}

    WildcardPattern pattern;

    bool matches(const AppIdentity& identity) const;
    bool matches(const AppCandidate& candidate) const;
};

// A host folded and parsed once per flow, for the same reason.
struct HostCandidate {
    explicit HostCandidate(std::string_view host);

    std::u32string folded;
    std::optional<std::uint32_t> ipv4;
};

struct HostPattern {
    struct Wildcard {
        WildcardPattern pattern;
    };
    struct CIDR {
        std::uint32_t base;
        std::uint32_t mask;
    };
    struct Range {
        std::uint32_t low;
        std::uint32_t high;
    };
    struct Exact {
        std::string name;
        std::u32string folded; // `name` case-folded
    };
    using Kind = std::variant<Wildcard, CIDR, Range, Exact>;

    explicit HostPattern(std::string_view text);

    std::string source;
    Kind kind;

    bool matches(std::string_view host) const;
    bool matches(const HostCandidate& host) const;
};

struct PortPattern {
    std::uint16_t low;
    std::uint16_t high;

    static std::optional<PortPattern> parse(std::string_view text);
    bool contains(std::uint16_t port) const { return low <= port && port <= high; }
};

} // namespace veltrane::kit
