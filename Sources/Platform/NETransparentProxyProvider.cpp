#include "Platform/NETransparentProxyProvider.hpp"

namespace veltrane::platform {

std::optional<NETunnelProviderProtocol> NETransparentProxyProvider::protocolConfiguration() const {
    std::lock_guard guard(lock_);
    return protocolConfiguration_;
}

void NETransparentProxyProvider::setTunnelNetworkSettings(
    std::optional<NETransparentProxyNetworkSettings> settings, SettingsCompletion completion) {
    std::shared_ptr<NEProviderHost> host;
    {
        std::lock_guard guard(lock_);
        host = host_.lock();
    }
    if (!host) {
        if (completion) {
            auto error = NEAppProxyError::make(NEAppProxyError::Code::internal);
            error.text = "No flow host is attached to the provider";
            completion(error);
        }
        return;
    }
    host->setTunnelNetworkSettings(std::move(settings), std::move(completion));
}

void NETransparentProxyProvider::attachHost(std::weak_ptr<NEProviderHost> host) {
    std::lock_guard guard(lock_);
    host_ = std::move(host);
}

void NETransparentProxyProvider::setProtocolConfiguration(
    std::optional<NETunnelProviderProtocol> configuration) {
    std::lock_guard guard(lock_);
    protocolConfiguration_ = std::move(configuration);
}

} // namespace veltrane::platform
