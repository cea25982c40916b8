// A network's fingerprint comes back from automation clients as JSON, and the
// Wi-Fi name in it is chosen by whoever runs the network (iw prints it with
// escapes). Whatever decodes must survive a write and read back the same.
#include "VeltraneKit/ProfileStore/Fingerprint.hpp"
#include "VeltraneKit/ProfileStore/FingerprintReader.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

using namespace veltrane::kit;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    (void)FingerprintParsing::iwLinkSSID(text);
    (void)FingerprintParsing::defaultRoute(text);
    (void)FingerprintParsing::neighbourMAC(text, 0x0200000a, "eth0");
    if (auto fingerprint = decodeFingerprint(text)) {
        for (bool pretty : {true, false}) {
            auto again = decodeFingerprint(encodeFingerprint(*fingerprint, pretty));
            if (!again || !(*again == *fingerprint)) {
                std::abort();
            }
        }
    }
    return 0;
}
