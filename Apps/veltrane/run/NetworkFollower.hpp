#pragma once

#include "VeltraneKit/ProfileStore/Fingerprint.hpp"

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace veltrane::kit {
class ProfileStore;
}

namespace veltrane::platform {
class NWPathMonitor;
}

namespace asio {
class io_context;
}

namespace veltrane::app {

// Follows the network this process is on: whenever an interface or an
// address changes it reads the network's fingerprint again, and when that
// differs from the last one and the store holds a profile bound to it other
// than the active one, it hands that profile to `onSwitch` with the reason.
// A profile chosen by hand stays until the network changes. The first
// reading is made at start.
class NetworkFollower {
public:
    using Fingerprint = kit::NetworkEnvironment::Fingerprint;
    using Switch = std::function<void(const kit::Profile& profile, const std::string& why)>;
    using Reader = std::function<std::optional<Fingerprint>()>;

    NetworkFollower(kit::ProfileStore& store, Switch onSwitch, Reader reader);
    ~NetworkFollower(); // stops

    void start();
    void stop();
    // The fingerprint last read; nothing before the first reading or when
    // the network has no default route.
    std::optional<Fingerprint> current() const;

private:
    void pathChanged();

    kit::ProfileStore& store_;
    Switch onSwitch_;
    Reader reader_;
    std::unique_ptr<asio::io_context> queue_;
    std::unique_ptr<platform::NWPathMonitor> monitor_;
    std::thread thread_;
    mutable std::mutex mutex_;
    bool read_ = false;
    std::optional<Fingerprint> last_;
};

} // namespace veltrane::app
