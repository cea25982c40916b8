#pragma once

#include <cstdint>

namespace veltrane::platform {

// SO_MARK carried by every socket the system opens towards the network. The
// capture rules skip packets with this mark, so our own upstream connections
// are never taken again.
inline constexpr std::uint32_t bypassSocketMark = 0x56454c54; // "VELT"

} // namespace veltrane::platform
