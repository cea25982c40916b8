#pragma once

#include "Platform/NWError.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace asio {
class io_context;
}

namespace veltrane::platform {

// The provider's concurrent queue: an io_context run by a small thread pool.
using DispatchQueue = asio::io_context;

using Bytes = std::vector<std::uint8_t>;

struct NWParameters {
    enum class Transport { tcp, udp };

    Transport transport = Transport::tcp;
    // SO_BINDTODEVICE: the connection leaves by this interface or not at all.
    std::optional<std::string> requiredInterface;

    static NWParameters tcp() { return NWParameters{Transport::tcp, std::nullopt}; }
    static NWParameters udp() { return NWParameters{Transport::udp, std::nullopt}; }
};

enum class NWConnectionState { setup, preparing, waiting, ready, failed, cancelled };

// An outgoing stream or datagram connection. Handlers run on the queue given
// to start(), possibly on several threads at once.
class NWConnection : public std::enable_shared_from_this<NWConnection> {
public:
    // `error` is set only with `failed`.
    using StateUpdateHandler =
        std::function<void(NWConnectionState state, const std::optional<NWError>& error)>;
    using SendCompletion = std::function<void(const std::optional<NWError>& error)>;
    // `isComplete`: on a stream the peer has finished sending; on a datagram
    // connection, one whole datagram was delivered.
    using ReceiveCompletion = std::function<void(std::optional<Bytes> data, bool isComplete,
                                                 const std::optional<NWError>& error)>;

    virtual ~NWConnection() = default;

    // Settable to nothing (an empty function) to stop hearing of the connection.
    virtual void setStateUpdateHandler(StateUpdateHandler handler) = 0;
    virtual void start(DispatchQueue& queue) = 0;
    virtual NWConnectionState state() const = 0;

    // Stream: bytes go in order and the stream stays open, except that empty
    // or absent content half-closes it (the peer reads end of stream while its
    // replies go on arriving). Datagram: one send is one datagram. Sends made
    // before `ready` are held until then.
    virtual void send(std::optional<Bytes> content, SendCompletion completion) = 0;

    // Stream: at least `minimumIncompleteLength` and at most `maximumLength`
    // bytes; fewer than the minimum only when the peer has finished.
    virtual void receive(std::size_t minimumIncompleteLength, std::size_t maximumLength,
                         ReceiveCompletion completion) = 0;
    // Datagram: one whole datagram.
    virtual void receiveMessage(ReceiveCompletion completion) = 0;

    // Closes the connection; pending operations complete once, with an error.
    virtual void cancel() = 0;
};

// Makes connections; clients take one so tests can put fakes in its place.
class NWConnectionService {
public:
    virtual ~NWConnectionService() = default;
    // `host` is a name or an address literal; resolution belongs to the connection.
    virtual std::shared_ptr<NWConnection> makeConnection(std::string host, std::uint16_t port,
                                                         NWParameters parameters) = 0;
};

} // namespace veltrane::platform
