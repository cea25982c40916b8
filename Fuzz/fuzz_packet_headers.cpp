// Takes arbitrary bytes as the head of a queued packet.
#include "Platform/linux/capture/FlowQueue.hpp"

#include <cstdlib>
#include <netinet/in.h>
#include <sys/socket.h>

using veltrane::platform::capture::parsePacketHeaders;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto packet = parsePacketHeaders({data, size}, 1);
    // Nothing past the headers is looked at, so one byte more changes nothing
    // that a shorter packet already gave.
    if (size > 0) {
        auto shorter = parsePacketHeaders({data, size - 1}, 1);
        if (shorter && shorter != packet) {
            std::abort();
        }
    }
    if (!packet) {
        return 0;
    }
    // Addresses and both ports were read: a whole IP header and at least a
    // UDP header's worth after it.
    const bool v4 = packet->family == AF_INET;
    if ((!v4 && packet->family != AF_INET6) ||
        (packet->protocol != IPPROTO_TCP && packet->protocol != IPPROTO_UDP) ||
        size < (v4 ? 20u : 40u) + 8u || packet->source.empty() || packet->destination.empty() ||
        packet->id != 1 || packet->mark != 0) {
        std::abort();
    }
    return 0;
}
