#pragma once

#include "VeltraneKit/ConnectionEvent.hpp"
#include "VeltraneKit/Error.hpp"
#include "VeltraneKit/StatsSnapshot.hpp"

#include <chrono>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace veltrane::kit {

// Why a request to the extension's control service did not get its answer.
class ExtensionControlError final : public Error {
public:
    enum class Kind {
        notRunning,       // no socket, or nobody answers on it
        permissionDenied, // the socket is there but not ours to use
        timedOut,         // no reply within the client's time-out
        connectionLost,   // the service closed the connection
        badReply,         // a reply that is not what the protocol says
        rejected          // the service answered with an error
    };

    ExtensionControlError(Kind kind, std::string socketPath, std::string detail);

    Kind kind() const { return kind_; }
    const std::string& socketPath() const { return socketPath_; }
    const std::string& detail() const { return detail_; }

    std::string domain() const override { return "ExtensionControlError"; }
    int code() const override { return static_cast<int>(kind_); }
    std::string localizedDescription() const override;

private:
    Kind kind_;
    std::string socketPath_;
    std::string detail_;
};

// A blocking client of the extension's control service over its Unix socket.
// One request at a time; not for use from several threads at once. Connects
// on first use and stays connected; after a lost connection the next request
// connects again. Every operation throws ExtensionControlError.
class ExtensionControlClient {
public:
    struct FetchedEvents {
        // Absent when the extension could not encode them; the token still
        // moves on past them.
        std::optional<std::vector<ConnectionEvent>> events;
        std::uint64_t token = 0;
    };

    explicit ExtensionControlClient(std::string socketPath,
                                    std::chrono::milliseconds timeout = std::chrono::seconds(5));
    ~ExtensionControlClient();

    ExtensionControlClient(const ExtensionControlClient&) = delete;
    ExtensionControlClient& operator=(const ExtensionControlClient&) = delete;

    void connect();
    void close();
    bool isConnected() const { return fd_ >= 0; }
    const std::string& socketPath() const { return socketPath_; }

    bool ping();
    FetchedEvents fetchEvents(std::uint64_t sinceToken);
    // Absent when the extension could not encode them.
    std::optional<StatsSnapshot> fetchStats();

    // One request; returns the values of the reply (a JSON array).
    nlohmann::json call(std::string_view selector, const nlohmann::json& arguments);

private:
    void sendAll(std::string_view bytes);
    std::string readLine();
    [[noreturn]] void fail(ExtensionControlError::Kind kind, std::string detail);

    std::string socketPath_;
    std::chrono::milliseconds timeout_;
    int fd_ = -1;
    std::string received_; // bytes read past the last line end
    std::uint64_t nextID_ = 1;
};

} // namespace veltrane::kit
