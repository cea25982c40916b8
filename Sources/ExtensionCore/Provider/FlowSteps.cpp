#include "ExtensionCore/Provider/FlowSteps.hpp"

#include "ExtensionCore/AwaitCallback.hpp"

#include <asio.hpp>
#include <asio/experimental/as_tuple.hpp>
#include <mutex>

namespace veltrane::core {

using platform::Bytes;
using platform::FlowError;
using platform::NEAppProxyTCPFlow;

namespace {

struct PendingRead {
    std::mutex lock; // guards everything below
    bool done = false;
    std::optional<Bytes> data;
    std::optional<FlowError> error;
    // Set once the waiter gave up: the read's result goes to the next reader.
    bool abandoned = false;
    NEAppProxyTCPFlow::ReadCompletion next;
};

// The application's flow with its first read already under way.
class LateFirstReadFlow final : public NEAppProxyTCPFlow {
public:
    LateFirstReadFlow(std::shared_ptr<NEAppProxyTCPFlow> inner, std::shared_ptr<PendingRead> read,
                      platform::DispatchQueue& queue)
        : inner_(std::move(inner)), read_(std::move(read)), queue_(queue) {}

    platform::NEFlowMetaData metaData() const override { return inner_->metaData(); }
    void open(OpenCompletion completion) override { inner_->open(std::move(completion)); }
    void closeRead(const std::optional<FlowError>& error) override { inner_->closeRead(error); }
    void closeWrite(const std::optional<FlowError>& error) override { inner_->closeWrite(error); }
    platform::NWEndpointRef remoteEndpoint() const override { return inner_->remoteEndpoint(); }
    void writeData(Bytes data, WriteCompletion completion) override {
        inner_->writeData(std::move(data), std::move(completion));
    }

    void readData(ReadCompletion completion) override {
        std::shared_ptr<PendingRead> read;
        {
            std::lock_guard guard(lock_);
            read = std::exchange(read_, nullptr);
        }
        if (!read) {
            inner_->readData(std::move(completion));
            return;
        }
        std::unique_lock guard(read->lock);
        if (!read->done) {
            read->next = std::move(completion);
            return;
        }
        auto data = std::move(read->data);
        auto error = std::move(read->error);
        guard.unlock();
        // Completions never run inside the call that asked for them.
        asio::post(queue_,
                   [completion = std::move(completion), data = std::move(data),
                    error = std::move(error)]() mutable { completion(std::move(data), error); });
    }

private:
    const std::shared_ptr<NEAppProxyTCPFlow> inner_;
    std::mutex lock_; // guards read_
    std::shared_ptr<PendingRead> read_;
    platform::DispatchQueue& queue_;
};

} // namespace

Awaitable<std::optional<FlowError>> openFlow(std::shared_ptr<platform::NEAppProxyFlow> flow) {
    auto begin = [flow](auto done) {
        flow->open([done](const std::optional<FlowError>& error) { done(error); });
    };
    return awaitCallback<std::optional<FlowError>>(std::move(begin));
}

Awaitable<FirstPacket> readFirstPacket(std::shared_ptr<NEAppProxyTCPFlow> flow,
                                       std::chrono::milliseconds wait,
                                       platform::DispatchQueue& queue) {
    auto executor = co_await asio::this_coro::executor;
    auto timer = std::make_shared<asio::steady_timer>(executor, wait);
    auto read = std::make_shared<PendingRead>();

    flow->readData(
        [read, timer, executor](std::optional<Bytes> data, const std::optional<FlowError>& error) {
            NEAppProxyTCPFlow::ReadCompletion next;
            {
                std::lock_guard guard(read->lock);
                read->done = true;
                if (read->abandoned && read->next) {
                    next = std::move(read->next);
                } else {
                    read->data = std::move(data);
                    read->error = error;
                }
            }
            if (next) {
                next(std::move(data), error);
                return;
            }
            // Through the waiter's strand, so the cancel cannot slip in before the
            // wait has begun.
            asio::post(executor, [timer] { timer->cancel(); });
        });

    bool arrived = false;
    {
        std::lock_guard guard(read->lock);
        arrived = read->done;
    }
    if (!arrived) {
        // Ends by the time-out or by the read's cancel, alike.
        auto waited = co_await timer->async_wait(asio::experimental::as_tuple(asio::use_awaitable));
        (void)waited;
    }

    FirstPacket result;
    {
        std::lock_guard guard(read->lock);
        if (!read->done) {
            read->abandoned = true;
        } else if (!read->error && read->data && !read->data->empty()) {
            result.bytes = std::move(read->data);
        }
        if (read->abandoned) {
            result.flow = std::make_shared<LateFirstReadFlow>(flow, read, queue);
        }
    }
    if (!result.flow) {
        result.flow = std::move(flow);
    }
    co_return result;
}

} // namespace veltrane::core
