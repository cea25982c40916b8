#include "Platform/linux/LinuxConnection.hpp"

#include "Platform/BypassMark.hpp"
#include "Platform/KernelStream.hpp"
#include "Platform/linux/LinkWatch.hpp"

#include <array>
#include <asio.hpp>
#include <atomic>
#include <cerrno>
#include <limits>
#include <list>
#include <mutex>
#include <net/if.h>
#include <netdb.h>
#include <sys/socket.h>
#include <type_traits>
#include <utility>

namespace veltrane::platform {

namespace {

using Strand = asio::strand<asio::io_context::executor_type>;

constexpr std::size_t readChunk = 65536;

NWError cancelledError() {
    return NWError::posix(ECANCELED);
}

// The resolver reports getaddrinfo's failures in asio's own categories; give
// them back their getaddrinfo codes so callers see one DNS domain.
NWError resolutionError(const std::error_code& ec) {
    if (ec == asio::error::host_not_found) {
        return NWError::dns(EAI_NONAME);
    }
    if (ec == asio::error::host_not_found_try_again) {
        return NWError::dns(EAI_AGAIN);
    }
    if (ec == asio::error::no_data) {
        return NWError::dns(EAI_NODATA);
    }
    if (ec == asio::error::service_not_found) {
        return NWError::dns(EAI_SERVICE);
    }
    if (ec == asio::error::socket_type_not_supported) {
        return NWError::dns(EAI_SOCKTYPE);
    }
    if (ec == asio::error::address_family_not_supported) {
        return NWError::dns(EAI_FAMILY);
    }
    if (ec == asio::error::no_memory) {
        return NWError::dns(EAI_MEMORY);
    }
    return NWError::dns(EAI_FAIL);
}

NWError socketError(const std::error_code& ec) {
    if (ec == asio::error::operation_aborted) {
        return cancelledError();
    }
    if (ec.category() == asio::error::get_system_category() ||
        ec.category() == std::system_category()) {
        return NWError::posix(ec.value());
    }
    // asio's own codes (end of file, not found) have no errno of their own.
    NWError error = NWError::posix(EIO);
    error.text = ec.message();
    return error;
}

template <class Protocol>
class AsioConnection final : public NWConnection, public KernelStream {
public:
    static constexpr bool isStream = std::is_same_v<Protocol, asio::ip::tcp>;

    AsioConnection(std::string host, std::uint16_t port, NWParameters parameters,
                   std::shared_ptr<const LinuxConnectionService::SecondOpinion> opinion)
        : host_(std::move(host)), port_(port), parameters_(std::move(parameters)),
          opinion_(std::move(opinion)) {}

    ~AsioConnection() override {
        if (linkToken_ != 0) {
            LinkWatch::shared().unwatch(linkToken_);
        }
    }

    void setStateUpdateHandler(StateUpdateHandler handler) override {
        std::lock_guard lock(mutex_);
        handler_ = std::move(handler);
    }

    void start(DispatchQueue& queue) override {
        std::lock_guard lock(mutex_);
        if (strand_ || cancelledEarly_) {
            return;
        }
        strand_.emplace(asio::make_strand(queue));
        asio::post(*strand_, [self = self()] { self->beginConnect(); });
    }

    NWConnectionState state() const override { return state_.load(); }

    void send(std::optional<Bytes> content, SendCompletion completion) override {
        PendingSend op{content ? std::make_shared<Bytes>(std::move(*content)) : nullptr,
                       std::move(completion)};
        bool started = false;
        {
            std::lock_guard lock(mutex_);
            started = strand_.has_value();
            if (!started && !cancelledEarly_) {
                sends_.push_back(std::move(op));
                return;
            }
        }
        if (started) {
            onStrand([self = self(), op = std::move(op)]() mutable {
                self->enqueueSend(std::move(op));
            });
            return;
        }
        if (op.completion) {
            op.completion(cancelledError());
        }
    }

