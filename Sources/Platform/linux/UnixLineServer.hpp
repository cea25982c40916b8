#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace veltrane::platform {

// A Unix stream socket that answers each line it reads with one line. Every
// connection is served in the order of its requests; connections are served
// side by side on the server's own threads, so the handler must be safe to
// call concurrently. A client that goes away at any point ends only its own
// connection.
class UnixLineServer {
public:
    // Takes one request line (without its line end, "\r\n" or "\n") and
    // returns the reply line without a line end. Must not throw.
    using Handler = std::function<std::string(std::string_view line)>;

    struct Options {
        std::size_t maxLineLength = 64 * 1024;
        // Sent once for a line longer than maxLineLength; the rest of that
        // line is read and dropped, and the connection goes on.
        std::string overlongReply = "error: line too long";
        std::size_t threads = 2;
        mode_t mode = 0660;
        // Group given to the socket when it exists and the process may; so
        // that members reach a root-owned socket.
        std::string group = "veltrane";
    };

    UnixLineServer(std::string path, Handler handler);
    UnixLineServer(std::string path, Handler handler, Options options);
    ~UnixLineServer(); // stops

    UnixLineServer(const UnixLineServer&) = delete;
    UnixLineServer& operator=(const UnixLineServer&) = delete;

    // Binds and listens, replacing a socket file that nobody answers on.
    // Throws std::system_error when the path is too long, holds something
    // other than a socket, is served by another process, or cannot be bound.
    void start();
    // Closes the socket and every connection, joins the threads and removes
    // the socket file. Idempotent.
    void stop();

    const std::string& path() const { return path_; }

private:
    struct Impl;

    std::string path_;
    Handler handler_;
    Options options_;
    std::unique_ptr<Impl> impl_;
};

} // namespace veltrane::platform
