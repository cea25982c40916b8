#include "Platform/NEFlowMetaData.hpp"

#include <cstring>

namespace veltrane::platform {

std::optional<std::int32_t> auditTokenProcessID(std::span<const std::uint8_t> token) {
    if (token.size() < auditTokenSize) {
        return std::nullopt;
    }
    std::int32_t pid = 0;
    std::memcpy(&pid, token.data() + auditTokenPIDOffset, sizeof pid);
    if (pid <= 0) {
        return std::nullopt;
    }
    return pid;
}

Bytes makeAuditToken(std::int32_t processID) {
    Bytes token(auditTokenSize, 0);
    std::memcpy(token.data() + auditTokenPIDOffset, &processID, sizeof processID);
    return token;
}

} // namespace veltrane::platform
