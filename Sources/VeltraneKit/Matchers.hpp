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

    bool matches(std::string_view candidate) const;
};

struct AppPattern {
    explicit AppPattern(WildcardPattern pattern) : pattern(std::move(pattern)) {}

    WildcardPattern pattern;

    bool matches(const AppIdentity& identity) const;
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
    };
    using Kind = std::variant<Wildcard, CIDR, Range, Exact>;

    explicit HostPattern(std::string_view text);

    std::string source;
    Kind kind;

    bool matches(std::string_view host) const;
};

struct PortPattern {
    std::uint16_t low;
    std::uint16_t high;

    static std::optional<PortPattern> parse(std::string_view text);
    bool contains(std::uint16_t port) const { return low <= port && port <= high; }
};

} // namespace veltrane::kit
