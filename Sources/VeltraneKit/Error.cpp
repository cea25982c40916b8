#include "VeltraneKit/Error.hpp"

namespace veltrane::kit {

const char* Error::what() const noexcept {
    try {
        whatCache_ = localizedDescription();
    } catch (...) {
        return "error";
    }
    return whatCache_.c_str();
}

} // namespace veltrane::kit
