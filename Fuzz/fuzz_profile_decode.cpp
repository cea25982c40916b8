// Profiles arrive as app messages and files a user may have edited by hand.
// Whatever decodes must survive a write and read back as the same value.
#include "VeltraneKit/ProfileCoding.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

using namespace veltrane::kit;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::optional<ProfileDecodingError> error;
    auto profile = decodeProfile(std::span<const std::uint8_t>(data, size), &error);
    if (!profile) {
        if (!error) {
            std::abort();
        }
        (void)error->localizedDescription();
        return 0;
    }
    for (bool pretty : {true, false}) {
        auto again = decodeProfile(encodeProfile(*profile, pretty));
        if (!again || !(*again == *profile)) {
            std::abort();
        }
    }
    return 0;
}
