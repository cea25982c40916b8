#include "VeltraneKit/StatsSnapshot.hpp"

namespace veltrane::kit {

const StatsSnapshot& StatsSnapshot::empty() {
    static const StatsSnapshot value = [] {
        StatsSnapshot s;
        s.startedAt = std::chrono::system_clock::now();
        return s;
    }();
    return value;
}

} // namespace veltrane::kit
