#pragma once

// Readers of what a local port answered to the scanner's two probes. The
// bytes come from whatever listens there, so these never throw and never
// look past the span.

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace veltrane::kit::ProxyProbeReplies {

// The method a SOCKS5 server chose in answer to a greeting that offers only
// "no authentication": exactly two bytes, version 5 first, else nullopt.
std::optional<std::uint8_t> socks5ChosenMethod(std::span<const std::uint8_t> reply);

// A SOCKS5 proxy answers the greeting with method 00, or with 02 when it
// wants a user name and password: both count as a proxy.
bool isSOCKS5Proxy(std::span<const std::uint8_t> reply);

// The status line of an answer to CONNECT: the first non-empty piece before
// a CR LF of at least 12 bytes read as UTF-8 (invalid bytes repaired), and
// only when it begins with "HTTP/".
std::optional<std::string> httpStatusLine(std::span<const std::uint8_t> reply);

// A proxy either wants credentials (a status containing " 407") or opened the
// tunnel (" 200" and "establish"); a web server's plain "200 OK" is no proxy.
bool isHTTPProxy(std::span<const std::uint8_t> reply);

} // namespace veltrane::kit::ProxyProbeReplies