    void receive(std::size_t minimumIncompleteLength, std::size_t maximumLength,
                 ReceiveCompletion completion) override {
        std::size_t maximum = std::max<std::size_t>(maximumLength, 1);
        std::size_t minimum = std::clamp<std::size_t>(minimumIncompleteLength, 1, maximum);
        submitReceive(PendingReceive{minimum, maximum, std::move(completion)});
    }

    // Called from a handler of this connection (on its strand), between
    // operations: the state below is the strand's.
    std::optional<Socket> kernelSocket() override {
        if constexpr (!isStream) {
            return std::nullopt;
        } else {
            std::lock_guard lock(mutex_);
            if (!betweenOperations()) {
                return std::nullopt;
            }
            Socket socket{socket_->native_handle(),
                          &asio::query(strand_->get_inner_executor(), asio::execution::context),
                          Bytes(inbound_.begin() + static_cast<std::ptrdiff_t>(inboundOffset_),
                                inbound_.end())};
            inbound_.clear();
            inboundOffset_ = 0;
            return socket;
        }
    }

    bool reportsAfterRelease() const override { return parameters_.requiredInterface.has_value(); }

    // As kernelSocket, and only after it.
    int releaseSocket() override {
        if constexpr (!isStream) {
            return -1;
        } else {
            std::lock_guard lock(mutex_);
            if (!betweenOperations() || !inbound_.empty()) {
                return -1;
            }
            asio::error_code error;
            const int fd = socket_->release(error);
            return error ? -1 : fd;
        }
    }

    void receiveMessage(ReceiveCompletion completion) override {
        // A stream's one message is all of it: wait for the peer's end.
        constexpr std::size_t all = std::numeric_limits<std::size_t>::max();
        submitReceive(PendingReceive{all, all, std::move(completion)});
    }

    void cancel() override {
        std::list<PendingSend> sends;
        std::list<PendingReceive> receives;
        StateUpdateHandler handler;
        {
            std::lock_guard lock(mutex_);
            if (strand_) {
                asio::post(*strand_, [self = self()] { self->cancelOnStrand(); });
                return;
            }
            if (cancelledEarly_) {
                return;
            }
            cancelledEarly_ = true;
            state_.store(NWConnectionState::cancelled);
            sends.swap(sends_);
            receives.swap(receives_);
            handler.swap(handler_);
        }
        for (auto& op : sends) {
            if (op.completion) {
                op.completion(cancelledError());
            }
        }
        for (auto& op : receives) {
            if (op.completion) {
                op.completion(std::nullopt, false, cancelledError());
            }
        }
        if (handler) {
            handler(NWConnectionState::cancelled, std::nullopt);
        }
    }

private:
    struct PendingSend {
        std::shared_ptr<Bytes> content; // null: no content
        SendCompletion completion;
    };
    struct PendingReceive {
        std::size_t minimum;
        std::size_t maximum;
        ReceiveCompletion completion;
    };

    // Established, still open both ways, and nothing in flight: only then
    // may a relay have the socket. Under mutex_.
    bool betweenOperations() const {
        return strand_ && ready_ && !finished_ && !peerFinished_ && !writeShut_ && !reading_ &&
               !writing_ && sends_.empty() && receives_.empty() && socket_;
    }

    std::shared_ptr<AsioConnection> self() {
        return std::static_pointer_cast<AsioConnection>(shared_from_this());
    }

    void submitReceive(PendingReceive op) {
        bool started = false;
        {
            std::lock_guard lock(mutex_);
            started = strand_.has_value();
            if (!started && !cancelledEarly_) {
                receives_.push_back(std::move(op));
                return;
            }
        }
        if (started) {
            onStrand([self = self(), op = std::move(op)]() mutable {
                self->enqueueReceive(std::move(op));
            });
            return;
        }
        if (op.completion) {
            op.completion(std::nullopt, false, cancelledError());
        }
    }

