#pragma once

#include "ExtensionCore/Clients/HTTPProxyError.hpp"
#include "VeltraneKit/Profile.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace veltrane::core {

// The status line of a proxy's answer to CONNECT.
struct HTTPConnectResponse {
    std::int64_t status = 0;
    std::string reason;

    // Reads the header block (the text before the blank line). The version
    // is not looked at; nothing when there is no line, no status or the
    // status is not a number.
    static std::optional<HTTPConnectResponse> parse(std::string_view headerBlock);

    friend bool operator==(const HTTPConnectResponse&, const HTTPConnectResponse&) = default;
};

// One CONNECT exchange without I/O: the driver sends request(), then feeds
// every read to received() until it is no longer asked to read more.
class HTTPConnectHandshake {
public:
    // A header block that hasn't ended by this many bytes is refused.
    static constexpr std::size_t headerLimit = 8192;
    // The most each read may deliver.
    static constexpr std::size_t readSize = 4096;

    struct ReadMore {
        friend bool operator==(const ReadMore&, const ReadMore&) = default;
    };
    // `tunnelBytes`: what came after the blank line in the same read; it
    // belongs to the tunnelled stream and must reach the flow first.
    struct Established {
        std::vector<std::uint8_t> tunnelBytes;
        friend bool operator==(const Established&, const Established&) = default;
    };
    struct Failure {
        HTTPProxyError error;
        friend bool operator==(const Failure&, const Failure&) = default;
    };
    using Outcome = std::variant<ReadMore, Established, Failure>;

    HTTPConnectHandshake(std::string host, std::uint16_t port,
                         std::optional<kit::ProxyCredentials> credentials);

    std::vector<std::uint8_t> request() const;

    // One read's bytes; empty means the proxy closed or sent nothing.
    Outcome received(std::span<const std::uint8_t> bytes);

private:
    std::string host_;
    std::uint16_t port_;
    std::optional<kit::ProxyCredentials> credentials_;
    std::vector<std::uint8_t> buffer_;
    bool done_ = false;
};

// Standard Base64 with padding and no line breaks.
std::string base64Encode(std::span<const std::uint8_t> bytes);

} // namespace veltrane::core
