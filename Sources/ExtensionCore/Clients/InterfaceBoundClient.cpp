#include "ExtensionCore/Clients/InterfaceBoundClient.hpp"

#include "ExtensionCore/Clients/ConnectionSteps.hpp"

#include <asio.hpp>
#include <stdexcept>
#include <variant>

namespace veltrane::core {

namespace {

platform::NWParameters pinnedTCP(const platform::NWInterface& interface) {
    auto parameters = platform::NWParameters::tcp();
    parameters.requiredInterface = interface.name;
    return parameters;
}

} // namespace

struct InterfaceBoundClient::State {
    State(std::string host, std::uint16_t port, const platform::NWInterface& interface,
          platform::NWConnectionService& service, platform::DispatchQueue& queue)
        : connection(service.makeConnection(std::move(host), port, pinnedTCP(interface))),
          interfaceName(interface.name), queue(queue), strand(asio::make_strand(queue)) {}

    const std::shared_ptr<platform::NWConnection> connection;
    const std::string interfaceName;
    platform::DispatchQueue& queue;
    asio::strand<asio::io_context::executor_type> strand;
    bool used = false;
};

namespace {

// The connection, or the error as a plain value: it is thrown on the
// awaiting side, so no exception object is shared between threads.
using Outcome = std::variant<std::shared_ptr<platform::NWConnection>, InterfaceError>;

Awaitable<Outcome> run(std::shared_ptr<InterfaceBoundClient::State> state) {
    auto started = co_await ConnectionSteps::start(state->connection, state->queue);
    switch (started.kind) {
    case ConnectionSteps::StartOutcome::Kind::ready:
        break;
    case ConnectionSteps::StartOutcome::Kind::failed:
        co_return InterfaceError::connectionFailed(
            state->interfaceName,
            started.error ? started.error->localizedDescription() : std::string("failed"));
    case ConnectionSteps::StartOutcome::Kind::cancelled:
        co_return InterfaceError::connectionFailed(state->interfaceName, "cancelled");
    }
    co_return state->connection;
}

} // namespace

InterfaceBoundClient::InterfaceBoundClient(std::string host, std::uint16_t port,
                                           const platform::NWInterface& interface,
                                           platform::NWConnectionService& service,
                                           platform::DispatchQueue& queue)
    : state_(std::make_shared<State>(std::move(host), port, interface, service, queue)) {}

InterfaceBoundClient::~InterfaceBoundClient() = default;

const std::string& InterfaceBoundClient::interfaceName() const {
    return state_->interfaceName;
}

const std::shared_ptr<platform::NWConnection>& InterfaceBoundClient::connection() const {
    return state_->connection;
}

Awaitable<std::shared_ptr<platform::NWConnection>> InterfaceBoundClient::connect() {
    if (state_->used) {
        throw std::logic_error("InterfaceBoundClient runs once");
    }
    state_->used = true;
    auto state = state_;
    auto outcome = co_await asio::co_spawn(state->strand, run(state), asio::use_awaitable);
    if (auto* error = std::get_if<InterfaceError>(&outcome)) {
        throw *error;
    }
    co_return std::get<0>(std::move(outcome));
}

} // namespace veltrane::core
