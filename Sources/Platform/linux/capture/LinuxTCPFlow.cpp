#include "Platform/linux/capture/LinuxTCPFlow.hpp"

#include <array>
#include <asio.hpp>
#include <cerrno>
#include <poll.h>
#include <sys/socket.h>

namespace veltrane::platform::capture {

namespace {

constexpr std::size_t readChunk = 16384;
constexpr std::size_t maxTLSRecord = 16384 + 5;

// The application aborting its side is how a flow ends, not a failure of
// the system: the handlers take not-connected as an orderly end.
FlowError flowError(const std::error_code& error) {
    if (error == asio::error::connection_reset || error == asio::error::broken_pipe ||
        error == asio::error::not_connected || error == asio::error::operation_aborted ||
        error == asio::error::bad_descriptor) {
        return NEAppProxyError::notConnected();
    }
    return FlowError::posix(error.value());
}

// The length of the record the bytes start with, header included, when they
// start one.
std::optional<std::size_t> tlsRecordLength(const Bytes& bytes) {
    if (bytes.size() < 5 || bytes[0] != 0x16 || bytes[1] != 0x03) {
        return std::nullopt;
    }
    return std::min<std::size_t>(5 + ((std::size_t(bytes[3]) << 8) | bytes[4]), maxTLSRecord);
}

} // namespace

struct LinuxTCPFlow::State : std::enable_shared_from_this<LinuxTCPFlow::State> {
    explicit State(DispatchQueue& queue)
        : queue(queue), strand(asio::make_strand(queue)), socket(strand) {}

    DispatchQueue& queue;
    asio::strand<asio::io_context::executor_type> strand;
    asio::ip::tcp::socket socket; // touched on the strand only

    std::mutex lock; // guards everything below
    bool attached = false;
    bool opened = false;
    std::optional<FlowError> abandoned;
    OpenCompletion pendingOpen;
    bool readClosed = false;
    bool writeClosed = false;
    bool reset = false;
    bool firstRead = true;
    bool watching = false; // on the strand

    // Under lock.
    bool openBothWays() const { return opened && !readClosed && !writeClosed && socket.is_open(); }

    // Looks at the socket without taking from it: its end (EOF or an error)
    // is the application gone; bytes end the watch, as the application lives.
    void watch(std::function<void(bool)> onEnd) {
        socket.async_wait(asio::ip::tcp::socket::wait_read,
                          [self = shared_from_this(),
                           onEnd = std::move(onEnd)](const std::error_code& error) mutable {
                              if (error || !self->watching) {
                                  return;
                              }
                              char byte;
                              const ssize_t n = ::recv(self->socket.native_handle(), &byte, 1,
                                                       MSG_PEEK | MSG_DONTWAIT);
                              if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
                                  self->watch(std::move(onEnd));
                                  return;
                              }
                              self->watching = false;
                              if (n <= 0) {
                                  onEnd(n < 0);
                              }
                          });
    }

