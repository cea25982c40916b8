#include "ExtensionCore/Clients/HTTPConnectHandshake.hpp"

#include "ExtensionCore/DecimalText.hpp"
#include "VeltraneKit/UnicodeText.hpp"

#include <algorithm>
#include <stdexcept>

namespace veltrane::core {

namespace {

constexpr std::string_view terminator = "\r\n\r\n";

std::vector<std::string_view> nonEmptyLines(std::string_view text) {
    std::vector<std::string_view> lines;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find("\r\n", start);
        if (end == std::string_view::npos) {
            end = text.size();
        }
        if (end > start) {
            lines.push_back(text.substr(start, end - start));
        }
        start = end + 2;
    }
    return lines;
}

// Splits at single spaces into at most three parts, skipping empty pieces;
// once two parts are taken the rest stays whole, leading space included.
std::vector<std::string_view> statusParts(std::string_view line) {
    std::vector<std::string_view> parts;
    std::size_t pieceStart = 0;
    std::size_t i = 0;
    while (i < line.size()) {
        if (line[i] == ' ') {
            if (i > pieceStart) {
                parts.push_back(line.substr(pieceStart, i - pieceStart));
            }
            ++i;
            pieceStart = i;
            if (parts.size() == 2) {
                break;
            }
            continue;
        }
        ++i;
    }
    if (pieceStart < line.size()) {
        parts.push_back(line.substr(pieceStart));
    }
    return parts;
}

} // namespace

std::optional<HTTPConnectResponse> HTTPConnectResponse::parse(std::string_view headerBlock) {
    auto lines = nonEmptyLines(headerBlock);
    if (lines.empty()) {
        return std::nullopt;
    }
    auto parts = statusParts(lines.front());
    if (parts.size() < 2) {
        return std::nullopt;
    }
    auto status = parseSignedDecimal(parts[1]);
    if (!status) {
        return std::nullopt;
    }
    HTTPConnectResponse response;
    response.status = *status;
    if (parts.size() > 2) {
        response.reason = std::string(parts[2]);
    }
    return response;
}

std::string base64Encode(std::span<const std::uint8_t> bytes) {
    static constexpr char alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        std::uint32_t v = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
        out += alphabet[(v >> 18) & 63];
        out += alphabet[(v >> 12) & 63];
        out += alphabet[(v >> 6) & 63];
        out += alphabet[v & 63];
    }
    std::size_t rest = bytes.size() - i;
    if (rest == 1) {
        std::uint32_t v = bytes[i] << 16;
        out += alphabet[(v >> 18) & 63];
        out += alphabet[(v >> 12) & 63];
        out += "==";
    } else if (rest == 2) {
        std::uint32_t v = (bytes[i] << 16) | (bytes[i + 1] << 8);
        out += alphabet[(v >> 18) & 63];
        out += alphabet[(v >> 12) & 63];
        out += alphabet[(v >> 6) & 63];
        out += '=';
    }
    return out;
}

HTTPConnectHandshake::HTTPConnectHandshake(std::string host, std::uint16_t port,
                                           std::optional<kit::ProxyCredentials> credentials)
    : host_(std::move(host)), port_(port), credentials_(std::move(credentials)) {}

std::vector<std::uint8_t> HTTPConnectHandshake::request() const {
    // The host goes out as given, an IPv6 literal without brackets, and the
    // target and Host header are always the same text.
    std::string target = host_ + ":" + std::to_string(port_);
    std::string text = "CONNECT " + target + " HTTP/1.1\r\nHost: " + target + "\r\n";
    if (credentials_) {
        std::string pair = credentials_->username + ":" + credentials_->password;
        text += "Proxy-Authorization: Basic " +
                base64Encode({reinterpret_cast<const std::uint8_t*>(pair.data()), pair.size()}) +
                "\r\n";
    }
    text += "Proxy-Connection: Keep-Alive\r\n\r\n";
    return {text.begin(), text.end()};
}

HTTPConnectHandshake::Outcome HTTPConnectHandshake::received(std::span<const std::uint8_t> bytes) {
    if (done_) {
        throw std::logic_error("HTTPConnectHandshake::received after the outcome");
    }
    if (bytes.empty()) {
        done_ = true;
        return Failure{HTTPProxyError::malformedResponse()};
    }
    // Only the tail of the old buffer can start a terminator that this read
    // completes, so the search never rescans what was already searched.
    std::size_t searchFrom = buffer_.size() >= 3 ? buffer_.size() - 3 : 0;
    buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
    auto found = std::search(buffer_.begin() + static_cast<std::ptrdiff_t>(searchFrom),
                             buffer_.end(), terminator.begin(), terminator.end());
    if (found == buffer_.end()) {
        // The search comes first: a block that ends within the read that
        // crossed the bound is still taken.
        if (buffer_.size() >= headerLimit) {
            done_ = true;
            return Failure{HTTPProxyError::malformedResponse()};
        }
        return ReadMore{};
    }
    done_ = true;
    auto headEnd = static_cast<std::size_t>(found - buffer_.begin());
    std::string head = kit::UnicodeText::repairUTF8(std::span(buffer_).first(headEnd));
    auto response = HTTPConnectResponse::parse(head);
    if (!response) {
        return Failure{HTTPProxyError::malformedResponse()};
    }
    if (response->status < 200 || response->status > 299) {
        return Failure{HTTPProxyError::rejected(response->status, response->reason)};
    }
    return Established{{found + static_cast<std::ptrdiff_t>(terminator.size()), buffer_.end()}};
}

} // namespace veltrane::core
