#include "Platform/NEFlowHost.hpp"
#include "VeltraneProvider.hpp"

#include <cstdio>

// The extension takes no command line and no environment: everything it
// needs comes through its host, the profile included.
int main() {
    auto host = veltrane::platform::systemFlowHost();
    if (!host) {
        std::fputs("veltrane-extension: this build has no flow host for this system\n", stderr);
        return 2;
    }
    return host->run(std::make_shared<veltrane::VeltraneProvider>());
}
