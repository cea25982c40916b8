#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

// Recovers a flow's real host name from the first bytes the application
// sent. Both functions are pure: they read only the bytes given, never ask
// for more, and give nothing when the name is not (wholly) there.
namespace veltrane::core::SNISniffer {

// The host_name of a TLS ClientHello's server_name extension, unchanged.
// The record and handshake lengths are not trusted: a hello cut short is
// read as far as its bytes go.
std::optional<std::string> tlsServerName(std::span<const std::uint8_t> bytes);

// The Host header of an HTTP/1.x request head within the first 2048 bytes,
// without its port, in the case as sent.
std::optional<std::string> httpHost(std::span<const std::uint8_t> bytes);

} // namespace veltrane::core::SNISniffer
