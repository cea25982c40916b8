#include "ExtensionCore/ConnectionSteps.hpp"

#include <asio.hpp>
#include <mutex>

namespace veltrane::core::ConnectionSteps {

namespace {

// Holds the awaiting coroutine's completion handler until the first result
// arrives, then hands it over to the handler's own executor. Later results
// find the handler gone and are dropped.
template <class Handler, class Result>
class Once {
public:
    explicit Once(Handler handler) : handler_(std::move(handler)) {}

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
        // Always posted: the connection may call back from inside the call
        // that started the operation, and the coroutine must not resume there.
        asio::post(executor, [handler = std::move(*handler), result = std::move(result)]() mutable {
            std::move(handler)(std::move(result));
        });
    }

private:
    std::mutex lock_;
    std::optional<Handler> handler_;
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
        },
        asio::use_awaitable);
}

} // namespace

Awaitable<StartOutcome> start(std::shared_ptr<platform::NWConnection> connection,
                              platform::DispatchQueue& queue) {
    // Named, not a temporary in the co_await's expression: both compilers
    // have miscompiled capturing lambda temporaries there.
    auto begin = [connection, &queue](auto done) {
        connection->setStateUpdateHandler([done](platform::NWConnectionState state,
                                                 const std::optional<platform::NWError>& error) {
            switch (state) {
            case platform::NWConnectionState::ready:
                done(StartOutcome{StartOutcome::Kind::ready, std::nullopt});
                break;
            case platform::NWConnectionState::failed:
                done(StartOutcome{StartOutcome::Kind::failed, error});
                break;
            case platform::NWConnectionState::cancelled:
                done(StartOutcome{StartOutcome::Kind::cancelled, std::nullopt});
                break;
            default:
                // Still on its way, waiting for a path included: no failure.
                break;
            }
        });
        connection->start(queue);
    };
    auto outcome = co_await awaitCallback<StartOutcome>(std::move(begin));
    connection->setStateUpdateHandler({});
    co_return outcome;
}

Awaitable<std::optional<platform::NWError>> send(std::shared_ptr<platform::NWConnection> connection,
                                                 platform::Bytes bytes) {
    return awaitCallback<std::optional<platform::NWError>>([connection, bytes = std::move(bytes)](
                                                               auto done) mutable {
        connection->send(std::move(bytes),
                         [done](const std::optional<platform::NWError>& error) { done(error); });
    });
}

Awaitable<ReceiveOutcome> receive(std::shared_ptr<platform::NWConnection> connection,
                                  std::size_t minimumIncompleteLength, std::size_t maximumLength) {
    return awaitCallback<ReceiveOutcome>(
        [connection, minimumIncompleteLength, maximumLength](auto done) {
            connection->receive(minimumIncompleteLength, maximumLength,
                                [done](std::optional<platform::Bytes> data, bool isComplete,
                                       const std::optional<platform::NWError>& error) {
                                    done(ReceiveOutcome{std::move(data), isComplete, error});
                                });
        });
}

} // namespace veltrane::core::ConnectionSteps
