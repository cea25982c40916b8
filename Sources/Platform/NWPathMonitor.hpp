#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace asio {
class io_context;
}

namespace veltrane::platform {

using DispatchQueue = asio::io_context;

struct NWInterface {
    std::string name;
    unsigned index = 0; // the kernel's interface index

    friend bool operator==(const NWInterface&, const NWInterface&) = default;
};

struct NWPath {
    // Every interface that is administratively up, in index order. Loopback
    // counts like any other: a rule may pin a flow to it, and nothing here
    // knows which interfaces a caller would call usable.
    std::vector<NWInterface> availableInterfaces;

    friend bool operator==(const NWPath&, const NWPath&) = default;
};

// Watches the interfaces of one network namespace: the one of the thread
// that calls start(). The handler runs on the queue with the current path
// right after the start, and again whenever a link or an address changes.
// Handler calls never overlap.
class NWPathMonitor {
public:
    using PathUpdateHandler = std::function<void(const NWPath& path)>;

    NWPathMonitor();
    ~NWPathMonitor(); // cancels
    NWPathMonitor(const NWPathMonitor&) = delete;
    NWPathMonitor& operator=(const NWPathMonitor&) = delete;

    void setPathUpdateHandler(PathUpdateHandler handler);
    // Once; later calls do nothing.
    void start(DispatchQueue& queue);
    // Final. When it returns no handler call is running or will begin,
    // except the one that called it.
    void cancel();
    // The path as last reported; empty before the first report.
    NWPath currentPath() const;

    class Impl;

private:
    std::shared_ptr<Impl> impl_;
};

} // namespace veltrane::platform
