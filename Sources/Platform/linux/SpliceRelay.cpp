#include "Platform/SpliceRelay.hpp"

#include <asio.hpp>
#include <cerrno>
#include <fcntl.h>
#include <mutex>
#include <optional>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace veltrane::platform {

namespace {

// A pipe of the default size holds sixteen pages or socket fragments; a
// quarter megabyte lets one splice move what one loopback read brings.
constexpr int pipeCapacity = 256 * 1024;
// Rounds of one direction before the other gets its turn on the strand.
constexpr int roundsPerTurn = 16;

// Making and closing two pipes for every flow is six system calls on a path
// where most connections are short: empty pipes are kept for the next flow.
class PipePool {
public:
    struct Pipe {
        int read = -1;
        int write = -1;
    };

    std::optional<Pipe> take() {
        {
            std::lock_guard guard(lock_);
            if (!free_.empty()) {
                const Pipe pipe = free_.back();
                free_.pop_back();
                return pipe;
            }
        }
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
            return std::nullopt;
        }
        // A smaller pipe (the per-user limit reached) only moves less at a time.
        ::fcntl(ends[1], F_SETPIPE_SZ, pipeCapacity);
        return Pipe{ends[0], ends[1]};
    }

    // A pipe that still holds bytes is closed, never handed on.
    void give(Pipe pipe, bool empty) {
        if (empty) {
            std::lock_guard guard(lock_);
            if (free_.size() < kept) {
                free_.push_back(pipe);
                return;
            }
        }
        ::close(pipe.read);
        ::close(pipe.write);
    }

    static PipePool& shared() {
        static PipePool pool;
        return pool;
    }

private:
    static constexpr std::size_t kept = 256;
    std::mutex lock_;
    std::vector<Pipe> free_;
};

