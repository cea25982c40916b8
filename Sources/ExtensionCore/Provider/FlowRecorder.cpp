#include "ExtensionCore/Provider/FlowRecorder.hpp"

#include "ExtensionCore/Provider/TransparentProxyProvider.hpp"

namespace veltrane::core {

double FlowRecorder::secondsSinceStart() const {
    return std::chrono::duration<double>(Clock::now() - started).count();
}

void FlowRecorder::record(kit::ConnectionEvent::Phase phase, std::uint64_t sent,
                          std::uint64_t received, double lifetime,
                          const std::optional<platform::FlowError>& error) const {
    if (auto owner = provider.lock()) {
        owner->record(phase, app, host, port, transport, verdict, sent, received, lifetime, error);
    }
}

void FlowRecorder::recordOpen() {
    if (auto owner = provider.lock()) {
        opened = owner->record(kit::ConnectionEvent::Phase::open, app, host, port, transport,
                               verdict, 0, 0, 0, std::nullopt);
    }
}

void FlowRecorder::recordEnd(std::uint64_t sent, std::uint64_t received,
                             const std::optional<platform::FlowError>& error) const {
    if (!error || platform::isOrderlyEnd(*error)) {
        record(kit::ConnectionEvent::Phase::close, sent, received, secondsSinceStart(),
               std::nullopt);
    } else {
        record(kit::ConnectionEvent::Phase::failed, sent, received, secondsSinceStart(), error);
    }
}

void FlowRecorder::recordRefusedAfterOpen() const {
    if (auto owner = provider.lock()) {
        owner->record(kit::ConnectionEvent::Phase::blocked, app, host, port, transport, verdict, 0,
                      0, 0, std::nullopt);
        owner->leaveActive();
    }
}

FlowRecorder::Ending FlowRecorder::ending() const {
    if (opened) {
        return Ending{provider, opened, started};
    }
    return Ending{provider,
                  std::make_shared<const kit::ConnectionEvent>(
                      kit::ConnectionEvent::make(kit::ConnectionEvent::Phase::open, app, host, port,
                                                 transport, verdict, 0, 0, 0, std::nullopt)),
                  started};
}

void FlowRecorder::Ending::recordEnd(std::uint64_t sent, std::uint64_t received,
                                     const std::optional<platform::FlowError>& error) const {
    auto owner = provider.lock();
    if (!owner) {
        return;
    }
    const double lifetime = std::chrono::duration<double>(Clock::now() - started).count();
    if (!error || platform::isOrderlyEnd(*error)) {
        owner->recordFrom(*fixed, kit::ConnectionEvent::Phase::close, sent, received, lifetime,
                          std::nullopt);
    } else {
        owner->recordFrom(*fixed, kit::ConnectionEvent::Phase::failed, sent, received, lifetime,
                          error);
    }
}

} // namespace veltrane::core
