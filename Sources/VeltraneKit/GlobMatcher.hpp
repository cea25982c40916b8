#pragma once

#include <string>
#include <string_view>

namespace veltrane::kit {

// Unicode simple case folding of one code point (itself when it has none).
char32_t foldCase(char32_t codePoint);

// Decodes UTF-8 and folds every code point. A byte that does not start a
// well-formed sequence becomes one unit of its own (0xDC00 + byte, a lone
// surrogate that no well-formed text can produce), so any bytes can be
// compared and "?" still steps over exactly one unit.
std::u32string foldedCodePoints(std::string_view utf8);
void appendFoldedCodePoints(std::string_view utf8, std::u32string& out);

// Drops blanks from both ends: tab and the Unicode space separators (the
// ASCII space, no-break space, the en/em spaces and the like), never line
// ends.
std::string_view trimBlanks(std::string_view text);

// A compiled wildcard: "*" is any run of characters, "?" exactly one
// character, everything else literal and compared without regard to case.
// Immutable once built, so it may be shared between threads.
class GlobMatcher {
public:
    explicit GlobMatcher(std::string_view pattern);

    bool matches(std::string_view candidate) const;

    std::size_t minimumLength() const { return minimumLength_; }
    // The literal character every match starts (ends) with, or 0 when the
    // pattern starts (ends) with a wildcard.
    char32_t requiredFirst() const { return isLiteral(tokens_, 0) ? tokens_.front() : 0; }
    char32_t requiredLast() const {
        return isLiteral(tokens_, tokens_.size() - 1) ? tokens_.back() : 0;
    }

    // `candidate` already passed through foldedCodePoints. Most candidates
    // of a rule set miss on length or on their first or last character, so
    // those are looked at here, inline, before the full scan.
    bool matchesFolded(std::u32string_view candidate) const {
        if (candidate.size() < minimumLength_) {
            return false;
        }
        if (!tokens_.empty() && !candidate.empty()) {
            const char32_t first = tokens_.front();
            const char32_t last = tokens_.back();
            if ((first != anyRun && first != anyOne && first != candidate.front()) ||
                (last != anyRun && last != anyOne && last != candidate.back())) {
                return false;
            }
        }
        return scan(candidate);
    }

private:
    bool scan(std::u32string_view candidate) const;
    static bool isLiteral(const std::u32string& tokens, std::size_t at) {
        return at < tokens.size() && tokens[at] != anyRun && tokens[at] != anyOne;
    }

    static constexpr char32_t anyRun = 0xFFFFFFFF;
    static constexpr char32_t anyOne = 0xFFFFFFFE;

    // Folded pattern with consecutive "*" merged.
    std::u32string tokens_;
    // Literal head before the first "*" and tail after the last one, checked
    // before any backtracking so most misses cost a couple of compares.
    std::size_t headLength_ = 0;
    std::size_t tailLength_ = 0;
    std::size_t minimumLength_ = 0;
    bool hasRun_ = false;
    // Exactly one "*": once head and tail fit, the run takes the rest.
    bool singleRun_ = false;
    // No "?" at all, so literal stretches compare as plain memory.
    bool noAnyOne_ = true;
};

} // namespace veltrane::kit
