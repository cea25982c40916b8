#include "ExtensionCore/Clients/HTTPConnectClient.hpp"

#include "ExtensionCore/Clients/ConnectionSteps.hpp"
#include "ExtensionCore/Clients/HTTPConnectHandshake.hpp"
#include "ExtensionCore/Clients/PrefixedConnection.hpp"

#include <asio.hpp>
#include <stdexcept>
#include <variant>

namespace veltrane::core {

struct HTTPConnectClient::State {
    State(const kit::ProxyServer& proxy, platform::NWConnectionService& service,
          platform::DispatchQueue& queue)
        : connection(
              service.makeConnection(proxy.address, proxy.port, platform::NWParameters::tcp())),
          credentials(proxy.credentials), queue(queue), strand(asio::make_strand(queue)) {}

    const std::shared_ptr<platform::NWConnection> connection;
    const std::optional<kit::ProxyCredentials> credentials;
    platform::DispatchQueue& queue;
    asio::strand<asio::io_context::executor_type> strand;
    bool used = false;
};

namespace {

using ConnectionSteps::StartOutcome;

Awaitable<std::shared_ptr<platform::NWConnection>>
exchange(std::shared_ptr<HTTPConnectClient::State> state, std::string host, std::uint16_t port) {
    HTTPConnectHandshake handshake(std::move(host), port, state->credentials);

    auto started = co_await ConnectionSteps::start(state->connection, state->queue);
    if (started.kind == StartOutcome::Kind::failed) {
        throw HTTPProxyError::connectionFailed(started.error ? started.error->localizedDescription()
                                                             : std::string("failed"));
    }
    if (started.kind == StartOutcome::Kind::cancelled) {
        throw HTTPProxyError::connectionFailed("cancelled");
    }

    auto sendError = co_await ConnectionSteps::send(state->connection, handshake.request());
    if (sendError) {
        throw HTTPProxyError::connectionFailed(sendError->localizedDescription());
    }

    for (;;) {
        auto outcome =
            co_await ConnectionSteps::receive(state->connection, 1, HTTPConnectHandshake::readSize);
        if (outcome.error) {
            throw HTTPProxyError::connectionFailed(outcome.error->localizedDescription());
        }
        platform::Bytes data = outcome.data.value_or(platform::Bytes{});
        auto result = handshake.received(data);
        if (std::holds_alternative<HTTPConnectHandshake::ReadMore>(result)) {
            // The proxy finished without ending its header block.
            if (outcome.isComplete) {
                throw HTTPProxyError::malformedResponse();
            }
            continue;
        }
        if (auto* failure = std::get_if<HTTPConnectHandshake::Failure>(&result)) {
            throw failure->error;
        }
        auto& established = std::get<HTTPConnectHandshake::Established>(result);
        if (established.tunnelBytes.empty()) {
            co_return state->connection;
        }
        co_return std::make_shared<PrefixedConnection>(
            state->connection, std::move(established.tunnelBytes), state->queue);
    }
}

// The strand's result: the connection, or the error as a plain value. The
// error is thrown again on the awaiting side, so no exception object is
// shared between the strand's thread and the caller's.
using Outcome = std::variant<std::shared_ptr<platform::NWConnection>, HTTPProxyError>;

Awaitable<Outcome> run(std::shared_ptr<HTTPConnectClient::State> state, std::string host,
                       std::uint16_t port) {
    std::optional<HTTPProxyError> failure;
    std::shared_ptr<platform::NWConnection> connection;
    try {
        connection = co_await exchange(std::move(state), std::move(host), port);
    } catch (const HTTPProxyError& error) {
        failure = error;
    }
    if (failure) {
        co_return *failure;
    }
    co_return connection;
}

} // namespace

HTTPConnectClient::HTTPConnectClient(const kit::ProxyServer& proxy,
                                     platform::NWConnectionService& service,
                                     platform::DispatchQueue& queue)
    : state_(std::make_shared<State>(proxy, service, queue)) {}

HTTPConnectClient::~HTTPConnectClient() = default;

const std::shared_ptr<platform::NWConnection>& HTTPConnectClient::connection() const {
    return state_->connection;
}

Awaitable<std::shared_ptr<platform::NWConnection>> HTTPConnectClient::connect(std::string host,
                                                                              std::uint16_t port) {
    if (state_->used) {
        throw std::logic_error("HTTPConnectClient runs once");
    }
    state_->used = true;
    auto state = state_;
    auto outcome = co_await asio::co_spawn(state->strand, run(state, std::move(host), port),
                                           asio::use_awaitable);
    if (auto* error = std::get_if<HTTPProxyError>(&outcome)) {
        throw *error;
    }
    co_return std::get<0>(std::move(outcome));
}

} // namespace veltrane::core
