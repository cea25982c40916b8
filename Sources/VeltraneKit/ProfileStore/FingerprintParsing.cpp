#include "VeltraneKit/IPv4.hpp"
#include "VeltraneKit/ProfileStore/FingerprintReader.hpp"

#include <arpa/inet.h>
#include <charconv>
#include <vector>

namespace veltrane::kit::FingerprintParsing {

namespace {

constexpr unsigned routeUp = 0x0001;        // RTF_UP
constexpr unsigned routeGateway = 0x0002;   // RTF_GATEWAY
constexpr unsigned routeReject = 0x0200;    // RTF_REJECT
constexpr unsigned neighbourComplete = 0x2; // ATF_COM

std::vector<std::string_view> fields(std::string_view line) {
    std::vector<std::string_view> out;
    std::size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r')) {
            ++i;
        }
        std::size_t start = i;
        while (i < line.size() && line[i] != ' ' && line[i] != '\t' && line[i] != '\r') {
            ++i;
        }
        if (i > start) {
            out.push_back(line.substr(start, i - start));
        }
    }
    return out;
}

template <class Visit>
void eachLine(std::string_view text, Visit visit) {
    while (!text.empty()) {
        auto end = text.find('\n');
        visit(text.substr(0, end));
        if (end == std::string_view::npos) {
            break;
        }
        text.remove_prefix(end + 1);
    }
}

template <class Int>
std::optional<Int> number(std::string_view text, int base) {
    if (base == 16 && text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        text.remove_prefix(2);
    }
    Int value{};
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc() || end != text.data() + text.size() || text.empty()) {
        return std::nullopt;
    }
    return value;
}

// The kernel prints each address as the hexadecimal of its network-order
// bytes read as a host integer.
std::optional<std::uint32_t> routeAddress(std::string_view text) {
    auto value = number<std::uint32_t>(text, 16);
    if (!value) {
        return std::nullopt;
    }
    return ntohl(*value);
}

bool usableInterfaceName(std::string_view name) {
    return !name.empty() && name != "*" && name != "." && name != ".." &&
           name.find('/') == std::string_view::npos;
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

} // namespace

std::optional<DefaultRoute> defaultRoute(std::string_view procNetRoute) {
    std::optional<DefaultRoute> best;
    std::uint32_t bestMetric = 0;
    bool header = true;
    eachLine(procNetRoute, [&](std::string_view line) {
        if (header) {
            header = false;
            return;
        }
        auto f = fields(line);
        if (f.size() < 8 || !usableInterfaceName(f[0])) {
            return;
        }
        auto destination = routeAddress(f[1]);
        auto gateway = routeAddress(f[2]);
        auto flags = number<unsigned>(f[3], 16);
        auto metric = number<std::uint32_t>(f[6], 10);
        auto mask = routeAddress(f[7]);
        if (!destination || !gateway || !flags || !metric || !mask || *destination != 0 ||
            *mask != 0 || (*flags & routeUp) == 0 || (*flags & routeReject) != 0) {
            return;
        }
        if (best && *metric >= bestMetric) {
            return;
        }
        best = DefaultRoute{std::string(f[0]), std::nullopt};
        if ((*flags & routeGateway) != 0 && *gateway != 0) {
            best->gateway = *gateway;
        }
        bestMetric = *metric;
    });
    return best;
}

std::optional<std::string> neighbourMAC(std::string_view procNetArp, std::uint32_t address,
                                        std::string_view interface) {
    std::optional<std::string> found;
    bool header = true;
    eachLine(procNetArp, [&](std::string_view line) {
        if (header) {
            header = false;
            return;
        }
        auto f = fields(line);
        if (found || f.size() < 6 || f[5] != interface || IPv4::parse(f[0]) != address) {
            return;
        }
        auto flags = number<unsigned>(f[2], 16);
        if (!flags || (*flags & neighbourComplete) == 0 || f[3] == "00:00:00:00:00:00") {
            return;
        }
        found = std::string(f[3]);
    });
    return found;
}

std::optional<std::string> iwLinkSSID(std::string_view output) {
    std::optional<std::string> found;
    eachLine(output, [&](std::string_view line) {
        auto start = line.find_first_not_of(" \t");
        if (found || start == std::string_view::npos) {
            return;
        }
        line.remove_prefix(start);
        constexpr std::string_view key = "SSID: ";
        if (line.substr(0, key.size()) != key) {
            return;
        }
        line.remove_prefix(key.size());
        if (!line.empty() && line.back() == '\r') {
            line.remove_suffix(1);
        }
        // iw writes unprintable bytes, a backslash and spaces at either end as
        // \xNN; everything else is the SSID's own bytes.
        std::string ssid;
        for (std::size_t i = 0; i < line.size(); ++i) {
            if (line[i] == '\\' && i + 3 < line.size() && line[i + 1] == 'x' &&
                hexDigit(line[i + 2]) >= 0 && hexDigit(line[i + 3]) >= 0) {
                ssid += static_cast<char>(hexDigit(line[i + 2]) * 16 + hexDigit(line[i + 3]));
                i += 3;
            } else {
                ssid += line[i];
            }
        }
        found = std::move(ssid);
    });
    if (found && found->empty()) {
        return std::nullopt;
    }
    return found;
}

std::string subnetText(std::uint32_t address, int prefixLength) {
    if (prefixLength < 0) {
        prefixLength = 0;
    }
    if (prefixLength > 32) {
        prefixLength = 32;
    }
    std::uint32_t mask = prefixLength == 0 ? 0 : ~std::uint32_t{0} << (32 - prefixLength);
    return IPv4::format(address & mask) + "/" + std::to_string(prefixLength);
}

} // namespace veltrane::kit::FingerprintParsing
