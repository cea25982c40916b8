#include "Platform/NEFlowHost.hpp"
#include "Platform/linux/capture/LinuxFlowHost.hpp"

#include <unistd.h>

namespace veltrane::platform {

namespace {

// The application that starts the extension hands it the provider
// configuration's profile on standard input, as the configuration a host
// keeps for its provider; a terminal or an empty input means none.
std::optional<Bytes> configuredProfile() {
    if (::isatty(STDIN_FILENO)) {
        return std::nullopt;
    }
    Bytes bytes;
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (n <= 0) {
            break;
        }
        bytes.insert(bytes.end(), buffer, buffer + n);
    }
    if (bytes.empty()) {
        return std::nullopt;
    }
    return bytes;
}

} // namespace

std::shared_ptr<NEFlowHost> systemFlowHost() {
    capture::LinuxFlowHost::Options options;
    options.profile = configuredProfile();
    return std::make_shared<capture::LinuxFlowHost>(std::move(options));
}

} // namespace veltrane::platform
