// Takes arbitrary bytes as a frame from a SOCKS5 UDP relay.
#include "ExtensionCore/Clients/UDPRelay.hpp"

#include <cstdlib>

using veltrane::core::UDPRelay;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto datagram = UDPRelay::decapsulate({data, size});
    if (!datagram) {
        return 0;
    }
    if (datagram->payload.size() + 7 > size) {
        std::abort(); // at least RSV, FRAG, ATYP, one address byte and the port
    }
    // What came in can go out again, addressed to the sender.
    auto frame = UDPRelay::encapsulate(datagram->payload, datagram->host, datagram->port);
    if (!frame && datagram->host.size() <= 255) {
        std::abort();
    }
    return 0;
}
