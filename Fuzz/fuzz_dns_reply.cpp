// Replies to our own look-ups come from the network, and the fake-address
// table comes back from a file a crash may have cut short: neither may bring
// the host down, and a table that reads must survive a write and read back.
#include "ExtensionCore/DNS/DirectResolver.hpp"
#include "VeltraneKit/FakeDNS/FakeDNSState.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string_view>

using namespace veltrane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span<const std::uint8_t> bytes(data, size);
    const std::uint16_t id = size >= 2 ? static_cast<std::uint16_t>(data[0] << 8 | data[1]) : 0;
    (void)core::DirectResolver::parseAddresses(bytes, id, core::DirectResolver::typeA);
    (void)core::DirectResolver::parseAddresses(bytes, id, core::DirectResolver::typeAAAA);
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    (void)core::DirectResolver::serversIn(text);
    std::string whyNot;
    if (auto state = kit::FakeDNSState::decode(text, whyNot)) {
        auto again = kit::FakeDNSState::decode(state->encode(), whyNot);
        if (!again || again->table.mappings.size() != state->table.mappings.size()) {
            std::abort();
        }
    }
    return 0;
}