    // On the strand.
    void resetSocket() {
        if (!socket.is_open()) {
            return;
        }
        // Linger zero: close sends a reset, so the application's connection
        // fails rather than ends.
        ::linger off{1, 0};
        ::setsockopt(socket.native_handle(), SOL_SOCKET, SO_LINGER, &off, sizeof off);
        std::error_code ignored;
        socket.close(ignored);
    }
    // One side ends: an error resets the connection, no error shuts that
    // side down; once both are closed the socket goes.
    void close(asio::socket_base::shutdown_type side, bool reset) {
        {
            std::lock_guard guard(lock);
            (side == asio::socket_base::shutdown_receive ? readClosed : writeClosed) = true;
        }
        asio::post(strand, [this, self = shared_from_this(), side, reset] {
            if (reset) {
                resetSocket();
            } else if (socket.is_open()) {
                std::error_code ignored;
                socket.shutdown(side, ignored);
            }
            closeIfDone();
        });
    }
    void closeIfDone() {
        bool done = false;
        {
            std::lock_guard guard(lock);
            done = readClosed && writeClosed;
        }
        if (done && socket.is_open()) {
            std::error_code ignored;
            socket.close(ignored);
        }
    }
    // Waits for readability, then reads into the thread's scratch buffer and
    // delivers only what arrived: an idle flow holds no read buffer.
    void readWhenReadable(bool first, ReadCompletion completion) {
        socket.async_wait(asio::ip::tcp::socket::wait_read,
                          [self = shared_from_this(), first, completion = std::move(completion)](
                              const std::error_code& error) mutable {
                              self->readNow(error, first, std::move(completion));
                          });
    }
    void readNow(const std::error_code& waitError, bool first, ReadCompletion completion) {
        if (waitError) {
            completion(std::nullopt, flowError(waitError));
            return;
        }
        thread_local std::array<std::uint8_t, readChunk> scratch;
        const ssize_t n =
            ::recv(socket.native_handle(), scratch.data(), scratch.size(), MSG_DONTWAIT);
        if (n == 0) {
            completion(Bytes{}, std::nullopt); // the application finished sending
            return;
        }
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            readWhenReadable(first, std::move(completion));
            return;
        }
        if (n < 0) {
            completion(std::nullopt, flowError(std::error_code(errno, std::system_category())));
            return;
        }
        Bytes bytes(scratch.data(), scratch.data() + n);
        if (first) {
            completeRecord(bytes);
        }
        completion(std::move(bytes), std::nullopt);
    }

    // The rest of a TLS record whose head the first read brought, waiting a
    // few milliseconds at most; later reads deliver whatever is there.
    void completeRecord(Bytes& bytes) {
        const auto want = tlsRecordLength(bytes);
        if (!want) {
            return;
        }
        const auto deadline = std::chrono::steady_clock::now() + wholeRecordWait;
        const int fd = socket.native_handle();
        while (bytes.size() < *want) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                return;
            }
            pollfd ready{fd, POLLIN, 0};
            if (::poll(&ready, 1, static_cast<int>(left.count())) <= 0) {
                return;
            }
            const std::size_t at = bytes.size();
            bytes.resize(*want);
            const ssize_t n = ::recv(fd, bytes.data() + at, *want - at, MSG_DONTWAIT);
            bytes.resize(at + static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
            if (n <= 0) {
                return;
            }
        }
    }
};

std::shared_ptr<LinuxTCPFlow> LinuxTCPFlow::make(DispatchQueue& queue, NWEndpointRef remoteEndpoint,
                                                 NEFlowMetaData metaData) {
    return std::make_shared<LinuxTCPFlow>(queue, std::move(remoteEndpoint), std::move(metaData));
}

LinuxTCPFlow::LinuxTCPFlow(DispatchQueue& queue, NWEndpointRef remoteEndpoint,
                           NEFlowMetaData metaData)
    : remoteEndpoint_(std::move(remoteEndpoint)), metaData_(std::move(metaData)),
      state_(std::make_shared<State>(queue)) {}

LinuxTCPFlow::~LinuxTCPFlow() {
    // A flow dropped without an ending: its connection goes, on the strand.
    asio::post(state_->strand, [state = state_] {
        std::error_code ignored;
        state->socket.close(ignored);
    });
}

void LinuxTCPFlow::attach(int socketFd, bool v6) {
    asio::post(state_->strand, [state = state_, socketFd, v6] {
        std::error_code error;
        state->socket.assign(v6 ? asio::ip::tcp::v6() : asio::ip::tcp::v4(), socketFd, error);
        if (error) {
            ::close(socketFd);
        }
        OpenCompletion open;
        bool closed = false;
        {
            std::lock_guard guard(state->lock);
            state->attached = true;
            closed = state->readClosed && state->writeClosed;
            if (state->pendingOpen) {
                open = std::move(state->pendingOpen);
                state->opened = true;
            }
        }
        if (closed) {
            state->resetSocket();
        }
        if (open) {
            open(std::nullopt);
        }
    });
}

