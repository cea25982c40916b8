#pragma once

#include <string>

namespace veltrane::app {

// Moves this process into the network namespace `name` (made by ip netns),
// the way `ip netns exec` does: in a private mount namespace of its own,
// with /sys mounted again so that it shows that namespace's interfaces. Call
// it before any thread starts: threads keep the namespace of their creator.
// Brings the namespace's loopback up when it is down, saying so. False
// after one line on stderr.
bool enterNetworkNamespace(const std::string& name);

// Brings this network namespace's loopback up. Whether it is up now (errno
// tells why not); `wasDown` whether it had to be brought up.
bool bringLoopbackUp(bool& wasDown);

} // namespace veltrane::app
