#include "ExtensionCore/Flow/FlowPump.hpp"

#include "Platform/SpliceRelay.hpp"

#include <cerrno>
#include <utility>

namespace veltrane::core {

using platform::Bytes;
using platform::FlowError;
using platform::NWError;

namespace {

platform::KernelStream* kernelStream(const auto& side) {
    return dynamic_cast<platform::KernelStream*>(side.get());
}

// The application aborting its side ends the flow the way a reset read from
// its flow does.
FlowError appError(int error) {
    if (error == ECONNRESET || error == EPIPE || error == ENOTCONN) {
        return platform::NEAppProxyError::notConnected();
    }
    return FlowError::posix(error);
}

} // namespace

FlowPump::FlowPump(std::shared_ptr<platform::NEAppProxyTCPFlow> flow,
                   std::shared_ptr<platform::NWConnection> upstream,
                   std::optional<Bytes> initialAppData, OnClose onClose)
    : flow_(std::move(flow)), upstream_(std::move(upstream)),
      kernelSides_(kernelStream(flow_) && kernelStream(upstream_)),
      initialAppData_(std::move(initialAppData)), onClose_(std::move(onClose)) {}

void FlowPump::start() {
    upstream_->setStateUpdateHandler(
        [weak = weak_from_this()](platform::NWConnectionState state,
                                  const std::optional<NWError>& error) {
            auto self = weak.lock();
            if (self && state == platform::NWConnectionState::failed) {
                self->upstreamFailed(error ? FlowError::from(*error) : FlowError::posix(ENETDOWN));
            }
        });
    std::optional<Bytes> initial = std::exchange(initialAppData_, std::nullopt);
    if (!kernelSides_) {
        if (initial && !initial->empty()) {
            sendUpstream(std::move(*initial),
                         [self = shared_from_this()] { self->pumpAppToUpstream(); });
        } else {
            pumpAppToUpstream();
        }
        pumpUpstreamToApp();
        return;
    }
    if (!initial || initial->empty()) {
        spliceOrCopy();
        return;
    }
    // The sockets are handed over only between operations.
    sendUpstream(std::move(*initial), [self = shared_from_this()] { self->spliceOrCopy(); });
}

void FlowPump::spliceOrCopy() {
    if (isClosed()) {
        return;
    }
    auto app = kernelStream(flow_)->kernelSocket();
    auto upstream = app ? kernelStream(upstream_)->kernelSocket() : std::nullopt;
    if (app && upstream && upstream->queue) {
        relay(std::move(*app), std::move(*upstream));
        return;
    }
    // Bytes either side had read ahead are not lost on the copying path.
    if (upstream && !upstream->unread.empty()) {
        writeToApp(std::move(upstream->unread),
                   [self = shared_from_this()] { self->pumpUpstreamToApp(); });
    } else {
        pumpUpstreamToApp();
    }
    if (app && !app->unread.empty()) {
        sendUpstream(std::move(app->unread),
                     [self = shared_from_this()] { self->pumpAppToUpstream(); });
    } else {
        pumpAppToUpstream();
    }
}

void FlowPump::relay(platform::KernelStream::Socket app, platform::KernelStream::Socket upstream) {
    // What was read ahead goes first, through the sides' own operations.
    auto splice = [self = shared_from_this(), queue = upstream.queue] { self->splice(*queue); };
    auto behind = [self = shared_from_this(), bytes = std::move(upstream.unread),
                   splice]() mutable {
        if (bytes.empty()) {
            splice();
        } else {
            self->writeToApp(std::move(bytes), splice);
        }
    };
    if (app.unread.empty()) {
        behind();
    } else {
        sendUpstream(std::move(app.unread), std::move(behind));
    }
}

void FlowPump::splice(platform::DispatchQueue& queue) {
    if (isClosed()) {
        return;
    }
    auto started = platform::SpliceRelay::make(
        queue, [self = shared_from_this()](const platform::SpliceRelay::Ending& ending) {
            std::optional<FlowError> failure;
            {
                std::lock_guard guard(self->lock_);
                self->counters_.sent += ending.sent;
                self->counters_.received += ending.received;
                failure = self->upstreamFailure_;
            }
            if (failure) {
                self->finish(failure);
            } else if (ending.upstreamError) {
                self->finish(FlowError::from(NWError::posix(*ending.upstreamError)));
            } else if (ending.appError) {
                self->finish(appError(*ending.appError));
            } else {
                self->finish(std::nullopt);
            }
        });
    if (!started) {
        copy();
        return;
    }
    // Handed over, the sockets no longer hold anything of ours while idle.
    // A side that cannot be (it changed under us, which it cannot between
    // operations) ends the relay, and so the flow, with an error.
    const int appFd = kernelStream(flow_)->releaseSocket();
    started->start(appFd, kernelStream(upstream_)->releaseSocket());
    bool failedMeanwhile = false;
    {
        std::lock_guard guard(lock_);
        relay_ = started;
        failedMeanwhile = upstreamFailure_.has_value();
        // The sockets are the relay's now: the flow object is not needed
        // again, nor the connection unless it still watches its interface.
        // An idle flow keeps less.
        flow_.reset();
        if (!kernelStream(upstream_)->reportsAfterRelease()) {
            upstream_.reset();
        }
    }
    if (failedMeanwhile) {
        started->stop();
    }
}

void FlowPump::upstreamFailed(const FlowError& error) {
    std::shared_ptr<platform::SpliceRelay> relay;
    {
        std::lock_guard guard(lock_);
        if (closed_ || upstreamFailure_) {
            return;
        }
        upstreamFailure_ = error;
        relay = relay_;
    }
    if (relay) {
        relay->stop();
    } else if (!kernelSides_) {
        // Copying: the pending receive fails too, but need not be waited for.
        finish(error);
    }
}

void FlowPump::copy() {
    pumpAppToUpstream();
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
            self->sendUpstream(std::move(*data), [self] { self->pumpAppToUpstream(); });
        } else if (!self->isClosed()) {
            // The application has finished sending: pass the end on and keep
            // the other direction going. A failure here shows up on receive.
            self->upstream_->send(std::nullopt, [](const std::optional<NWError>&) {});
        }
    });
}

