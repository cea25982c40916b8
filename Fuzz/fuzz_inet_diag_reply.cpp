// Feeds arbitrary bytes as a sock_diag reply. The first four bytes pick the
// request sequence the parser looks for; the rest is what the socket read.
#include "Platform/linux/capture/SocketOwners.hpp"

#include <cstring>
#include <linux/inet_diag.h>
#include <linux/netlink.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::uint32_t sequence = 0;
    if (size >= sizeof(sequence)) {
        std::memcpy(&sequence, data, sizeof(sequence));
        data += sizeof(sequence);
        size -= sizeof(sequence);
    }
    auto socket = veltrane::platform::capture::parseInetDiagReply(
        std::span<const std::uint8_t>(data, size), sequence);
    // A reply that names a socket was at least a whole header and message.
    if (socket && size < sizeof(nlmsghdr) + sizeof(inet_diag_msg)) {
        __builtin_trap();
    }
    return 0;
}
