#include "VeltraneKit/GlobMatcher.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>

namespace veltrane::kit {

namespace {

struct FoldRun {
    char32_t first;
    char32_t last;
    std::int32_t delta;
    std::uint32_t stride;
};

constexpr FoldRun foldRuns[] = {
#include "VeltraneKit/CaseFoldingTable.inc"
};

constexpr bool runsAreSorted() {
    for (std::size_t i = 1; i < std::size(foldRuns); ++i) {
        if (foldRuns[i - 1].last >= foldRuns[i].first) {
            return false;
        }
    }
    return true;
}
static_assert(runsAreSorted(), "case folding runs must be sorted and disjoint");

constexpr char32_t escapedByte(unsigned char byte) {
    return 0xDC00 + byte;
}

bool isContinuation(unsigned char byte) {
    return (byte & 0xC0) == 0x80;
}

// Decodes one well-formed UTF-8 sequence at `p`; returns its length, or 0 when
// the bytes there are not well-formed (overlong forms and surrogates
// included).
std::size_t decodeOne(const unsigned char* p, std::size_t available, char32_t& out) {
    const unsigned char b0 = p[0];
    if (b0 < 0x80) {
        out = b0;
        return 1;
    }
    if (b0 >= 0xC2 && b0 <= 0xDF) {
        if (available < 2 || !isContinuation(p[1])) {
            return 0;
        }
        out = (char32_t(b0 & 0x1F) << 6) | (p[1] & 0x3F);
        return 2;
    }
    if (b0 >= 0xE0 && b0 <= 0xEF) {
        if (available < 3 || !isContinuation(p[1]) || !isContinuation(p[2])) {
            return 0;
        }
        if ((b0 == 0xE0 && p[1] < 0xA0) || (b0 == 0xED && p[1] > 0x9F)) {
            return 0;
        }
        out = (char32_t(b0 & 0x0F) << 12) | (char32_t(p[1] & 0x3F) << 6) | (p[2] & 0x3F);
        return 3;
    }
    if (b0 >= 0xF0 && b0 <= 0xF4) {
        if (available < 4 || !isContinuation(p[1]) || !isContinuation(p[2]) ||
            !isContinuation(p[3])) {
            return 0;
        }
        if ((b0 == 0xF0 && p[1] < 0x90) || (b0 == 0xF4 && p[1] > 0x8F)) {
            return 0;
        }
        out = (char32_t(b0 & 0x07) << 18) | (char32_t(p[1] & 0x3F) << 12) |
              (char32_t(p[2] & 0x3F) << 6) | (p[3] & 0x3F);
        return 4;
    }
    return 0;
}

bool isBlank(char32_t c) {
    return c == U'\t' || c == U' ' || c == 0x00A0 || c == 0x1680 || (c >= 0x2000 && c <= 0x200A) ||
           c == 0x202F || c == 0x205F || c == 0x3000;
}

} // namespace

std::string_view trimBlanks(std::string_view text) {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    std::size_t begin = 0;
    std::size_t end = text.size();
    while (begin < end) {
        char32_t c = 0;
        const std::size_t length = decodeOne(p + begin, end - begin, c);
        if (length == 0 || !isBlank(c)) {
            break;
        }
        begin += length;
    }
    // From the back: find where the last character starts (at most four bytes
    // back) and drop it while it is a blank.
    while (end > begin) {
        std::size_t start = end - 1;
        while (start > begin && end - start < 4 && isContinuation(p[start])) {
            --start;
        }
        char32_t c = 0;
        const std::size_t length = decodeOne(p + start, end - start, c);
        if (length != end - start || !isBlank(c)) {
            break;
        }
        end = start;
    }
    return text.substr(begin, end - begin);
}

char32_t foldCase(char32_t c) {
    if (c < 0x80) {
        return (c >= 'A' && c <= 'Z') ? c + 32 : c;
    }
    const auto* end = std::end(foldRuns);
    const auto* it = std::upper_bound(std::begin(foldRuns), end, c,
                                      [](char32_t v, const FoldRun& run) { return v < run.first; });
    if (it == std::begin(foldRuns)) {
        return c;
    }
    const FoldRun& run = *(it - 1);
    if (c > run.last || (c - run.first) % run.stride != 0) {
        return c;
    }
    return char32_t(std::int64_t(c) + run.delta);
}

void appendFoldedCodePoints(std::string_view utf8, std::u32string& out) {
    const auto* p = reinterpret_cast<const unsigned char*>(utf8.data());
    std::size_t remaining = utf8.size();
    while (remaining > 0) {
        char32_t c = 0;
        const std::size_t length = decodeOne(p, remaining, c);
        if (length == 0) {
            out.push_back(escapedByte(*p));
            ++p;
            --remaining;
            continue;
        }
        out.push_back(foldCase(c));
        p += length;
        remaining -= length;
    }
}

std::u32string foldedCodePoints(std::string_view utf8) {
    std::u32string out;
    out.reserve(utf8.size());
    appendFoldedCodePoints(utf8, out);
    return out;
}

GlobMatcher::GlobMatcher(std::string_view pattern) {
    const std::u32string folded = foldedCodePoints(pattern);
    tokens_.reserve(folded.size());
    // "*" and "?" are ASCII, so they survive folding unchanged and no
    // multi-byte sequence can contain them.
    for (char32_t c : folded) {
        if (c == U'*') {
            if (tokens_.empty() || tokens_.back() != anyRun) {
                tokens_.push_back(anyRun);
            }
            hasRun_ = true;
        } else {
            tokens_.push_back(c == U'?' ? anyOne : c);
            noAnyOne_ = noAnyOne_ && c != U'?';
            ++minimumLength_;
        }
    }
    if (hasRun_) {
        headLength_ = tokens_.find(anyRun);
        tailLength_ = tokens_.size() - 1 - tokens_.rfind(anyRun);
        singleRun_ = headLength_ + 1 + tailLength_ == tokens_.size();
    }
}

bool GlobMatcher::matches(std::string_view candidate) const {
    return matchesFolded(foldedCodePoints(candidate));
}

bool GlobMatcher::scan(std::u32string_view text) const {
    const char32_t* tokens = tokens_.data();
    const char32_t* s = text.data();
    const std::size_t n = text.size();
    const auto runMatches = [this](const char32_t* token, const char32_t* c, std::size_t count) {
        if (noAnyOne_) {
            return count == 0 || std::memcmp(token, c, count * sizeof(char32_t)) == 0;
        }
        for (std::size_t i = 0; i < count; ++i) {
            if (token[i] != c[i] && token[i] != anyOne) {
                return false;
            }
        }
        return true;
    };

    if (!hasRun_) {
        return n == tokens_.size() && runMatches(tokens, s, n);
    }
    if (n < minimumLength_ || !runMatches(tokens, s, headLength_) ||
        !runMatches(tokens + tokens_.size() - tailLength_, s + n - tailLength_, tailLength_)) {
        return false;
    }
    if (singleRun_) {
        return true;
    }

    // What is left starts and ends with "*". Greedy two-pointer scan: on a
    // mismatch only the most recent "*" needs to take one more character,
    // which keeps the work to O(pattern x text) at worst, never exponential.
    std::size_t p = headLength_;
    const std::size_t pEnd = tokens_.size() - tailLength_;
    std::size_t i = headLength_;
    const std::size_t iEnd = n - tailLength_;
    std::size_t starP = 0;
    std::size_t starI = 0;
    bool haveStar = false;
    while (i < iEnd) {
        if (p < pEnd && tokens[p] == anyRun) {
            haveStar = true;
            starP = p++;
            starI = i;
        } else if (p < pEnd && (tokens[p] == s[i] || tokens[p] == anyOne)) {
            ++p;
            ++i;
        } else if (haveStar) {
            p = starP + 1;
            i = ++starI;
        } else {
            return false;
        }
    }
    while (p < pEnd && tokens[p] == anyRun) {
        ++p;
    }
    return p == pEnd;
}

} // namespace veltrane::kit
