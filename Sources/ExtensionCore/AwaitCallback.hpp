#pragma once

// Needs Asio: include only from .cpp files.

#include "ExtensionCore/Awaitable.hpp"

#include <asio.hpp>
#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

namespace veltrane::core {

// Holds the awaiting coroutine's completion handler until the first result
// arrives, then hands it over to the handler's own executor. Later results
// find the handler gone and are dropped.
template <class Handler, class Result>
class Once {
public:
    explicit Once(Handler handler) : handler_(std::move(handler)) {}

    // The operation has been started and its starter has returned: from now
    // on a result may resume the coroutine where it arrives.
    void started() { started_.store(true, std::memory_order_release); }

    void complete(Result result) {
        std::optional<Handler> handler;
        {
            std::lock_guard guard(lock_);
            if (!handler_) {
                return;
            }
            handler.emplace(std::move(*handler_));
            handler_.reset();
        }
        auto executor = asio::get_associated_executor(*handler);
        auto resume = [handler = std::move(*handler), result = std::move(result)]() mutable {
            std::move(handler)(std::move(result));
        };
        // A result from inside the call that started the operation is posted:
        // the coroutine must not resume there. Any later one resumes it in
        // place when its executor may run here, which saves a trip through
        // the scheduler for every step of every flow.
        if (started_.load(std::memory_order_acquire)) {
            asio::dispatch(executor, std::move(resume));
        } else {
            asio::post(executor, std::move(resume));
        }
    }

private:
    std::mutex lock_;
    std::optional<Handler> handler_;
    std::atomic<bool> started_{false};
};

// Awaits one callback-style operation. `begin` receives a copyable callback
// taking the Result and starts the operation with it.
template <class Result, class Begin>
Awaitable<Result> awaitCallback(Begin begin) {
    return asio::async_initiate<const asio::use_awaitable_t<>&, void(Result)>(
        [begin = std::move(begin)](auto handler) mutable {
            using Handler = decltype(handler);
            auto once = std::make_shared<Once<Handler, Result>>(std::move(handler));
            begin([once](Result result) { once->complete(std::move(result)); });
            once->started();
        },
        asio::use_awaitable);
}

} // namespace veltrane::core
