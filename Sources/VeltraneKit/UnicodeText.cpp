#include "VeltraneKit/UnicodeText.hpp"

#include "VeltraneKit/GlobMatcher.hpp"

#include <algorithm>
#include <iterator>

namespace veltrane::kit::UnicodeText {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

struct CaseRun {
    char32_t first;
    char32_t last;
    std::int32_t delta;
    std::uint32_t stride;
};

constexpr CaseRun lowerRuns[] = {
#include "VeltraneKit/LowercaseTable.inc"
};

constexpr bool runsAreSorted() {
    for (std::size_t i = 1; i < std::size(lowerRuns); ++i) {
        if (lowerRuns[i - 1].last >= lowerRuns[i].first) {
            return false;
        }
    }
    return true;
}
static_assert(runsAreSorted(), "lowercase runs must be sorted and disjoint");

char32_t lowerCase(char32_t c) {
    const auto* end = std::end(lowerRuns);
    const auto* it = std::upper_bound(std::begin(lowerRuns), end, c,
                                      [](char32_t v, const CaseRun& run) { return v < run.first; });
    if (it == std::begin(lowerRuns)) {
        return c;
    }
    const CaseRun& run = *(it - 1);
    if (c > run.last || (c - run.first) % run.stride != 0) {
        return c;
    }
    return char32_t(std::int64_t(c) + run.delta);
}

// Length of the valid UTF-8 sequence at `p`, or of its longest valid prefix
// as a negative number (at least -1) when it is cut short or malformed.
int sequenceLength(const std::uint8_t* p, std::size_t available, char32_t& out) {
    const std::uint8_t b0 = p[0];
    if (b0 < 0x80) {
        out = b0;
        return 1;
    }
    int need = 0;
    std::uint8_t lo = 0x80, hi = 0xBF;
    char32_t cp = 0;
    if (b0 >= 0xC2 && b0 <= 0xDF) {
        need = 1;
        cp = b0 & 0x1F;
    } else if (b0 >= 0xE0 && b0 <= 0xEF) {
        need = 2;
        cp = b0 & 0x0F;
        if (b0 == 0xE0) {
            lo = 0xA0;
        } else if (b0 == 0xED) {
            hi = 0x9F;
        }
    } else if (b0 >= 0xF0 && b0 <= 0xF4) {
        need = 3;
        cp = b0 & 0x07;
        if (b0 == 0xF0) {
            lo = 0x90;
        } else if (b0 == 0xF4) {
            hi = 0x8F;
        }
    } else {
        return -1;
    }
    for (int i = 1; i <= need; ++i) {
        if (static_cast<std::size_t>(i) >= available) {
            return -i;
        }
        const std::uint8_t b = p[i];
        const std::uint8_t low = (i == 1) ? lo : 0x80;
        const std::uint8_t high = (i == 1) ? hi : 0xBF;
        if (b < low || b > high) {
            return -i;
        }
        cp = (cp << 6) | (b & 0x3F);
    }
    out = cp;
    return need + 1;
}

void appendUTF8(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

// ASCII takes the short way: both mappings agree there with A-Z to a-z.
template <char32_t (*map)(char32_t)>
std::string mapped(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    const auto* p = reinterpret_cast<const std::uint8_t*>(text.data());
    std::size_t i = 0;
    while (i < text.size()) {
        if (p[i] < 0x80) {
            const char c = text[i];
            out += (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c;
            ++i;
            continue;
        }
        char32_t cp = 0;
        const int n = sequenceLength(p + i, text.size() - i, cp);
        if (n > 0) {
            appendUTF8(out, map(cp));
            i += static_cast<std::size_t>(n);
        } else {
            // Not text: keep the bytes as they are so distinct inputs stay distinct.
            out.append(text.substr(i, static_cast<std::size_t>(-n)));
            i += static_cast<std::size_t>(-n);
        }
    }
    return out;
}

} // namespace

std::string repairUTF8(std::span<const std::uint8_t> bytes) {
    std::string out;
    out.reserve(bytes.size());
    std::size_t i = 0;
    while (i < bytes.size()) {
        char32_t cp = 0;
        const int n = sequenceLength(bytes.data() + i, bytes.size() - i, cp);
        if (n > 0) {
            out.append(reinterpret_cast<const char*>(bytes.data() + i),
                       static_cast<std::size_t>(n));
            i += static_cast<std::size_t>(n);
        } else {
            appendUTF8(out, kReplacement);
            i += static_cast<std::size_t>(-n);
        }
    }
    return out;
}

std::string caseFolded(std::string_view text) {
    return mapped<foldCase>(text);
}

std::string lowercased(std::string_view text) {
    return mapped<lowerCase>(text);
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return caseFolded(a) == caseFolded(b);
}

bool containsIgnoringCase(std::string_view haystack, std::string_view needle) {
    if (needle.empty()) {
        return true;
    }
    return caseFolded(haystack).find(caseFolded(needle)) != std::string::npos;
}

} // namespace veltrane::kit::UnicodeText