void LinuxTCPFlow::abandon(const FlowError& error) {
    OpenCompletion open;
    {
        std::lock_guard guard(state_->lock);
        if (state_->attached) {
            return;
        }
        state_->abandoned = error;
        open = std::move(state_->pendingOpen);
    }
    if (open) {
        asio::post(state_->strand, [open = std::move(open), error] { open(error); });
    }
}

bool LinuxTCPFlow::closedBeforeOpen() const {
    std::lock_guard guard(state_->lock);
    return !state_->opened && !state_->pendingOpen && state_->readClosed && state_->writeClosed;
}

void LinuxTCPFlow::open(OpenCompletion completion) {
    std::optional<FlowError> result;
    {
        std::lock_guard guard(state_->lock);
        if (state_->abandoned) {
            result = state_->abandoned;
        } else if (!state_->attached) {
            state_->pendingOpen = std::move(completion);
            return;
        } else {
            state_->opened = true;
        }
    }
    asio::post(state_->strand,
               [completion = std::move(completion), result] { completion(result); });
}

void LinuxTCPFlow::closeRead(const std::optional<FlowError>& error) {
    state_->close(asio::socket_base::shutdown_receive, error.has_value());
}

void LinuxTCPFlow::closeWrite(const std::optional<FlowError>& error) {
    state_->close(asio::socket_base::shutdown_send, error.has_value());
}

void LinuxTCPFlow::readData(ReadCompletion completion) {
    asio::post(state_->strand, [state = state_, completion = std::move(completion)]() mutable {
        bool first = false;
        {
            std::lock_guard guard(state->lock);
            if (!state->opened || state->readClosed || !state->socket.is_open()) {
                completion(std::nullopt, NEAppProxyError::notConnected());
                return;
            }
            first = std::exchange(state->firstRead, false);
        }
        state->readWhenReadable(first, std::move(completion));
    });
}

void LinuxTCPFlow::watchForEnd(std::function<void(bool reset)> onEnd) {
    asio::post(state_->strand, [state = state_, onEnd = std::move(onEnd)]() mutable {
        if (!state->socket.is_open() || state->watching) {
            return;
        }
        state->watching = true;
        state->watch(std::move(onEnd));
    });
}

void LinuxTCPFlow::stopWatching() {
    asio::post(state_->strand, [state = state_] {
        if (std::exchange(state->watching, false)) {
            std::error_code ignored;
            state->socket.cancel(ignored);
        }
    });
}

std::optional<KernelStream::Socket> LinuxTCPFlow::kernelSocket() {
    std::lock_guard guard(state_->lock);
    if (!state_->openBothWays()) {
        return std::nullopt;
    }
    return Socket{state_->socket.native_handle(), &state_->queue, {}};
}

int LinuxTCPFlow::releaseSocket() {
    std::lock_guard guard(state_->lock);
    if (!state_->openBothWays()) {
        return -1;
    }
    std::error_code error;
    const int fd = state_->socket.release(error);
    return error ? -1 : fd;
}

void LinuxTCPFlow::writeData(Bytes data, WriteCompletion completion) {
    asio::post(state_->strand, [state = state_, data = std::make_shared<Bytes>(std::move(data)),
                                completion = std::move(completion)]() mutable {
        {
            std::lock_guard guard(state->lock);
            if (!state->opened || state->writeClosed || !state->socket.is_open()) {
                completion(NEAppProxyError::notConnected());
                return;
            }
        }
        asio::async_write(
            state->socket, asio::buffer(*data),
            [data, completion = std::move(completion)](const std::error_code& error, std::size_t) {
                completion(error ? std::optional(flowError(error)) : std::nullopt);
            });
    });
}

} // namespace veltrane::platform::capture
