#pragma once

#include "Platform/NETransparentProxyProvider.hpp"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

namespace veltrane::platform {

// Drives a provider as the flow host would, in memory: it attaches itself
// and a configuration, calls the entry points on the caller's thread, answers
// setTunnelNetworkSettings at once, and records every answer.
//
//   auto host = MemoryFlowHost::make(provider, configuration);
//   host->startProxy(std::nullopt);
//   host->waitFor([](const auto& r) { return !r.startResults.empty(); });
//   bool taken = host->deliver(MemoryTCPFlow::make(queue, "1.2.3.4", "443"));
class MemoryFlowHost final : public NEProviderHost,
                             public std::enable_shared_from_this<MemoryFlowHost> {
public:
    struct Record {
        std::vector<std::optional<NETransparentProxyNetworkSettings>> tunnelSettings;
        std::vector<std::optional<FlowError>> startResults; // start completions, in order
        std::size_t stopCompletions = 0;
        std::vector<std::optional<Bytes>> appReplies;
        std::vector<bool> answers; // handleNewFlow, flow by flow
    };

    static std::shared_ptr<MemoryFlowHost>
    make(std::shared_ptr<NETransparentProxyProvider> provider,
         std::optional<NETunnelProviderProtocol> configuration = std::nullopt);

    // Later setTunnelNetworkSettings calls fail with `error` (none: succeed).
    void failTunnelSettings(std::optional<FlowError> error);

    void startProxy(std::optional<ProviderDictionary> options);
    void stopProxy(NEProviderStopReason reason);
    void sendAppMessage(Bytes message);
    // handleNewFlow on the caller's thread; the answer is also recorded.
    bool deliver(std::shared_ptr<NEAppProxyFlow> flow);

    Record record() const;
    // Waits until `predicate` holds; false when `timeout` passed first. The
    // predicate runs under the host's lock and must only read.
    bool waitFor(const std::function<bool(const Record&)>& predicate,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

    void setTunnelNetworkSettings(std::optional<NETransparentProxyNetworkSettings> settings,
                                  SettingsCompletion completion) override;

    explicit MemoryFlowHost(std::shared_ptr<NETransparentProxyProvider> provider);

private:
    const std::shared_ptr<NETransparentProxyProvider> provider_;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    Record record_;
    std::optional<FlowError> settingsError_;
};

} // namespace veltrane::platform
