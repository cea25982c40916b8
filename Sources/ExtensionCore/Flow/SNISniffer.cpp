#include "ExtensionCore/Flow/SNISniffer.hpp"

#include <algorithm>
#include <string_view>

namespace veltrane::core::SNISniffer {

namespace {

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isValidUTF8(std::span<const std::uint8_t> bytes) {
    std::size_t i = 0;
    const std::size_t n = bytes.size();
    while (i < n) {
        const std::uint8_t b = bytes[i];
        std::size_t length = 0;
        std::uint8_t low = 0x80;
        std::uint8_t high = 0xBF;
        if (b < 0x80) {
            ++i;
            continue;
        } else if (b >= 0xC2 && b <= 0xDF) {
            length = 2;
        } else if (b >= 0xE0 && b <= 0xEF) {
            length = 3;
            if (b == 0xE0) {
                low = 0xA0;
            } else if (b == 0xED) {
                high = 0x9F;
            }
        } else if (b >= 0xF0 && b <= 0xF4) {
            length = 4;
            if (b == 0xF0) {
                low = 0x90;
            } else if (b == 0xF4) {
                high = 0x8F;
            }
        } else {
            return false;
        }
        if (n - i < length) {
            return false;
        }
        if (bytes[i + 1] < low || bytes[i + 1] > high) {
            return false;
        }
        for (std::size_t k = 2; k < length; ++k) {
            if (bytes[i + k] < 0x80 || bytes[i + k] > 0xBF) {
                return false;
            }
        }
        i += length;
    }
    return true;
}

std::size_t u16(std::span<const std::uint8_t> bytes, std::size_t at) {
    return static_cast<std::size_t>(bytes[at]) << 8 | bytes[at + 1];
}

// Decodes the code point at `at` of valid UTF-8 text; sets `length`.
char32_t decodeAt(std::string_view text, std::size_t at, std::size_t& length) {
    const auto b = static_cast<unsigned char>(text[at]);
    if (b < 0x80) {
        length = 1;
        return b;
    }
    length = b >= 0xF0 ? 4 : b >= 0xE0 ? 3 : 2;
    char32_t cp = b & (0x7F >> length);
    for (std::size_t k = 1; k < length; ++k) {
        cp = cp << 6 | (static_cast<unsigned char>(text[at + k]) & 0x3F);
    }
    return cp;
}

// Tab and the space separators (general category Zs); line ends are not
// white space here.
bool isWhitespace(char32_t cp) {
    return cp == 0x09 || cp == 0x20 || cp == 0xA0 || cp == 0x1680 ||
           (cp >= 0x2000 && cp <= 0x200A) || cp == 0x202F || cp == 0x205F || cp == 0x3000;
}

std::string_view trimWhitespace(std::string_view text) {
    std::size_t length = 0;
    while (!text.empty() && isWhitespace(decodeAt(text, 0, length))) {
        text.remove_prefix(length);
    }
    while (!text.empty()) {
        std::size_t start = text.size() - 1;
        while (start > 0 && (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80) {
            --start;
        }
        if (!isWhitespace(decodeAt(text, start, length))) {
            break;
        }
        text.remove_suffix(text.size() - start);
    }
    return text;
}

bool beginsWithHostColon(std::string_view line) {
    constexpr std::string_view host = "host:";
    if (line.size() < host.size()) {
        return false;
    }
    for (std::size_t i = 0; i < host.size(); ++i) {
        char c = line[i];
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
        if (c != host[i]) {
            return false;
        }
    }
    return true;
}

} // namespace

std::optional<std::string> tlsServerName(std::span<const std::uint8_t> bytes) {
    const std::size_t n = bytes.size();
    if (n < 5 || bytes[0] != 22) {
        return std::nullopt; // not a handshake record
    }
    if (n < 9 || bytes[5] != 1) {
        return std::nullopt; // not a ClientHello
    }
    if (n < 44) {
        return std::nullopt;
    }
    const std::size_t sessionIDLength = bytes[43];
    if (n < 46 + sessionIDLength) {
        return std::nullopt;
    }
    std::size_t p = 44 + sessionIDLength;

    p += 2 + u16(bytes, p); // cipher suites
    if (p > n) {
        return std::nullopt;
    }
    if (n <= p) {
        return std::nullopt;
    }
    p += 1 + bytes[p]; // compression methods
    if (p > n) {
        return std::nullopt;
    }
    if (n < p + 2) {
        return std::nullopt;
    }
    const std::size_t extensionsLength = u16(bytes, p);
    p += 2;
    const std::size_t limit = std::min(n, p + extensionsLength);

    while (p + 4 <= limit) {
        const std::size_t type = u16(bytes, p);
        const std::size_t end = p + 4 + u16(bytes, p + 2);
        if (end > n) {
            return std::nullopt;
        }
        if (type == 0) { // server_name
            if (p + 6 > n) {
                return std::nullopt;
            }
            const std::size_t listEnd = std::min(end, p + 6 + u16(bytes, p + 4));
            std::size_t q = p + 6;
            while (q + 3 <= listEnd) {
                const std::uint8_t nameType = bytes[q];
                const std::size_t nameEnd = q + 3 + u16(bytes, q + 1);
                if (nameEnd > n) {
                    return std::nullopt;
                }
                if (nameType == 0) { // host_name
                    auto name = bytes.subspan(q + 3, nameEnd - (q + 3));
                    if (!isValidUTF8(name)) {
                        return std::nullopt;
                    }
                    return std::string(name.begin(), name.end());
                }
                q = nameEnd;
            }
        }
        p = end;
    }
    return std::nullopt;
}

std::optional<std::string> httpHost(std::span<const std::uint8_t> bytes) {
    const auto head = bytes.first(std::min<std::size_t>(bytes.size(), 2048));
    if (!isValidUTF8(head)) {
        return std::nullopt;
    }
    std::string_view text(reinterpret_cast<const char*>(head.data()), head.size());

    std::optional<std::string_view> value;
    while (true) {
        const std::size_t lineEnd = text.find("\r\n");
        const std::string_view line = text.substr(0, lineEnd);
        if (line.empty()) {
            return std::nullopt; // the header block ended without a Host line
        }
        if (beginsWithHostColon(line)) {
            value = line.substr(5);
            break;
        }
        if (lineEnd == std::string_view::npos) {
            return std::nullopt;
        }
        text.remove_prefix(lineEnd + 2);
    }

    std::string_view host = trimWhitespace(*value);
    // A bracketed IPv6 literal has no name in it, and the text before its
    // first colon is no host: give nothing rather than "[".
    if (!host.empty() && host.front() == '[') {
        return std::nullopt;
    }
    while (!host.empty() && host.front() == ':') {
        host.remove_prefix(1);
    }
    if (host.empty()) {
        return std::nullopt;
    }
    return std::string(host.substr(0, host.find(':')));
}

} // namespace veltrane::core::SNISniffer
