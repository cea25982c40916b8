#include "Platform/NEFlowHost.hpp"

namespace veltrane::platform {

// The kernel capture host (netfilter queue, redirect listener, transparent
// UDP) plugs in here; until it does, an extension process has nothing to
// run under and says so.
std::shared_ptr<NEFlowHost> systemFlowHost() {
    return nullptr;
}

} // namespace veltrane::platform
