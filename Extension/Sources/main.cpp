#include "Platform/NEFlowHost.hpp"
#include "VeltraneProvider.hpp"

#include <cstdio>
#include <span>
#include <stdexcept>

// The command line holds only the host's own capture settings; everything
// the provider needs comes through its host, the profile included.
int main(int argc, char** argv) {
    std::shared_ptr<veltrane::platform::NEFlowHost> host;
    try {
        host = veltrane::platform::systemFlowHost(
            std::span<char* const>(argv + 1, static_cast<std::size_t>(argc - 1)));
    } catch (const std::invalid_argument& error) {
        std::fprintf(stderr, "veltrane-extension: %s\n", error.what());
        return 2;
    }
    if (!host) {
        std::fputs("veltrane-extension: this build has no flow host for this system\n", stderr);
        return 2;
    }
    veltrane::core::TransparentProxyProvider::Options options;
    options.queue = host->sharedQueue();
    options.fakeDNS = host->capturesDNS();
    return host->run(std::make_shared<veltrane::VeltraneProvider>(std::move(options)));
}
