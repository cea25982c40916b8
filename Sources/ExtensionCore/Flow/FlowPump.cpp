#include "ExtensionCore/Flow/FlowPump.hpp"

#include <utility>

namespace veltrane::core {

using platform::Bytes;
using platform::FlowError;
using platform::NWError;

FlowPump::FlowPump(std::shared_ptr<platform::NEAppProxyTCPFlow> flow,
                   std::shared_ptr<platform::NWConnection> upstream,
                   std::optional<Bytes> initialAppData, OnClose onClose)
    : flow_(std::move(flow)), upstream_(std::move(upstream)),
      initialAppData_(std::move(initialAppData)), onClose_(std::move(onClose)) {}

void FlowPump::start() {
    std::optional<Bytes> initial = std::exchange(initialAppData_, std::nullopt);
    if (initial && !initial->empty()) {
        sendUpstream(std::move(*initial));
    } else {
        pumpAppToUpstream();
    }
    pumpUpstreamToApp();
}

void FlowPump::pumpAppToUpstream() {
    if (isClosed()) {
        return;
    }
    flow_->readData([self = shared_from_this()](std::optional<Bytes> data,
                                                const std::optional<FlowError>& error) {
        if (error) {
            self->finish(error);
        } else if (data && !data->empty()) {
            self->sendUpstream(std::move(*data));
        } else if (!self->isClosed()) {
            // The application has finished sending: pass the end on and keep
            // the other direction going. A failure here shows up on receive.
            self->upstream_->send(std::nullopt, [](const std::optional<NWError>&) {});
        }
    });
}

void FlowPump::sendUpstream(Bytes bytes) {
    if (isClosed()) {
        return;
    }
    const auto count = bytes.size();
    upstream_->send(std::move(bytes),
                    [self = shared_from_this(), count](const std::optional<NWError>& error) {
                        if (error) {
                            self->finish(FlowError::from(*error));
                            return;
                        }
                        {
                            std::lock_guard guard(self->lock_);
                            self->counters_.sent += count;
                        }
                        self->pumpAppToUpstream();
                    });
}

void FlowPump::pumpUpstreamToApp() {
    if (isClosed()) {
        return;
    }
    upstream_->receive(minimumIncompleteLength, maximumLength,
                       [self = shared_from_this()](std::optional<Bytes> data, bool isComplete,
                                                   const std::optional<NWError>& error) {
                           if (error) {
                               self->finish(FlowError::from(*error));
                           } else if (data && !data->empty()) {
                               // The flag that came with bytes is left to the
                               // next receive, which reports the end again.
                               self->writeToApp(std::move(*data));
                           } else if (isComplete) {
                               self->finish(std::nullopt);
                           } else {
                               self->pumpUpstreamToApp();
                           }
                       });
}

void FlowPump::writeToApp(Bytes bytes) {
    if (isClosed()) {
        return;
    }
    const auto count = bytes.size();
    flow_->writeData(std::move(bytes),
                     [self = shared_from_this(), count](const std::optional<FlowError>& error) {
                         if (error) {
                             self->finish(error);
                             return;
                         }
                         {
                             std::lock_guard guard(self->lock_);
                             self->counters_.received += count;
                         }
                         self->pumpUpstreamToApp();
                     });
}

void FlowPump::finish(const std::optional<FlowError>& error) {
    Counters counters;
    OnClose onClose;
    {
        std::lock_guard guard(lock_);
        if (closed_) {
            return;
        }
        closed_ = true;
        counters = counters_;
        onClose = std::move(onClose_);
    }
    upstream_->cancel();
    flow_->closeRead(error);
    flow_->closeWrite(error);
    if (onClose) {
        onClose(counters, error);
    }
}

bool FlowPump::isClosed() const {
    std::lock_guard guard(lock_);
    return closed_;
}

} // namespace veltrane::core
