#include "ExtensionCore/Flow/SNISniffer.hpp"

#include <cstdlib>
#include <string_view>

// An HTTP request head as the application's first read; a host found is
// never empty, holds no colon and comes from the first 2048 bytes.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::span<const std::uint8_t> bytes(data, size);
    auto host = veltrane::core::SNISniffer::httpHost(bytes);
    if (host) {
        std::string_view head(reinterpret_cast<const char*>(data), size < 2048 ? size : 2048);
        if (host->empty() || host->find(':') != std::string::npos ||
            head.find(*host) == std::string_view::npos) {
            std::abort();
        }
    }
    return 0;
}
