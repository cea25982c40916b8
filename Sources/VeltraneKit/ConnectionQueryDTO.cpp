#include "VeltraneKit/ConnectionQueryDTO.hpp"

#include <algorithm>

namespace veltrane::kit {

std::optional<Timestamp> ConnectionQueryDTO::since(Timestamp now) const {
    if (!sinceMinutes) {
        return std::nullopt;
    }
    // Clamp so that an absurd count stays a moment far away instead of
    // overflowing the clock's range.
    constexpr double kFarAway = 1e8 * 60.0; // seconds, about 190 centuries
    const double seconds =
        std::clamp(static_cast<double>(*sinceMinutes) * 60.0, -kFarAway, kFarAway);
    return now -
           std::chrono::duration_cast<Timestamp::duration>(std::chrono::duration<double>(seconds));
}

} // namespace veltrane::kit
