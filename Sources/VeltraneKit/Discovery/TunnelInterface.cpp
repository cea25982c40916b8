#include "VeltraneKit/Discovery/TunnelInterface.hpp"

namespace veltrane::kit {

std::string TunnelInterface::displayDescription() const {
    return ipv4 ? name + " \u00B7 " + *ipv4 : name;
}

} // namespace veltrane::kit