    // A protocol client calls from inside this connection's completions, on
    // the strand: the step then runs at once instead of a trip through the
    // scheduler. Completions it hands over meanwhile are posted, so none
    // runs inside the caller's call. `strand_` is set for good by now.
    template <class Step>
    void onStrand(Step step) {
        if (!strand_->running_in_this_thread()) {
            asio::post(*strand_, std::move(step));
            return;
        }
        struct InCall {
            int& depth;
            explicit InCall(int& d) : depth(d) { ++depth; }
            ~InCall() { --depth; }
            InCall(const InCall&) = delete;
            InCall& operator=(const InCall&) = delete;
        } inCall(callDepth_);
        step();
    }

    // ---- everything below runs on the strand ----

    void beginConnect() {
        if (finished_) {
            return;
        }
        setState(NWConnectionState::preparing, std::nullopt);
        asio::error_code ec;
        auto address = asio::ip::make_address(host_, ec);
        if (!ec) {
            endpoints_.emplace_back(address, port_);
            tryNextEndpoint();
            return;
        }
        resolver_.emplace(*strand_);
        resolver_->async_resolve(
            host_, std::to_string(port_), asio::ip::resolver_base::numeric_service,
            [self = self()](const asio::error_code& error,
                            typename Protocol::resolver::results_type results) {
                self->resolved(error, std::move(results));
            });
    }

    void resolved(const asio::error_code& ec, typename Protocol::resolver::results_type results) {
        if (finished_) {
            return;
        }
        if (ec) {
            fail(resolutionError(ec));
            return;
        }
        bool distrusted = false;
        for (const auto& entry : results) {
            endpoints_.push_back(entry.endpoint());
            distrusted = distrusted ||
                         (opinion_ && opinion_->distrusted(entry.endpoint().address().to_string()));
        }
        if (distrusted) {
            opinion_->lookUp(host_, [self = self()](std::vector<std::string> addresses) {
                asio::post(*self->strand_, [self, addresses = std::move(addresses)] {
                    self->lookedUpAgain(addresses);
                });
            });
            return;
        }
        if (endpoints_.empty()) {
            fail(NWError::dns(EAI_NONAME));
            return;
        }
        tryNextEndpoint();
    }

    void lookedUpAgain(const std::vector<std::string>& addresses) {
        if (finished_) {
            return;
        }
        endpoints_.clear();
        for (const auto& text : addresses) {
            asio::error_code ec;
            const auto address = asio::ip::make_address(text, ec);
            if (!ec) {
                endpoints_.emplace_back(address, port_);
            }
        }
        if (endpoints_.empty()) {
            fail(NWError::dns(EAI_NONAME));
            return;
        }
        tryNextEndpoint();
    }

    void tryNextEndpoint() {
        while (next_ < endpoints_.size()) {
            const auto endpoint = endpoints_[next_++];
            socket_.emplace(*strand_);
            asio::error_code ec;
            socket_->open(endpoint.protocol(), ec);
            if (ec) {
                lastError_ = socketError(ec);
                continue;
            }
            if (auto error = prepareSocket(socket_->native_handle())) {
                lastError_ = error;
                socket_->close(ec);
                continue;
            }
            socket_->async_connect(endpoint, [self = self()](const asio::error_code& error) {
                self->connectFinished(error);
            });
            return;
        }
        fail(lastError_.value_or(NWError::posix(EHOSTUNREACH)));
    }

    // The mark keeps our own traffic out of the capture rules. Only root may
    // set it; an unprivileged run (tests, trials) goes on without it.
    std::optional<NWError> prepareSocket(int fd) const {
        const std::uint32_t mark = bypassSocketMark();
        if (::setsockopt(fd, SOL_SOCKET, SO_MARK, &mark, sizeof mark) != 0 && errno != EPERM) {
            return NWError::posix(errno);
        }
        if (parameters_.requiredInterface) {
            const std::string& name = *parameters_.requiredInterface;
            // The kernel cuts longer names short and an empty one unbinds;
            // neither may widen the choice of interface.
            if (name.empty() || name.size() >= IFNAMSIZ) {
                return NWError::posix(ENODEV);
            }
            if (::setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, name.data(),
                             static_cast<socklen_t>(name.size())) != 0) {
                return NWError::posix(errno);
            }
        }
        return std::nullopt;
    }

