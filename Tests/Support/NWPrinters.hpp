#pragma once

// Readable gtest output for the connection service's values. Include it in
// any test that compares them; gtest finds these by argument-dependent lookup.

#include "Platform/NWConnection.hpp"

#include <ostream>

namespace veltrane::platform {

inline void PrintTo(const NWError& error, std::ostream* out) {
    *out << error.domainName() << " " << error.code << " (" << error.localizedDescription() << ")";
}

inline void PrintTo(NWConnectionState state, std::ostream* out) {
    constexpr const char* names[] = {"setup", "preparing", "waiting",
                                     "ready", "failed",    "cancelled"};
    *out << names[static_cast<int>(state)];
}

} // namespace veltrane::platform
