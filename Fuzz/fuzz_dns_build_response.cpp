// Arbitrary queries, question ends and address texts through the answer
// builder: it must refuse or produce exactly the query's head plus 16 bytes.
#include "ExtensionCore/DNS/DNSResponder.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string_view>

using veltrane::core::DNSResponder;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Layout of the input: 2 bytes question end, 1 byte address length, the
    // address text, 4 bytes TTL, then the query.
    if (size < 7) {
        return 0;
    }
    const std::size_t questionEnd = static_cast<std::size_t>(data[0] << 8 | data[1]);
    const std::size_t ipLength = std::min<std::size_t>(data[2], size - 7);
    const std::string_view ip(reinterpret_cast<const char*>(data + 3), ipLength);
    const std::uint8_t* t = data + 3 + ipLength;
    const std::uint32_t ttl =
        static_cast<std::uint32_t>(t[0]) << 24 | t[1] << 16 | t[2] << 8 | t[3];
    const std::span<const std::uint8_t> query(t + 4, size - 7 - ipLength);

    const auto response = DNSResponder::buildAResponse(query, questionEnd, ip, ttl);
    if (!response) {
        return 0;
    }
    const auto& r = *response;
    if (r.size() != questionEnd + 16 || questionEnd > query.size() ||
        !std::equal(query.begin() + 12, query.begin() + static_cast<std::ptrdiff_t>(questionEnd),
                    r.begin() + 12) ||
        r[0] != query[0] || r[1] != query[1] || r[2] != 0x81 || r[3] != 0x80 ||
        r[questionEnd] != 0xC0 || r[questionEnd + 1] != 0x0C || r[questionEnd + 6] != t[0] ||
        r[questionEnd + 9] != t[3]) {
        std::abort();
    }
    return 0;
}
