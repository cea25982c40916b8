#include "VeltraneKit/Discovery/ProxyProbeReplies.hpp"

#include "VeltraneKit/UnicodeText.hpp"

#include <string_view>

namespace veltrane::kit::ProxyProbeReplies {

std::optional<std::uint8_t> socks5ChosenMethod(std::span<const std::uint8_t> reply) {
    if (reply.size() != 2 || reply[0] != 0x05) {
        return std::nullopt;
    }
    return reply[1];
}

bool isSOCKS5Proxy(std::span<const std::uint8_t> reply) {
    auto method = socks5ChosenMethod(reply);
    return method && (*method == 0x00 || *method == 0x02);
}

std::optional<std::string> httpStatusLine(std::span<const std::uint8_t> reply) {
    if (reply.size() < 12) {
        return std::nullopt;
    }
    auto text = UnicodeText::repairUTF8(reply);
    std::string_view rest = text;
    // Blank lines ahead of the status line are passed over.
    while (!rest.empty()) {
        auto end = rest.find("\r\n");
        auto line = rest.substr(0, end);
        if (!line.empty()) {
            if (line.substr(0, 5) != "HTTP/") {
                return std::nullopt;
            }
            return std::string(line);
        }
        if (end == std::string_view::npos) {
            break;
        }
        rest.remove_prefix(end + 2);
    }
    return std::nullopt;
}

bool isHTTPProxy(std::span<const std::uint8_t> reply) {
    auto line = httpStatusLine(reply);
    if (!line) {
        return false;
    }
    auto lower = UnicodeText::lowercased(*line);
    if (lower.find(" 407") != std::string::npos) {
        return true;
    }
    return lower.find(" 200") != std::string::npos && lower.find("establish") != std::string::npos;
}

} // namespace veltrane::kit::ProxyProbeReplies