    void connectFinished(const asio::error_code& ec) {
        if (finished_) {
            return;
        }
        if (ec) {
            lastError_ = socketError(ec);
            asio::error_code ignored;
            socket_->close(ignored);
            tryNextEndpoint();
            return;
        }
        ready_ = true;
        setState(NWConnectionState::ready, std::nullopt);
        watchInterface();
        pumpSends();
        pumpReceives();
    }

    // A connection pinned to an interface fails when the interface is removed
    // or set down: its socket would otherwise wait for ever, and so would the
    // application behind it.
    void watchInterface() {
        if (!parameters_.requiredInterface || finished_) {
            return;
        }
        const unsigned index = ::if_nametoindex(parameters_.requiredInterface->c_str());
        if (index == 0) {
            fail(NWError::posix(ENETDOWN));
            return;
        }
        std::weak_ptr<AsioConnection> weak = self();
        linkToken_ = LinkWatch::shared().watch(index, [weak] {
            if (auto self = weak.lock()) {
                asio::post(*self->strand_, [self] { self->fail(NWError::posix(ENETDOWN)); });
            }
        });
    }

    void enqueueSend(PendingSend op) {
        if (finished_) {
            deliverSend(std::move(op.completion), terminalError_);
            return;
        }
        sends_.push_back(std::move(op));
        pumpSends();
    }

    void enqueueReceive(PendingReceive op) {
        if (finished_) {
            deliverReceive(std::move(op.completion), std::nullopt, false, terminalError_);
            return;
        }
        receives_.push_back(std::move(op));
        pumpReceives();
    }

    void pumpSends() {
        while (ready_ && !finished_ && !writing_ && !sends_.empty()) {
            PendingSend& op = sends_.front();
            const bool empty = !op.content || op.content->empty();
            if constexpr (isStream) {
                if (empty) {
                    // Reached only after every earlier send has gone out.
                    asio::error_code ec;
                    if (!writeShut_) {
                        socket_->shutdown(asio::socket_base::shutdown_send, ec);
                        writeShut_ = true;
                    }
                    completeFrontSend(ec ? std::optional(socketError(ec)) : std::nullopt);
                    continue;
                }
                if (writeShut_) {
                    completeFrontSend(NWError::posix(EPIPE));
                    continue;
                }
                writing_ = true;
                asio::async_write(
                    *socket_, asio::buffer(*op.content),
                    [self = self(), data = op.content](const asio::error_code& ec, std::size_t) {
                        self->sendFinished(ec);
                    });
            } else {
                if (!op.content) {
                    completeFrontSend(std::nullopt);
                    continue;
                }
                writing_ = true;
                socket_->async_send(
                    asio::buffer(*op.content),
                    [self = self(), data = op.content](const asio::error_code& ec, std::size_t) {
                        self->sendFinished(ec);
                    });
            }
        }
    }

    void sendFinished(const asio::error_code& ec) {
        writing_ = false;
        if (finished_) {
            return;
        }
        if (ec) {
            fail(socketError(ec));
            return;
        }
        completeFrontSend(std::nullopt);
        pumpSends();
    }

    void completeFrontSend(std::optional<NWError> error) {
        auto completion = std::move(sends_.front().completion);
        sends_.pop_front();
        deliverSend(std::move(completion), std::move(error));
    }

