#pragma once

#include "ExtensionCore/Control/ExtensionXPCProtocol.hpp"

#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace veltrane::platform {
class UnixLineServer;
}

namespace veltrane::core {

class StatsCollector;

// Serves the control interface on a Unix stream socket, one JSON request per
// line and one JSON reply per line. Every connection is accepted and nothing
// about the caller is looked at: the service only reads.
class ExtensionXPCServer final : public ExtensionXPCProtocol {
public:
    // The collector defaults to StatsCollector::shared().
    explicit ExtensionXPCServer(StatsCollector* collector = nullptr);
    ~ExtensionXPCServer() override;

    ExtensionXPCServer(const ExtensionXPCServer&) = delete;
    ExtensionXPCServer& operator=(const ExtensionXPCServer&) = delete;

    // Listens on the socket named `machServiceName` in the runtime directory,
    // which is made if missing. Throws std::system_error.
    void start(std::string_view machServiceName);
    // Listens on exactly this socket path. A listener started before is
    // released first. Throws std::system_error.
    void startAtPath(std::string socketPath);
    void stop();

    // The path being served, empty while not listening.
    std::string socketPath() const;

    void ping(PingReply reply) override;
    void fetchEvents(std::uint64_t sinceToken, EventsReply reply) override;
    void fetchStats(StatsReply reply) override;

    // One request line in, one reply line out (no line ends). Never throws:
    // what cannot be served gets an error reply.
    std::string handleLine(std::string_view line);

private:
    StatsCollector& collector_;
    mutable std::mutex lock_; // guards listener_ only
    std::unique_ptr<platform::UnixLineServer> listener_;
};

} // namespace veltrane::core
