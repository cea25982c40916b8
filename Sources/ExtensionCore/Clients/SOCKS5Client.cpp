#include "ExtensionCore/Clients/SOCKS5Client.hpp"

#include "ExtensionCore/Clients/ConnectionSteps.hpp"

#include <asio.hpp>
#include <stdexcept>
#include <variant>

namespace veltrane::core {

struct SOCKS5Client::State {
    State(const kit::ProxyServer& proxy, platform::NWConnectionService& service,
          platform::DispatchQueue& queue)
        : connection(
              service.makeConnection(proxy.address, proxy.port, platform::NWParameters::tcp())),
          proxyCredentials(proxy.credentials), queue(queue), strand(asio::make_strand(queue)) {}

    const std::shared_ptr<platform::NWConnection> connection;
    const std::optional<kit::ProxyCredentials> proxyCredentials;
    platform::DispatchQueue& queue;
    asio::strand<asio::io_context::executor_type> strand;
    bool used = false;
};

namespace {

using ConnectionSteps::StartOutcome;

// Carries out the handshake's actions on the connection; runs on the strand.
Awaitable<SOCKS5Handshake::Established> run(std::shared_ptr<SOCKS5Client::State> state,
                                            SOCKS5Handshake handshake) {
    auto action = handshake.start();
    // A value that can't be sent fails before the connection even starts.
    if (auto* failure = std::get_if<SOCKS5Handshake::Failure>(&action)) {
        throw failure->error;
    }

    auto started = co_await ConnectionSteps::start(state->connection, state->queue);
    if (started.kind == StartOutcome::Kind::failed) {
        throw SOCKSError::connectionFailed(started.error ? started.error->localizedDescription()
                                                         : std::string("failed"));
    }
    if (started.kind == StartOutcome::Kind::cancelled) {
        throw SOCKSError::connectionFailed("cancelled");
    }

    for (;;) {
        if (auto* send = std::get_if<SOCKS5Handshake::Send>(&action)) {
            auto error = co_await ConnectionSteps::send(state->connection, std::move(send->bytes));
            if (error) {
                throw SOCKSError::connectionFailed(error->localizedDescription());
            }
            action = handshake.sendCompleted();
        } else if (auto* receive = std::get_if<SOCKS5Handshake::Receive>(&action)) {
            std::size_t count = receive->count;
            auto outcome = co_await ConnectionSteps::receive(state->connection, count, count);
            if (outcome.error) {
                throw SOCKSError::connectionFailed(outcome.error->localizedDescription());
            }
            platform::Bytes data = outcome.data.value_or(platform::Bytes{});
            action = handshake.received(data);
        } else if (auto* done = std::get_if<SOCKS5Handshake::Established>(&action)) {
            co_return *done;
        } else {
            throw std::get<SOCKS5Handshake::Failure>(action).error;
        }
    }
}

void claim(SOCKS5Client::State& state) {
    if (state.used) {
        throw std::logic_error("SOCKS5Client runs once");
    }
    state.used = true;
}

// The strand's result: the value, or the error as a plain value. The error
// is thrown again on the awaiting side, so no exception object is shared
// between the strand's thread and the caller's.
template <class T>
using Outcome = std::variant<T, SOCKSError>;

Awaitable<Outcome<std::shared_ptr<platform::NWConnection>>>
runConnect(std::shared_ptr<SOCKS5Client::State> state, SOCKS5Destination destination) {
    SOCKS5Handshake handshake(state->proxyCredentials, SOCKS5Handshake::Command::connect,
                              std::move(destination));
    std::optional<SOCKSError> failure;
    try {
        // The bound address of a CONNECT reply tells the flow nothing.
        co_await run(state, std::move(handshake));
    } catch (const SOCKSError& error) {
        failure = error;
    }
    if (failure) {
        co_return *failure;
    }
    co_return state->connection;
}

Awaitable<Outcome<SOCKS5Client::UDPAssociation>>
runAssociate(std::shared_ptr<SOCKS5Client::State> state) {
    SOCKS5Handshake handshake(state->proxyCredentials, SOCKS5Handshake::Command::udpAssociate,
                              SOCKS5Destination::ipv4("0.0.0.0", 0));
    std::optional<SOCKS5Handshake::Established> bound;
    std::optional<SOCKSError> failure;
    try {
        bound = co_await run(state, std::move(handshake));
    } catch (const SOCKSError& error) {
        failure = error;
    }
    if (failure) {
        co_return *failure;
    }
    co_return SOCKS5Client::UDPAssociation{bound->host, bound->port, state->connection};
}

} // namespace

SOCKS5Client::SOCKS5Client(const kit::ProxyServer& proxy, platform::NWConnectionService& service,
                           platform::DispatchQueue& queue)
    : state_(std::make_shared<State>(proxy, service, queue)) {}

SOCKS5Client::~SOCKS5Client() = default;

const std::shared_ptr<platform::NWConnection>& SOCKS5Client::connection() const {
    return state_->connection;
}

Awaitable<std::shared_ptr<platform::NWConnection>> SOCKS5Client::connect(Destination destination) {
    claim(*state_);
    auto state = state_;
    auto outcome = co_await asio::co_spawn(state->strand, runConnect(state, std::move(destination)),
                                           asio::use_awaitable);
    if (auto* error = std::get_if<SOCKSError>(&outcome)) {
        throw *error;
    }
    co_return std::get<0>(std::move(outcome));
}

Awaitable<SOCKS5Client::UDPAssociation> SOCKS5Client::udpAssociate() {
    claim(*state_);
    auto state = state_;
    auto outcome = co_await asio::co_spawn(state->strand, runAssociate(state), asio::use_awaitable);
    if (auto* error = std::get_if<SOCKSError>(&outcome)) {
        throw *error;
    }
    co_return std::get<0>(std::move(outcome));
}

} // namespace veltrane::core
