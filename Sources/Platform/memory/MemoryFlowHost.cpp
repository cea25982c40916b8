#include "Platform/memory/MemoryFlowHost.hpp"

namespace veltrane::platform {

std::shared_ptr<MemoryFlowHost>
MemoryFlowHost::make(std::shared_ptr<NETransparentProxyProvider> provider,
                     std::optional<NETunnelProviderProtocol> configuration) {
    auto host = std::make_shared<MemoryFlowHost>(provider);
    provider->setProtocolConfiguration(std::move(configuration));
    provider->attachHost(host);
    return host;
}

MemoryFlowHost::MemoryFlowHost(std::shared_ptr<NETransparentProxyProvider> provider)
    : provider_(std::move(provider)) {}

void MemoryFlowHost::failTunnelSettings(std::optional<FlowError> error) {
    std::lock_guard guard(mutex_);
    settingsError_ = std::move(error);
}

void MemoryFlowHost::startProxy(std::optional<ProviderDictionary> options) {
    provider_->startProxy(std::move(options),
                          [self = shared_from_this()](const std::optional<FlowError>& error) {
                              std::lock_guard guard(self->mutex_);
                              self->record_.startResults.push_back(error);
                              self->changed_.notify_all();
                          });
}

void MemoryFlowHost::stopProxy(NEProviderStopReason reason) {
    provider_->stopProxy(reason, [self = shared_from_this()] {
        std::lock_guard guard(self->mutex_);
        ++self->record_.stopCompletions;
        self->changed_.notify_all();
    });
}

void MemoryFlowHost::sendAppMessage(Bytes message) {
    provider_->handleAppMessage(std::move(message),
                                [self = shared_from_this()](std::optional<Bytes> reply) {
                                    std::lock_guard guard(self->mutex_);
                                    self->record_.appReplies.push_back(std::move(reply));
                                    self->changed_.notify_all();
                                });
}

bool MemoryFlowHost::deliver(std::shared_ptr<NEAppProxyFlow> flow) {
    const bool answer = provider_->handleNewFlow(std::move(flow));
    std::lock_guard guard(mutex_);
    record_.answers.push_back(answer);
    changed_.notify_all();
    return answer;
}

MemoryFlowHost::Record MemoryFlowHost::record() const {
    std::lock_guard guard(mutex_);
    return record_;
}

bool MemoryFlowHost::waitFor(const std::function<bool(const Record&)>& predicate,
                             std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return predicate(record_); });
}

void MemoryFlowHost::setTunnelNetworkSettings(
    std::optional<NETransparentProxyNetworkSettings> settings, SettingsCompletion completion) {
    std::optional<FlowError> error;
    {
        std::lock_guard guard(mutex_);
        record_.tunnelSettings.push_back(std::move(settings));
        error = settingsError_;
        changed_.notify_all();
    }
    if (completion) {
        completion(error);
    }
}

} // namespace veltrane::platform
