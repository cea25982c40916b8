#include "Platform/NWError.hpp"

#include <cstring>
#include <netdb.h>

namespace veltrane::platform {

namespace {

// strerror() may share one buffer between threads; the two strerror_r
// flavours differ in their return type, so let overloading pick ours.
[[maybe_unused]] std::string describe(int result, const char* buffer, int code) {
    if (result != 0) {
        return "Unknown error " + std::to_string(code);
    }
    return buffer;
}

[[maybe_unused]] std::string describe(const char* result, const char*, int) {
    return result;
}

} // namespace

NWError NWError::posix(int errnoValue) {
    char buffer[256] = {};
    return NWError{Domain::posix, errnoValue,
                   describe(strerror_r(errnoValue, buffer, sizeof buffer), buffer, errnoValue)};
}

NWError NWError::dns(int gaiCode) {
    return NWError{Domain::dns, gaiCode, gai_strerror(gaiCode)};
}

std::string NWError::domainName() const {
    return domain == Domain::posix ? "POSIX" : "DNS";
}

std::string NWError::localizedDescription() const {
    if (!text.empty()) {
        return text;
    }
    return domainName() + " error " + std::to_string(code);
}

} // namespace veltrane::platform
