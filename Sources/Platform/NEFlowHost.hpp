#pragma once

#include "Platform/NETransparentProxyProvider.hpp"

#include <memory>

namespace veltrane::platform {

// What an extension process hands its provider to: it attaches itself and
// the configuration, starts the provider, delivers flows and moves their
// bytes until the process is told to stop.
class NEFlowHost {
public:
    virtual ~NEFlowHost() = default;

    // Returns the process's exit status once the host has stopped.
    virtual int run(std::shared_ptr<NETransparentProxyProvider> provider) = 0;
};

// The flow host of this machine's kernel, or null where this build has none.
std::shared_ptr<NEFlowHost> systemFlowHost();

} // namespace veltrane::platform
