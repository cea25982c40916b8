#include "ExtensionCore/DNS/DNSResponder.hpp"

#include "VeltraneKit/Matchers.hpp"
#include "VeltraneKit/UnicodeText.hpp"

#include <array>
#include <climits>
#include <unistd.h>

namespace veltrane::core {

namespace {

constexpr std::size_t kHeaderSize = 12;
constexpr std::uint16_t kTypeA = 1;
constexpr std::uint16_t kClassIN = 1;

std::uint16_t readU16(std::span<const std::uint8_t> bytes, std::size_t offset) {
    return static_cast<std::uint16_t>((bytes[offset] << 8) | bytes[offset + 1]);
}

// "1.2.3.4" split on dots, empty pieces dropped, pieces that are not a
// decimal 0..255 skipped. Exactly four must remain.
std::optional<std::array<std::uint8_t, 4>> octets(std::string_view ip) {
    std::array<std::uint8_t, 4> out{};
    std::size_t found = 0;
    std::size_t start = 0;
    while (start <= ip.size()) {
        const auto dot = ip.find('.', start);
        const auto piece =
            ip.substr(start, dot == std::string_view::npos ? ip.size() - start : dot - start);
        if (!piece.empty()) {
            unsigned value = 0;
            bool ok = true; // leading zeros are decimal, as everywhere else
            std::size_t i = 0;
            if (piece[0] == '+') {
                i = 1; // a sign is part of a decimal number's text
                ok = piece.size() > 1;
            }
            for (; ok && i < piece.size(); ++i) {
                if (piece[i] < '0' || piece[i] > '9') {
                    ok = false;
                    break;
                }
                value = value * 10 + static_cast<unsigned>(piece[i] - '0');
                if (value > 255) {
                    ok = false;
                }
            }
            if (ok) {
                if (found == 4) {
                    return std::nullopt;
                }
                out[found++] = static_cast<std::uint8_t>(value);
            }
        }
        if (dot == std::string_view::npos) {
            break;
        }
        start = dot + 1;
    }
    if (found != 4) {
        return std::nullopt;
    }
    return out;
}

} // namespace

DNSResponder::DNSResponder(std::shared_ptr<kit::FakeIPAllocator> allocator,
                           std::vector<std::string> exclusions)
    : allocator(std::move(allocator)), exclusions(std::move(exclusions)) {}

DNSResponder::Outcome DNSResponder::handle(std::span<const std::uint8_t> query) const {
    auto question = parseQuestion(query);
    if (!question) {
        return Passthrough{};
    }
    if (question->qtype != kTypeA || question->qclass != kClassIN) {
        return Passthrough{question->name};
    }
    if (isExcluded(question->name) || !allocator) {
        return Passthrough{question->name};
    }
    std::string ip = allocator->ip(question->name);
    auto response = buildAResponse(query, question->questionEnd, ip, ttl);
    if (!response) {
        return Passthrough{question->name};
    }
    return Answered{std::move(*response), std::move(question->name), std::move(ip)};
}

std::optional<DNSResponder::Question>
DNSResponder::parseQuestion(std::span<const std::uint8_t> datagram) {
    if (datagram.size() <= kHeaderSize) {
        return std::nullopt;
    }
    if (readU16(datagram, 4) == 0) {
        return std::nullopt;
    }
    std::string name;
    std::size_t labels = 0;
    std::size_t i = kHeaderSize;
    while (i < datagram.size()) {
        const std::size_t length = datagram[i];
        if (length == 0) {
            ++i;
            break;
        }
        // Also rules out compression pointers, which a question does not use.
        if (length >= 64) {
            return std::nullopt;
        }
        if (i + 1 + length > datagram.size()) {
            return std::nullopt;
        }
        if (labels++ > 0) {
            name += '.';
        }
        name += kit::UnicodeText::repairUTF8(datagram.subspan(i + 1, length));
        i += length + 1;
    }
    // Also true when the walk ran off the end without a terminating zero.
    if (i + 4 > datagram.size() || labels == 0) {
        return std::nullopt;
    }
    return Question{std::move(name), readU16(datagram, i), readU16(datagram, i + 2), i + 4};
}

std::optional<DNSResponder::Bytes> DNSResponder::buildAResponse(std::span<const std::uint8_t> query,
                                                                std::size_t questionEnd,
                                                                std::string_view ip,
                                                                std::uint32_t ttl) {
    const auto address = octets(ip);
    if (!address) {
        return std::nullopt;
    }
    // The header is overwritten below, so it must be there to begin with.
    if (query.size() < questionEnd || questionEnd < kHeaderSize) {
        return std::nullopt;
    }
    Bytes out(query.begin(), query.begin() + static_cast<std::ptrdiff_t>(questionEnd));
    out[2] = 0x81; // QR, RD
    out[3] = 0x80; // RA, no error
    out[6] = 0x00;
    out[7] = 0x01; // ANCOUNT 1
    out[8] = out[9] = out[10] = out[11] = 0x00;
    const std::uint8_t answer[] = {
        0xC0,
        0x0C, // pointer to the question's name
        0x00,
        0x01, // A
        0x00,
        0x01, // IN
        static_cast<std::uint8_t>(ttl >> 24),
        static_cast<std::uint8_t>(ttl >> 16),
        static_cast<std::uint8_t>(ttl >> 8),
        static_cast<std::uint8_t>(ttl),
        0x00,
        0x04,
        (*address)[0],
        (*address)[1],
        (*address)[2],
        (*address)[3],
    };
    out.insert(out.end(), std::begin(answer), std::end(answer));
    return out;
}

bool DNSResponder::isExcluded(std::string_view host) const {
    if (host.find('.') == std::string_view::npos) {
        return true; // single-label names are never faked
    }
    for (const auto& pattern : exclusions) {
        if (pattern == computerNamePattern) {
            if (kit::UnicodeText::equalsIgnoringCase(host, computerName ? computerName() : "")) {
                return true;
            }
            continue;
        }
        if (WildcardPatternBridge::matches(pattern, host)) {
            return true;
        }
    }
    return false;
}

bool DNSResponder::WildcardPatternBridge::matches(std::string_view pattern,
                                                  std::string_view candidate) {
    if (pattern.find_first_of("*?") == std::string_view::npos) {
        return kit::UnicodeText::equalsIgnoringCase(pattern, candidate);
    }
    return kit::WildcardPattern(std::string(pattern)).matches(candidate);
}

std::string DNSResponder::currentComputerName() {
    char name[HOST_NAME_MAX + 1] = {};
    if (::gethostname(name, sizeof name - 1) != 0) {
        return {};
    }
    return name;
}

} // namespace veltrane::core