    void pumpReceives() {
        while (ready_ && !finished_ && !receives_.empty()) {
            PendingReceive& op = receives_.front();
            if constexpr (isStream) {
                const std::size_t available = inbound_.size() - inboundOffset_;
                if (available < op.minimum && !peerFinished_) {
                    startRead();
                    return;
                }
                const std::size_t count = std::min(available, op.maximum);
                std::optional<Bytes> data;
                if (count > 0) {
                    auto first = inbound_.begin() + static_cast<std::ptrdiff_t>(inboundOffset_);
                    data.emplace(first, first + static_cast<std::ptrdiff_t>(count));
                    inboundOffset_ += count;
                }
                if (inboundOffset_ == inbound_.size()) {
                    inbound_.clear();
                    inboundOffset_ = 0;
                }
                const bool complete = peerFinished_ && inbound_.empty();
                auto completion = std::move(op.completion);
                receives_.pop_front();
                deliverReceive(std::move(completion), std::move(data), complete, std::nullopt);
            } else {
                if (datagrams_.empty()) {
                    startRead();
                    return;
                }
                Bytes datagram = std::move(datagrams_.front());
                datagrams_.pop_front();
                auto completion = std::move(op.completion);
                receives_.pop_front();
                deliverReceive(std::move(completion), std::move(datagram), true, std::nullopt);
            }
        }
    }

    // Waits for readability and only then reads, into the thread's scratch
    // buffer: a connection holds no read buffer while it waits, and only what
    // arrived is kept.
    void startRead() {
        if (reading_) {
            return;
        }
        reading_ = true;
        socket_->async_wait(Protocol::socket::wait_read,
                            [self = self()](const asio::error_code& ec) { self->readable(ec); });
    }

    void readable(asio::error_code ec) {
        thread_local std::array<std::uint8_t, readChunk> scratch;
        std::size_t count = 0;
        if (!ec && !finished_) {
            const ssize_t n =
                ::recv(socket_->native_handle(), scratch.data(), scratch.size(), MSG_DONTWAIT);
            if (n > 0) {
                count = static_cast<std::size_t>(n);
            } else if (n == 0 && isStream) {
                ec = asio::error::eof;
            } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
                reading_ = false;
                startRead(); // woken for nothing
                return;
            } else if (n < 0) {
                ec = asio::error_code(errno, asio::error::get_system_category());
            }
        }
        readFinished(ec, scratch.data(), count);
    }

    void readFinished(const asio::error_code& ec, const std::uint8_t* first, std::size_t count) {
        reading_ = false;
        if (finished_) {
            return;
        }
        const auto last = first + count;
        if constexpr (isStream) {
            if (ec == asio::error::eof) {
                peerFinished_ = true;
            } else if (ec) {
                fail(socketError(ec));
                return;
            } else {
                // Drop what was delivered, so a stream whose reader always
                // leaves a little behind does not grow the buffer for ever.
                inbound_.erase(inbound_.begin(),
                               inbound_.begin() + static_cast<std::ptrdiff_t>(inboundOffset_));
                inboundOffset_ = 0;
                inbound_.insert(inbound_.end(), first, last);
            }
        } else {
            // On a connected UDP socket a refusal means the peer's port is
            // closed: waiting for its answer would wait for ever.
            if (ec) {
                fail(socketError(ec));
                return;
            }
            datagrams_.emplace_back(first, last);
        }
        pumpReceives();
    }

    void fail(NWError error) {
        if (finished_) {
            return;
        }
        setState(NWConnectionState::failed, error);
        finish(error);
    }

    void cancelOnStrand() {
        if (cancelled_) {
            return;
        }
        cancelled_ = true;
        setState(NWConnectionState::cancelled, std::nullopt);
        if (!finished_) {
            finish(cancelledError());
        } else {
            terminalError_ = cancelledError();
        }
    }

    // Closes the socket and ends every pending operation with `error`. The
    // aborted asio operations still complete later; `finished_` makes them
    // return without touching the callers' completions a second time.
    void finish(const NWError& error) {
        finished_ = true;
        terminalError_ = error;
        if (linkToken_ != 0) {
            LinkWatch::shared().unwatch(std::exchange(linkToken_, 0));
        }
        asio::error_code ignored;
        if (resolver_) {
            resolver_->cancel();
        }
        if (socket_) {
            socket_->close(ignored);
        }
        for (auto& op : sends_) {
            deliverSend(std::move(op.completion), error);
        }
        sends_.clear();
        for (auto& op : receives_) {
            deliverReceive(std::move(op.completion), std::nullopt, false, error);
        }
        receives_.clear();
    }

