#pragma once

#include "Platform/NWPathMonitor.hpp"

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace veltrane::core {

// The current map from interface names to interfaces, kept by one path
// monitor. Path updates arrive on the queue; look-ups come from any thread
// and see either the old or the new set of interfaces, never a mix.
class InterfaceRegistry {
public:
    // The process's registry; it lives until the process ends.
    static InterfaceRegistry& shared();

    // A registry of its own (tests watch their own namespace with one).
    InterfaceRegistry();
    InterfaceRegistry(const InterfaceRegistry&) = delete;
    InterfaceRegistry& operator=(const InterfaceRegistry&) = delete;

    // Starts the monitor on `queue`, once; later calls do nothing. The
    // monitor watches the network namespace of the calling thread.
    void start(platform::DispatchQueue& queue);

    // The interface of exactly this name (case-sensitive); nothing before the
    // first update arrived.
    std::optional<platform::NWInterface> interface(std::string_view name) const;

    struct Table {
        std::mutex lock; // guards byName and started
        std::map<std::string, platform::NWInterface, std::less<>> byName;
        bool started = false;
    };

private:
    // Shared with the path handler, which may still be running while a
    // registry of a test goes away.
    const std::shared_ptr<Table> table_;
    platform::NWPathMonitor monitor_;
};

} // namespace veltrane::core
