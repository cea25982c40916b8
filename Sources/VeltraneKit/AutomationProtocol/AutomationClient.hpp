#pragma once

#include "VeltraneKit/AutomationProtocol/AutomationXPCProtocol.hpp"
#include "VeltraneKit/Error.hpp"

#include <chrono>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace veltrane::kit {

class ExtensionControlClient;

// Why the automation service could not be asked. An operation the service
// refused is not one of these: it comes back as a failed AutomationReply.
class AutomationClientError final : public Error {
public:
    enum class Kind {
        notRunning,       // no socket, or nobody serves it
        permissionDenied, // the socket is there but not ours to use
        timedOut,         // no reply within the client's time-out
        connectionLost,   // the service closed the connection mid-request
        badReply          // a reply that is not what the protocol says
    };

    AutomationClientError(Kind kind, std::string socketPath, std::string detail);

    Kind kind() const { return kind_; }
    const std::string& socketPath() const { return socketPath_; }
    const std::string& detail() const { return detail_; }

    std::string domain() const override { return "AutomationClientError"; }
    int code() const override { return static_cast<int>(kind_); }
    std::string localizedDescription() const override;

private:
    Kind kind_;
    std::string socketPath_;
    std::string detail_;
};

// A blocking client of the automation service over its Unix socket (the
// protocol: AutomationWire.hpp). Connects on first use and stays connected;
// after a lost connection the next request connects again. Requests from
// several threads are sent one at a time. Every operation throws
// AutomationClientError when the service cannot be asked; a data argument
// that is not JSON fails without being sent.
class AutomationClient final : public AutomationXPCProtocol {
public:
    explicit AutomationClient(std::string socketPath,
                              std::chrono::milliseconds timeout = std::chrono::seconds(10));
    ~AutomationClient() override;

    AutomationClient(const AutomationClient&) = delete;
    AutomationClient& operator=(const AutomationClient&) = delete;

    // The socket named after SharedPaths::automationMachService in this
    // user's runtime directory: "$XDG_RUNTIME_DIR/veltrane" when that is set
    // and not empty, else "/run/veltrane" for root, else
    // "/tmp/veltrane-<uid>" (the directory rule of every service socket).
    static std::string defaultSocketPath();
    // Where to look, in order: defaultSocketPath(), then the root service's
    // "/run/veltrane/com.veltrane.automation". No duplicates.
    static std::vector<std::string> socketCandidates();

    const std::string& socketPath() const { return socketPath_; }
    // Connects now, so that a caller can tell "not running" before its first
    // request. Throws AutomationClientError.
    void connect();

    AutomationReply getStatusWithReply() override;
    AutomationReply setEnabled(bool enabled) override;
    AutomationReply listProfilesWithReply() override;
    AutomationReply switchProfileWithName(const std::string& name) override;
    AutomationReply createProfileWithName(const std::string& name) override;
    AutomationReply listEnvironmentsWithReply() override;
    AutomationReply bindCurrentEnvironmentWithProfileName(const std::string& name) override;
    AutomationReply listRulesWithSearch(const std::string& search) override;
    AutomationReply addRuleWithJson(const std::string& ruleJSON) override;
    AutomationReply updateRuleWithJson(const std::string& ruleJSON) override;
    AutomationReply removeRuleWithName(const std::string& name) override;
    AutomationReply setRuleEnabledWithName(const std::string& name, bool enabled) override;
    AutomationReply listProxiesWithReply() override;
    AutomationReply addProxyWithJson(const std::string& proxyJSON) override;
    AutomationReply setRouteWithApp(const std::string& app, const std::string& target) override;
    AutomationReply testRouteWithApp(const std::string& app, const std::string& host,
                                     std::uint16_t port) override;
    AutomationReply queryConnectionsWithFilterJSON(const std::string& filterJSON) override;
    AutomationReply exportProfileWithName(const std::string& name) override;
    AutomationReply importProfileWithJson(const std::string& profileJSON) override;

private:
    AutomationReply call(std::string_view selector, const nlohmann::json& arguments);
    AutomationReply callWithData(std::string_view selector, const std::string& document);

    std::string socketPath_;
    std::mutex lock_;
    std::unique_ptr<ExtensionControlClient> connection_; // guarded by lock_
};

} // namespace veltrane::kit
