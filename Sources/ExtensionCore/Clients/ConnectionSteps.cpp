#include "ExtensionCore/Clients/ConnectionSteps.hpp"

#include "ExtensionCore/AwaitCallback.hpp"

#include <asio.hpp>

namespace veltrane::core::ConnectionSteps {

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