void FlowPump::sendUpstream(Bytes bytes, std::function<void()> then) {
    if (isClosed()) {
        return;
    }
    const auto count = bytes.size();
    upstream_->send(std::move(bytes), [self = shared_from_this(), count, then = std::move(then)](
                                          const std::optional<NWError>& error) {
        if (error) {
            self->finish(FlowError::from(*error));
            return;
        }
        {
            std::lock_guard guard(self->lock_);
            self->counters_.sent += count;
        }
        then();
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
                               self->writeToApp(std::move(*data),
                                                [self] { self->pumpUpstreamToApp(); });
                           } else if (isComplete) {
                               self->finish(std::nullopt);
                           } else {
                               self->pumpUpstreamToApp();
                           }
                       });
}

void FlowPump::writeToApp(Bytes bytes, std::function<void()> then) {
    if (isClosed()) {
        return;
    }
    const auto count = bytes.size();
    flow_->writeData(std::move(bytes), [self = shared_from_this(), count, then = std::move(then)](
                                           const std::optional<FlowError>& error) {
        if (error) {
            self->finish(error);
            return;
        }
        {
            std::lock_guard guard(self->lock_);
            self->counters_.received += count;
        }
        then();
    });
}

void FlowPump::finish(const std::optional<FlowError>& error) {
    Counters counters;
    OnClose onClose;
    std::shared_ptr<platform::NEAppProxyTCPFlow> flow;
    std::shared_ptr<platform::NWConnection> upstream;
    {
        std::lock_guard guard(lock_);
        if (closed_) {
            return;
        }
        closed_ = true;
        counters = counters_;
        onClose = std::move(onClose_);
        relay_.reset();
        flow = flow_;
        upstream = upstream_;
    }
    if (upstream) {
        upstream->cancel();
    }
    if (flow) {
        flow->closeRead(error);
        flow->closeWrite(error);
    }
    if (onClose) {
        onClose(counters, error);
    }
}

bool FlowPump::isClosed() const {
    std::lock_guard guard(lock_);
    return closed_;
}

} // namespace veltrane::core
