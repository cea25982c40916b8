#pragma once

#include <atomic>
#include <cstdint>

namespace veltrane::platform {

// SO_MARK carried by every socket the system opens towards the network. The
// capture rules let packets with this bit pass untouched, so our own upstream
// connections are never taken again. One bit under the capture's mask, so it
// leaves the machine's other routing marks (VPN clients, containers) alone;
// the capture host sets it from its configuration before any socket is made.
inline constexpr std::uint32_t defaultBypassSocketMark = 0x00100000;

inline std::atomic<std::uint32_t>& bypassSocketMarkValue() {
    static std::atomic<std::uint32_t> value{defaultBypassSocketMark};
    return value;
}

inline std::uint32_t bypassSocketMark() {
    return bypassSocketMarkValue().load();
}
inline void setBypassSocketMark(std::uint32_t mark) {
    bypassSocketMarkValue().store(mark);
}

} // namespace veltrane::platform
