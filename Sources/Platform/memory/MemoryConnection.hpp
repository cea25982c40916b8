#pragma once

#include "Platform/NWConnection.hpp"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>

namespace veltrane::platform {

// An in-memory NWConnection for tests of the clients and the flow pump. The
// test plays the peer and the connection service:
//
//   auto connection = MemoryConnection::make();        // a stream
//   connection->peerSend({0x05, 0x00});                // what receives deliver
//   connection->failSend(2, NWError::posix(ECONNRESET));
//   ... code under test calls start(queue), send(...), receive(...) ...
//   connection->waitFor([](const auto& r) { return r.cancels > 0; });
//   EXPECT_EQ(connection->record().sent(), expectedBytes);
//
// States: start() announces the scripted start states (by default preparing,
// then ready) to the state handler, in one posted call. Sends and receives
// made before `ready` are held until then; after `failed` or `cancelled` they
// complete with the failure's error or ECANCELED. `announce` moves the
// connection on later, as a network would.
//
// Receiving on a stream: a receive takes from the first chunk the peer sent,
// at most `maximumLength` bytes; only when that chunk holds fewer than
// `minimumIncompleteLength` bytes are the following chunks joined to it, so
// tests choose the chunk boundaries a client sees. An empty chunk is
// delivered as such, with no completion flag. After peerFinish, a receive
// that finds nothing reports the end: no data and isComplete. A datagram
// connection delivers one chunk per receiveMessage.
//
// Every completion is posted on the queue given to start(), never run inside
// the call that started the operation (before start() there is no queue:
// what ends then, by cancel or announce, completes inside that call). As
// with a real connection, one connection's completions and state reports run
// one at a time, in the order they arose, even on a queue run by several
// threads. All calls are safe from any thread.
class MemoryConnection final : public NWConnection {
public:
    struct StateStep {
        NWConnectionState state;
        std::optional<NWError> error;
    };

    struct Record {
        NWParameters parameters;
        bool started = false;
        std::vector<NWConnectionState> states; // as announced, in order
        std::size_t sendCalls = 0;
        // Accepted sends, in order; an absent or empty entry on a stream is
        // the half-close.
        std::vector<std::optional<Bytes>> sends;
        std::size_t halfCloses = 0;
        std::size_t sendsAfterHalfClose = 0; // bytes sent after the half-close
        std::size_t receiveCalls = 0;
        std::vector<std::pair<std::size_t, std::size_t>> receiveLimits; // (minimum, maximum)
        std::size_t sendsInFlight = 0;
        std::size_t receivesInFlight = 0;
        std::size_t maxSendsInFlight = 0;
        std::size_t maxReceivesInFlight = 0;
        std::size_t heldSends = 0;
        std::size_t cancels = 0;

        // All bytes of the accepted sends, in order.
        Bytes sent() const;
    };

    static std::shared_ptr<MemoryConnection> make(NWParameters parameters = NWParameters::tcp());

    // --- The peer and the network; callable at any time, from any thread ---

    // What start() announces, in order. Leave out `ready` to keep the
    // connection waiting, or end with `failed` to fail it.
    void setStartStates(std::vector<StateStep> steps);
    // A later change of state; `failed` carries its error.
    void announce(NWConnectionState state, std::optional<NWError> error = std::nullopt);
    void peerSend(Bytes chunk);
    // The peer finishes sending. With `withLastData`, the receive that takes
    // the last bytes already carries the completion flag.
    void peerFinish(bool withLastData = false);
    // The `nth` receive call (counted from 1) completes with `error`.
    void failReceive(std::size_t nth, NWError error);
    // The `nth` send call (counted from 1) completes with `error`.
    void failSend(std::size_t nth, NWError error);
    // Sends stay pending until released, as with a peer that does not read.
    void holdSends();
    void releaseSends();

    // --- What the code under test did ---

    Record record() const;
    // Waits until `predicate` holds; false when `timeout` passed first. The
    // predicate runs under the connection's lock and must only read.
    bool waitFor(const std::function<bool(const Record&)>& predicate,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

    // --- NWConnection ---

    void setStateUpdateHandler(StateUpdateHandler handler) override;
    void start(DispatchQueue& queue) override;
    NWConnectionState state() const override;
    void send(std::optional<Bytes> content, SendCompletion completion) override;
    void receive(std::size_t minimumIncompleteLength, std::size_t maximumLength,
                 ReceiveCompletion completion) override;
    void receiveMessage(ReceiveCompletion completion) override;
    void cancel() override;

    explicit MemoryConnection(NWParameters parameters);

private:
    struct PendingReceive {
        std::size_t minimum;
        std::size_t maximum;
        bool message;
        ReceiveCompletion completion;
    };
    struct PendingSend {
        std::optional<Bytes> content;
        SendCompletion completion;
    };
    using Actions = std::vector<std::function<void()>>;

    void startReceive(PendingReceive receive);
    void enterState(NWConnectionState state, std::optional<NWError> error,
                    std::vector<StateStep>& notes, Actions& actions);
    void notify(std::vector<StateStep> notes, Actions& actions);
    void serve(Actions& actions);
    bool serveOne(PendingReceive& receive, Actions& actions);
    void acceptSend(PendingSend send, Actions& actions);
    void failAll(const NWError& error, Actions& actions);
    void completeReceive(ReceiveCompletion completion, std::optional<Bytes> data, bool isComplete,
                         std::optional<NWError> error, Actions& actions);
    void completeSend(SendCompletion completion, std::optional<NWError> error, Actions& actions);
    std::optional<NWError> endError() const;
    void run(Actions actions);
    void drain();

    mutable std::mutex mutex_;
    // Completions waiting to run in order; `draining_` while one posted call
    // is running them. Separate from mutex_ so completions may call back in.
    std::mutex serialMutex_;
    std::deque<std::function<void()>> serial_;
    bool draining_ = false;
    mutable std::condition_variable changed_;
    Record record_;
    DispatchQueue* queue_ = nullptr;
    StateUpdateHandler stateHandler_;
    NWConnectionState state_ = NWConnectionState::setup;
    std::optional<NWError> failure_;
    std::vector<StateStep> startStates_;
    std::deque<Bytes> chunks_;
    bool finished_ = false;
    bool finishWithLastData_ = false;
    bool halfClosed_ = false;
    std::optional<std::pair<std::size_t, NWError>> failReceiveAt_;
    std::optional<std::pair<std::size_t, NWError>> failSendAt_;
    bool holdSends_ = false;
    std::deque<PendingReceive> receives_;
    std::deque<PendingSend> sends_;
};

// Hands out scripted connections in the order they were queued, and records
// what was asked for. When nothing is queued it makes a fresh MemoryConnection
// that becomes ready and whose peer stays silent.
class MemoryConnectionService final : public NWConnectionService {
public:
    struct Request {
        std::string host;
        std::uint16_t port = 0;
        NWParameters parameters;
        std::shared_ptr<MemoryConnection> connection;
    };

    void enqueue(std::shared_ptr<MemoryConnection> connection);
    std::vector<Request> requests() const;

    std::shared_ptr<NWConnection> makeConnection(std::string host, std::uint16_t port,
                                                 NWParameters parameters) override;

private:
    mutable std::mutex mutex_;
    std::deque<std::shared_ptr<MemoryConnection>> queued_;
    std::vector<Request> requests_;
};

} // namespace veltrane::platform
