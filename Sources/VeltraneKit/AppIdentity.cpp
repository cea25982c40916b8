#include "VeltraneKit/AppIdentity.hpp"

namespace veltrane::kit {

std::string AppIdentity::bestDescription() const {
    for (const auto* candidate : {&displayName, &executableName, &bundleID}) {
        if (candidate->has_value()) {
            return **candidate;
        }
    }
    return "unknown";
}

} // namespace veltrane::kit
