// Feeds arbitrary bytes to the CONNECT response reader in reads of a size
// the first byte picks, then reports the proxy's close.
#include "ExtensionCore/Clients/HTTPConnectHandshake.hpp"

#include <algorithm>
#include <cstdlib>
#include <string_view>

using veltrane::core::HTTPConnectHandshake;
using veltrane::core::HTTPConnectResponse;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    std::size_t chunk = std::size_t{data[0]} * 17 + 1; // 1 .. 4336
    chunk = std::min(chunk, HTTPConnectHandshake::readSize);
    std::span<const std::uint8_t> input(data + 1, size - 1);

    HTTPConnectResponse::parse(
        std::string_view(reinterpret_cast<const char*>(input.data()), input.size()));

    HTTPConnectHandshake handshake("example.com", 443, std::nullopt);
    std::size_t fed = 0;
    while (!input.empty()) {
        std::size_t n = std::min(chunk, input.size());
        auto outcome = handshake.received(input.first(n));
        fed += n;
        input = input.subspan(n);
        if (auto* established = std::get_if<HTTPConnectHandshake::Established>(&outcome)) {
            if (established->tunnelBytes.size() > n) {
                std::abort(); // tunnel bytes come only from the last read
            }
            return 0;
        }
        if (std::holds_alternative<HTTPConnectHandshake::Failure>(outcome)) {
            return 0;
        }
        if (fed >= HTTPConnectHandshake::headerLimit) {
            std::abort(); // should have been refused
        }
    }
    handshake.received({});
    return 0;
}