    void setState(NWConnectionState state, std::optional<NWError> error) {
        state_.store(state);
        const bool terminal =
            state == NWConnectionState::failed || state == NWConnectionState::cancelled;
        asio::post(*strand_, [self = self(), state, error = std::move(error), terminal] {
            StateUpdateHandler handler;
            {
                std::lock_guard lock(self->mutex_);
                handler = terminal ? std::move(self->handler_) : self->handler_;
                if (terminal) {
                    self->handler_ = nullptr;
                }
            }
            if (handler) {
                handler(state, error);
            }
        });
    }

    // Called on the strand. A success is handed over in place, saving a trip
    // through the scheduler per step; a failure is posted, so it reaches the
    // caller after the state change that came with it, and so is anything
    // handed over inside a caller's own call.
    template <class Deliver>
    void hand(bool failed, Deliver deliver) {
        if (failed || callDepth_ > 0) {
            asio::post(*strand_, std::move(deliver));
        } else {
            asio::dispatch(*strand_, std::move(deliver));
        }
    }

    void deliverSend(SendCompletion completion, std::optional<NWError> error) {
        if (!completion) {
            return;
        }
        const bool failed = error.has_value();
        hand(failed,
             [completion = std::move(completion), error = std::move(error)] { completion(error); });
    }

    void deliverReceive(ReceiveCompletion completion, std::optional<Bytes> data, bool complete,
                        std::optional<NWError> error) {
        if (!completion) {
            return;
        }
        const bool failed = error.has_value();
        hand(failed, [completion = std::move(completion), data = std::move(data), complete,
                      error = std::move(error)]() mutable {
            completion(std::move(data), complete, error);
        });
    }

    const std::string host_;
    const std::uint16_t port_;
    const NWParameters parameters_;
    const std::shared_ptr<const LinuxConnectionService::SecondOpinion> opinion_;

    std::atomic<NWConnectionState> state_{NWConnectionState::setup};

    // Guards the handler, the choice of strand, and the held operations
    // until start(); afterwards the operations belong to the strand.
    std::mutex mutex_;
    StateUpdateHandler handler_;
    std::optional<Strand> strand_;
    bool cancelledEarly_ = false;
    std::list<PendingSend> sends_;
    std::list<PendingReceive> receives_;

    // Strand only.
    std::optional<typename Protocol::resolver> resolver_;
    std::optional<typename Protocol::socket> socket_;
    std::vector<typename Protocol::endpoint> endpoints_;
    std::size_t next_ = 0;
    std::optional<NWError> lastError_;
    std::optional<NWError> terminalError_;
    Bytes inbound_;
    std::size_t inboundOffset_ = 0;
    std::list<Bytes> datagrams_;
    bool ready_ = false;
    bool writing_ = false;
    bool reading_ = false;
    bool writeShut_ = false;
    bool peerFinished_ = false;
    bool finished_ = false;
    bool cancelled_ = false;
    int callDepth_ = 0;              // callers' steps running in place (onStrand)
    LinkWatch::Token linkToken_ = 0; // while a pinned connection is ready
};

} // namespace

void LinuxConnectionService::setSecondOpinion(SecondOpinion opinion) {
    std::lock_guard guard(lock_);
    secondOpinion_ = std::make_shared<const SecondOpinion>(std::move(opinion));
}

std::shared_ptr<NWConnection> LinuxConnectionService::makeConnection(std::string host,
                                                                     std::uint16_t port,
                                                                     NWParameters parameters) {
    std::shared_ptr<const SecondOpinion> opinion;
    {
        std::lock_guard guard(lock_);
        opinion = secondOpinion_;
    }
    if (parameters.transport == NWParameters::Transport::udp) {
        return std::make_shared<AsioConnection<asio::ip::udp>>(std::move(host), port,
                                                               std::move(parameters), opinion);
    }
    return std::make_shared<AsioConnection<asio::ip::tcp>>(std::move(host), port,
                                                           std::move(parameters), opinion);
}

} // namespace veltrane::platform
