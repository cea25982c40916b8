#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace veltrane::platform {

using Bytes = std::vector<std::uint8_t>; // the same alias as in NWConnection.hpp

// What the flow host tells about the application behind a flow.
struct NEFlowMetaData {
    // The application's identifier as this machine knows it.
    std::string sourceAppSigningIdentifier;
    // The audit token, filled by the host: eight 32-bit words in host byte
    // order; word 5 holds the process id.
    std::optional<Bytes> sourceAppAuditToken;

    friend bool operator==(const NEFlowMetaData&, const NEFlowMetaData&) = default;
};

inline constexpr std::size_t auditTokenSize = 32;
inline constexpr std::size_t auditTokenPIDOffset = 20;

// The process id inside an audit token: nothing for fewer than 32 bytes or
// an id that is not positive.
std::optional<std::int32_t> auditTokenProcessID(std::span<const std::uint8_t> token);

// An audit token as a host fills it: all zero but the process id.
Bytes makeAuditToken(std::int32_t processID);

} // namespace veltrane::platform
