#include "VeltraneKit/Matchers.hpp"

#include "VeltraneKit/GlobMatcher.hpp"
#include "VeltraneKit/IPv4.hpp"
#include "VeltraneKit/MatcherKernels.hpp"
#include "VeltraneKit/PlainDecimal.hpp"

namespace veltrane::kit {

namespace {

bool hasWildcard(std::string_view text) {
    return text.find_first_of("*?") != std::string_view::npos;
}

const std::optional<std::string> AppIdentity::*const identityFields[] = {
    &AppIdentity::bundleID,           &AppIdentity::displayName,
    &AppIdentity::executableName,     &AppIdentity::responsibleBundleID,
    &AppIdentity::responsibleAppName, &AppIdentity::responsibleExecutable,
    &AppIdentity::appBundleName,
};

std::optional<HostPattern::Kind> parseCIDR(std::string_view source) {
    const std::size_t slash = source.find('/');
    if (slash == std::string_view::npos) {
        return std::nullopt;
    }
    const auto address = IPv4::parse(source.substr(0, slash));
    const auto prefix = parsePlainDecimal(source.substr(slash + 1), 32);
    if (!address || !prefix) {
        return std::nullopt;
    }
    const std::uint32_t mask = *prefix == 0 ? 0 : ~std::uint32_t{0} << (32 - *prefix);
    return HostPattern::CIDR{*address & mask, mask};
}

std::optional<HostPattern::Kind> parseRange(std::string_view source) {
    const std::size_t dash = source.find('-');
    if (dash == std::string_view::npos) {
        return std::nullopt;
    }
    const auto low = IPv4::parse(source.substr(0, dash));
    const auto high = IPv4::parse(source.substr(dash + 1));
    if (!low || !high || *high < *low) {
        return std::nullopt;
    }
    return HostPattern::Range{*low, *high};
}

} // namespace

WildcardPattern::WildcardPattern(std::string text) : source(std::move(text)) {
    if (hasWildcard(source)) {
        regex = std::make_shared<const GlobMatcher>(source);
        hint = Hint{regex->minimumLength(), regex->requiredFirst(), regex->requiredLast()};
    } else {
        folded = foldedCodePoints(source);
    }
}

bool WildcardPattern::matches(std::string_view candidate) const {
    return matchesFolded(foldedCodePoints(candidate));
}

bool WildcardPattern::matchesFolded(std::u32string_view candidate) const {
    return kernels::textMatches(kernels::TextTest::of(*this), candidate);
}

AppCandidate::AppCandidate(const AppIdentity& identity) {
    for (const auto member : identityFields) {
        if (const auto& value = identity.*member) {
            const auto offset = std::uint32_t(text.size());
            appendFoldedCodePoints(*value, text);
            present[count++] = Field{offset, std::uint32_t(text.size() - offset)};
        }
    }
    hasBundleID = identity.bundleID.has_value();
}

bool AppPattern::matches(const AppIdentity& identity) const {
    return matches(AppCandidate(identity));
}

bool AppPattern::matches(const AppCandidate& candidate) const {
    return kernels::appMatches(kernels::TextTest::of(pattern), candidate);
}

HostCandidate::HostCandidate(std::string_view host)
    : folded(foldedCodePoints(host)), ipv4(IPv4::parse(host)) {}

HostPattern::HostPattern(std::string_view text) : source(trimBlanks(text)), kind(Exact{}) {
    if (auto cidr = parseCIDR(source)) {
        kind = std::move(*cidr);
    } else if (auto range = parseRange(source)) {
        kind = std::move(*range);
    } else if (hasWildcard(source)) {
        kind = Wildcard{WildcardPattern(source)};
    } else {
        kind = Exact{source, foldedCodePoints(source)};
    }
}

bool HostPattern::matches(std::string_view host) const {
    return matches(HostCandidate(host));
}

bool HostPattern::matches(const HostCandidate& host) const {
    return kernels::hostMatches(kernels::HostTest::of(*this), host);
}

std::optional<PortPattern> PortPattern::parse(std::string_view text) {
    text = trimBlanks(text);
    const std::size_t dash = text.find('-');
    if (dash == std::string_view::npos) {
        const auto port = parsePlainDecimal(text, 65535);
        if (!port) {
            return std::nullopt;
        }
        return PortPattern{std::uint16_t(*port), std::uint16_t(*port)};
    }
    const auto low = parsePlainDecimal(text.substr(0, dash), 65535);
    const auto high = parsePlainDecimal(text.substr(dash + 1), 65535);
    if (!low || !high || *high < *low) {
        return std::nullopt;
    }
    return PortPattern{std::uint16_t(*low), std::uint16_t(*high)};
}

} // namespace veltrane::kit
