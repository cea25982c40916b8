#include "ExtensionCore/Flow/SNISniffer.hpp"

#include <cstdlib>
#include <string_view>

// A ClientHello as the application's first read; any name found must be
// bytes of that read.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::span<const std::uint8_t> bytes(data, size);
    auto name = veltrane::core::SNISniffer::tlsServerName(bytes);
    if (name && !name->empty()) {
        std::string_view input(reinterpret_cast<const char*>(data), size);
        if (input.find(*name) == std::string_view::npos) {
            std::abort();
        }
    }
    return 0;
}
