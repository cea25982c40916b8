#pragma once

#include "ExtensionCore/Awaitable.hpp"
#include "Platform/NWConnection.hpp"

#include <cstddef>
#include <memory>
#include <optional>

namespace veltrane::core {

// The waits an upstream client makes on its connection, as awaitable steps.
// Each runs on the executor of the coroutine that awaits it (a client's
// strand): the connection's callback, on whatever queue thread it arrives,
// only ends the wait, exactly once, by handing the result to that executor.
// Callbacks that come after the end change nothing.
namespace ConnectionSteps {

struct StartOutcome {
    enum class Kind { ready, failed, cancelled };
    Kind kind = Kind::ready;
    std::optional<platform::NWError> error; // with `failed`
};

struct ReceiveOutcome {
    std::optional<platform::Bytes> data;
    bool isComplete = false;
    std::optional<platform::NWError> error;
};

// Installs a state handler, starts the connection on `queue` and waits for
// ready, failed or cancelled; every other state is ignored. The handler is
// removed once the wait ends.
Awaitable<StartOutcome> start(std::shared_ptr<platform::NWConnection> connection,
                              platform::DispatchQueue& queue);

// One complete send; the error of its completion, if any.
Awaitable<std::optional<platform::NWError>> send(std::shared_ptr<platform::NWConnection> connection,
                                                 platform::Bytes bytes);

Awaitable<ReceiveOutcome> receive(std::shared_ptr<platform::NWConnection> connection,
                                  std::size_t minimumIncompleteLength, std::size_t maximumLength);

} // namespace ConnectionSteps

} // namespace veltrane::core
