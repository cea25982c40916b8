#include "Platform/linux/UnixLineServer.hpp"

#include <asio.hpp>
#include <asio/experimental/as_tuple.hpp>
#include <cerrno>
#include <cstring>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace veltrane::platform {

namespace {

using asio::awaitable;
using asio::use_awaitable;
using Protocol = asio::local::stream_protocol;
constexpr auto tupled = asio::experimental::as_tuple(use_awaitable);

[[noreturn]] void fail(int error, const std::string& what) {
    throw std::system_error(error, std::generic_category(), what);
}

// True when a process answers on the socket file at `path`.
bool someoneListens(const std::string& path) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const bool answered =
        ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return answered;
}

void clearStaleSocket(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) {
        if (errno == ENOENT) {
            return;
        }
        fail(errno, "lstat " + path);
    }
    if (!S_ISSOCK(st.st_mode)) {
        fail(EEXIST, path + " exists and is not a socket");
    }
    if (someoneListens(path)) {
        fail(EADDRINUSE, "another process serves " + path);
    }
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        fail(errno, "unlink " + path);
    }
}

} // namespace

struct UnixLineServer::Impl {
    asio::io_context io;
    Protocol::acceptor acceptor{io};
    std::vector<std::thread> threads;
    ino_t inode = 0;

    awaitable<void> acceptLoop(UnixLineServer* server) {
        for (;;) {
            auto [error, socket] = co_await acceptor.async_accept(tupled);
            if (error == asio::error::operation_aborted || !acceptor.is_open()) {
                co_return;
            }
            if (error) {
                // Out of descriptors or the like: this client is lost, the
                // service is not. Pause briefly so the loop does not spin.
                asio::steady_timer pause(io, std::chrono::milliseconds(50));
                co_await pause.async_wait(tupled);
                continue;
            }
            asio::co_spawn(io, session(server, std::move(socket)), asio::detached);
        }
    }

    static awaitable<void> session(UnixLineServer* server, Protocol::socket socket) {
        const auto& options = server->options_;
        std::string pending;
        bool discarding = false; // inside a line that was already too long
        char chunk[8192];
        for (;;) {
            auto [readError, n] = co_await socket.async_read_some(asio::buffer(chunk), tupled);
            const bool atEnd = static_cast<bool>(readError);
            std::string replies;
            std::string_view input(chunk, atEnd ? 0 : n);
            while (!input.empty()) {
                const auto newline = input.find('\n');
                const auto piece = input.substr(0, newline);
                if (!discarding) {
                    pending.append(piece);
                    if (pending.size() > options.maxLineLength) {
                        replies += options.overlongReply;
                        replies += '\n';
                        pending.clear();
                        discarding = true;
                    }
                }
                if (newline == std::string_view::npos) {
                    break;
                }
                input.remove_prefix(newline + 1);
                if (discarding) {
                    discarding = false;
                    continue;
                }
                answer(server, pending, replies);
                pending.clear();
            }
            // A last request without a line end still gets its answer.
            if (atEnd && !discarding && !pending.empty()) {
                answer(server, pending, replies);
                pending.clear();
            }
            if (!replies.empty()) {
                auto [writeError, written] =
                    co_await asio::async_write(socket, asio::buffer(replies), tupled);
                (void)written;
                if (writeError) {
                    co_return; // the client went away mid-reply
                }
            }
            if (atEnd) {
                co_return;
            }
        }
    }

    static void answer(UnixLineServer* server, std::string& line, std::string& replies) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.find_first_not_of(" \t") == std::string::npos) {
            return; // blank lines are keep-alives, not requests
        }
        replies += server->handler_(line);
        replies += '\n';
    }
};

UnixLineServer::UnixLineServer(std::string path, Handler handler)
    : UnixLineServer(std::move(path), std::move(handler), Options{}) {}

UnixLineServer::UnixLineServer(std::string path, Handler handler, Options options)
    : path_(std::move(path)), handler_(std::move(handler)), options_(std::move(options)) {}

UnixLineServer::~UnixLineServer() {
    stop();
}

void UnixLineServer::start() {
    if (impl_) {
        return;
    }
    if (path_.empty() || path_.size() >= sizeof(sockaddr_un::sun_path)) {
        fail(ENAMETOOLONG, "socket path \"" + path_ + "\"");
    }
    clearStaleSocket(path_);

    auto impl = std::make_unique<Impl>();
    std::error_code ec;
    impl->acceptor.open(Protocol(), ec);
    if (!ec) {
        impl->acceptor.bind(Protocol::endpoint(path_), ec);
    }
    if (ec) {
        fail(ec.value(), "bind " + path_);
    }
    // Until the mode is set nobody should connect; listen comes after it.
    if (::chmod(path_.c_str(), options_.mode) != 0) {
        const int error = errno;
        ::unlink(path_.c_str());
        fail(error, "chmod " + path_);
    }
    if (!options_.group.empty()) {
        if (const group* g = ::getgrnam(options_.group.c_str())) {
            // Only root or a member may hand the socket to the group; without
            // that right the socket simply stays with the process's group.
            (void)::chown(path_.c_str(), static_cast<uid_t>(-1), g->gr_gid);
        }
    }
    struct stat st {};
    if (::lstat(path_.c_str(), &st) == 0) {
        impl->inode = st.st_ino;
    }
    impl->acceptor.listen(asio::socket_base::max_listen_connections, ec);
    if (ec) {
        ::unlink(path_.c_str());
        fail(ec.value(), "listen " + path_);
    }

    asio::co_spawn(impl->io, impl->acceptLoop(this), asio::detached);
    const std::size_t count = std::max<std::size_t>(options_.threads, 1);
    for (std::size_t i = 0; i < count; ++i) {
        impl->threads.emplace_back([io = &impl->io] { io->run(); });
    }
    impl_ = std::move(impl);
}

void UnixLineServer::stop() {
    if (!impl_) {
        return;
    }
    impl_->io.stop();
    for (auto& thread : impl_->threads) {
        thread.join();
    }
    // Only now, with no thread running, close the acceptor and drop the
    // sessions' frames (and their sockets) with the io_context.
    std::error_code ignored;
    impl_->acceptor.close(ignored);
    // Remove the file only if it is still the one bound here: a successor may
    // already have replaced it.
    struct stat st {};
    if (::lstat(path_.c_str(), &st) == 0 && st.st_ino == impl_->inode) {
        ::unlink(path_.c_str());
    }
    impl_.reset();
}

} // namespace veltrane::platform