class LinuxSpliceRelay final : public SpliceRelay,
                               public std::enable_shared_from_this<LinuxSpliceRelay> {
public:
    LinuxSpliceRelay(DispatchQueue& queue, OnEnd onEnd)
        : strand_(asio::make_strand(queue)), app_(strand_), upstream_(strand_),
          onEnd_(std::move(onEnd)) {}

    ~LinuxSpliceRelay() override { release(); }

    bool setUp() {
        for (auto* direction : {&toUpstream_, &toApp_}) {
            auto pipe = PipePool::shared().take();
            if (!pipe) {
                return false;
            }
            direction->pipeRead = pipe->read;
            direction->pipeWrite = pipe->write;
        }
        toUpstream_.from = &app_;
        toUpstream_.to = &upstream_;
        toUpstream_.towardUpstream = true;
        toApp_.from = &upstream_;
        toApp_.to = &app_;
        return true;
    }

    void start(int appSocket, int upstreamSocket) override {
        asio::dispatch(strand_, [self = shared_from_this(), appSocket, upstreamSocket] {
            // A side that could not be handed over (-1) ends the relay at
            // once, the other side closed as for that side's failure.
            auto take = [](Descriptor& descriptor, int fd) {
                std::error_code error = std::make_error_code(std::errc::bad_file_descriptor);
                if (fd >= 0) {
                    descriptor.assign(fd, error);
                    if (error) {
                        ::close(fd);
                    }
                }
                return error;
            };
            const auto appError = take(self->app_, appSocket);
            const auto upstreamError = take(self->upstream_, upstreamSocket);
            if (appError || upstreamError) {
                self->end(appError ? std::optional(appError.value()) : std::nullopt,
                          upstreamError ? std::optional(upstreamError.value()) : std::nullopt);
                return;
            }
            self->step(self->toUpstream_);
            self->step(self->toApp_);
        });
    }

    void stop() override {
        asio::dispatch(strand_, [self = shared_from_this()] {
            self->stopped_ = true;
            self->end(std::nullopt, std::nullopt);
        });
    }

private:
    using Descriptor = asio::posix::stream_descriptor;

    struct Direction {
        Descriptor* from = nullptr;
        Descriptor* to = nullptr;
        bool towardUpstream = false;
        int pipeRead = -1;
        int pipeWrite = -1;
        std::size_t inPipe = 0;
        std::uint64_t moved = 0;
        bool sourceEnded = false;
    };

    // Moves what can be moved now, then waits for the socket that held it up.
    void step(Direction& d) {
        for (int round = 0; round < roundsPerTurn; ++round) {
            if (ended_) {
                return;
            }
            if (d.inPipe > 0) {
                const ssize_t n = ::splice(d.pipeRead, nullptr, d.to->native_handle(), nullptr,
                                           d.inPipe, SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
                if (n > 0) {
                    d.inPipe -= static_cast<std::size_t>(n);
                    d.moved += static_cast<std::uint64_t>(n);
                    continue;
                }
                if (n < 0 && errno == EINTR) {
                    continue;
                }
                if (n < 0 && errno == EAGAIN) {
                    wait(d, *d.to, Descriptor::wait_write);
                    return;
                }
                fail(d.to == &app_, n < 0 ? errno : EPIPE);
                return;
            }
            if (d.sourceEnded) {
                if (d.towardUpstream) {
                    // The application has finished sending: so does the
                    // upstream, while its replies go on.
                    ::shutdown(upstream_.native_handle(), SHUT_WR);
                    dropPipe(d);
                } else {
                    end(std::nullopt, std::nullopt);
                }
                return;
            }
            if (!holdPipe(d)) {
                fail(d.from == &app_, EMFILE);
                return;
            }
            const ssize_t n = ::splice(d.from->native_handle(), nullptr, d.pipeWrite, nullptr,
                                       pipeCapacity, SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
            if (n > 0) {
                d.inPipe = static_cast<std::size_t>(n);
                continue;
            }
            if (n == 0) {
                d.sourceEnded = true;
                continue;
            }
            if (errno == EINTR) {
                continue;
            }
            if (errno == EAGAIN) {
                // The pipe is empty here, so it is the socket that has
                // nothing: the flow is idle that way, and needs no pipe.
                dropPipe(d);
                wait(d, *d.from, Descriptor::wait_read);
                return;
            }
            fail(d.from == &app_, errno);
            return;
        }
        // A busy direction yields, so the other is not starved.
        asio::post(strand_, [self = shared_from_this(), &d] { self->step(d); });
    }

    // An idle direction holds no pipe (two descriptors, and the kernel's
    // buffer ring): it takes one from the pool when bytes arrive.
    static bool holdPipe(Direction& d) {
        if (d.pipeRead >= 0) {
            return true;
        }
        auto pipe = PipePool::shared().take();
        if (!pipe) {
            return false;
        }
        d.pipeRead = pipe->read;
        d.pipeWrite = pipe->write;
        return true;
    }
    static void dropPipe(Direction& d) {
        if (d.pipeRead >= 0 && d.inPipe == 0) {
            PipePool::shared().give({d.pipeRead, d.pipeWrite}, true);
            d.pipeRead = -1;
            d.pipeWrite = -1;
        }
    }

    void wait(Direction& d, Descriptor& descriptor, Descriptor::wait_type type) {
        const bool onApp = &descriptor == &app_;
        descriptor.async_wait(type,
                              [self = shared_from_this(), &d, onApp](const std::error_code& error) {
                                  if (self->ended_) {
                                      return;
                                  }
                                  if (error) {
                                      self->fail(onApp, error.value());
                                      return;
                                  }
                                  self->step(d);
                              });
    }

    void fail(bool onApp, int error) {
        if (onApp) {
            end(error, std::nullopt);
        } else {
            end(std::nullopt, error);
        }
    }

    void end(std::optional<int> appError, std::optional<int> upstreamError) {
        if (ended_) {
            return;
        }
        ended_ = true;
        Ending ending{toUpstream_.moved, toApp_.moved, appError, upstreamError};
        if ((upstreamError || stopped_) && app_.is_open()) {
            // Linger zero: the close resets the application's connection.
            ::linger off{1, 0};
            ::setsockopt(app_.native_handle(), SOL_SOCKET, SO_LINGER, &off, sizeof off);
        }
        release();
        if (auto onEnd = std::move(onEnd_)) {
            onEnd(ending);
        }
    }

    void release() {
        std::error_code ignored;
        app_.close(ignored);
        upstream_.close(ignored);
        for (auto* direction : {&toUpstream_, &toApp_}) {
            if (direction->pipeRead >= 0) {
                PipePool::shared().give({direction->pipeRead, direction->pipeWrite},
                                        direction->inPipe == 0);
                direction->pipeRead = -1;
                direction->pipeWrite = -1;
            }
        }
    }

    asio::strand<DispatchQueue::executor_type> strand_;
    Descriptor app_;
    Descriptor upstream_;
    OnEnd onEnd_;
    Direction toUpstream_;
    Direction toApp_;
    bool ended_ = false;
    bool stopped_ = false;
};

} // namespace

std::shared_ptr<SpliceRelay> SpliceRelay::make(DispatchQueue& queue, OnEnd onEnd) {
    auto relay = std::make_shared<LinuxSpliceRelay>(queue, std::move(onEnd));
    if (!relay->setUp()) {
        return nullptr;
    }
    return relay;
}

} // namespace veltrane::platform
