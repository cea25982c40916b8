#pragma once

#include "Platform/NWConnection.hpp"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace veltrane::core {

// Look-ups of our own, for names that applications know only by a fake
// address: asked straight of a real resolver from a socket with the bypass
// mark, so that neither the capture nor our own answers come between. The
// system resolver cannot do this: behind a local stub its question would
// come back to us and be answered with the fake address again.
namespace DirectResolver {

using Bytes = std::vector<std::uint8_t>;

inline constexpr std::uint16_t typeA = 1;
inline constexpr std::uint16_t typeAAAA = 28;

// A recursive query for `name` (a trailing dot allowed); empty when the
// name cannot be put on the wire (an empty label, one over 63 bytes, a name
// over 253).
Bytes makeQuery(std::uint16_t id, std::string_view name, std::uint16_t type);

// The addresses of the answer records of `type` in a reply to query `id`, as
// text; nothing when the bytes are no such reply or it reports an error.
// An empty list: the name has no address of that type.
std::optional<std::vector<std::string>> parseAddresses(std::span<const std::uint8_t> reply,
                                                       std::uint16_t id, std::uint16_t type);

// The name servers of the machine's resolver configuration that are not on
// the loopback (a local stub would hand our own answers back): the upstream
// list of systemd-resolved first, then /etc/resolv.conf. "host:port" texts.
std::vector<std::string> configuredServers();
// The same, from the text of one resolv.conf.
std::vector<std::string> serversIn(std::string_view resolvConf);

// Asks `server` ("address:port", IPv6 in brackets) for the A records of
// `name`, then for AAAA when there are none, each with one time-out, and
// completes once with the addresses found (empty: none, or no answer).
// Addresses inside `excluded` (a prefix test, for the fake pool) are left out.
using Completion = std::function<void(std::vector<std::string>)>;
void resolve(std::string name, const std::string& server,
             platform::NWConnectionService& connections, platform::DispatchQueue& queue,
             std::chrono::milliseconds timeout, std::function<bool(const std::string&)> excluded,
             Completion completion);

// "192.0.2.2:53" or "[2001:db8::53]:53" into address and port.
std::optional<std::pair<std::string, std::uint16_t>> splitServer(std::string_view server);

} // namespace DirectResolver

} // namespace veltrane::core
