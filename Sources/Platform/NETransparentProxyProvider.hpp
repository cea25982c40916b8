#pragma once

#include "Platform/FlowError.hpp"
#include "Platform/NEAppProxyFlow.hpp"
#include "Platform/NETransparentProxyNetworkSettings.hpp"
#include "Platform/NETunnelProviderProtocol.hpp"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

namespace veltrane::platform {

// What a provider may ask of the host that drives it. The Linux capture host
// and the in-memory test host implement it.
class NEProviderHost {
public:
    using SettingsCompletion = std::function<void(const std::optional<FlowError>& error)>;

    virtual ~NEProviderHost() = default;

    // Installs the capture described by `settings` (none: capture nothing).
    // The completion may run inside the call or later, on any thread.
    virtual void setTunnelNetworkSettings(std::optional<NETransparentProxyNetworkSettings> settings,
                                          SettingsCompletion completion) = 0;
};

using NEProviderStopReason = std::int64_t;

// Base of the principal class. The host creates it, attaches itself and its
// configuration, then calls the four entry points, on any thread and for
// several flows at the same time.
class NETransparentProxyProvider {
public:
    using StartCompletion = std::function<void(const std::optional<FlowError>& error)>;
    using StopCompletion = std::function<void()>;
    // May be empty: the sender wants no reply.
    using AppMessageCompletion = std::function<void(std::optional<Bytes> reply)>;
    using SettingsCompletion = NEProviderHost::SettingsCompletion;

    virtual ~NETransparentProxyProvider() = default;

    virtual void startProxy(std::optional<ProviderDictionary> options,
                            StartCompletion completion) = 0;
    virtual void stopProxy(NEProviderStopReason reason, StopCompletion completion) = 0;
    virtual void handleAppMessage(Bytes messageData, AppMessageCompletion completion) = 0;
    // True: the provider owns the flow from now on. False: the host sends the
    // flow out by itself.
    virtual bool handleNewFlow(std::shared_ptr<NEAppProxyFlow> flow) = 0;

    std::optional<NETunnelProviderProtocol> protocolConfiguration() const;

    // Forwards to the attached host; without one the completion gets an
    // error at once.
    void setTunnelNetworkSettings(std::optional<NETransparentProxyNetworkSettings> settings,
                                  SettingsCompletion completion);

    // Host side. The provider holds the host weakly: the host owns it.
    void attachHost(std::weak_ptr<NEProviderHost> host);
    void setProtocolConfiguration(std::optional<NETunnelProviderProtocol> configuration);

private:
    mutable std::mutex lock_;
    std::weak_ptr<NEProviderHost> host_;
    std::optional<NETunnelProviderProtocol> protocolConfiguration_;
};

} // namespace veltrane::platform
