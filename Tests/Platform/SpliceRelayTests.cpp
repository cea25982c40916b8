#include "Platform/SpliceRelay.hpp"

#include <arpa/inet.h>
#include <asio.hpp>
#include <cerrno>
#include <csignal>
#include <future>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace veltrane::platform {
namespace {

// Both ends of one loopback TCP connection.
struct Connection {
    int near = -1; // the relay's side
    int far = -1;  // the peer's side

    Connection() {
        const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        ::bind(listener, reinterpret_cast<sockaddr*>(&address), length);
        ::listen(listener, 1);
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
        far = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ::connect(far, reinterpret_cast<sockaddr*>(&address), length);
        near = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        ::close(listener);
    }
    ~Connection() {
        for (int fd : {near, far}) {
            if (fd >= 0) {
                ::close(fd);
            }
        }
    }
};

std::string readAll(int fd) {
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<std::size_t>(n));
    }
    return text;
}

void send(int fd, const std::string& text) {
    ASSERT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

// The relay's ending in each way a flow ends, with the bytes it moved both
// ways, the application's half-close passed on while replies flow, and the
// application's connection reset when the upstream failed or the relay was
// stopped.
TEST(SpliceRelay, MovesBothWaysAndEndsOnce) {
    std::signal(SIGPIPE, SIG_IGN);
    enum class End { upstreamFinishes, appHalfClosesFirst, appResets, upstreamResets, stopped };
    const struct {
        const char* name;
        End end;
    } cases[] = {{"upstream finishes", End::upstreamFinishes},
                 {"application half-closes first", End::appHalfClosesFirst},
                 {"application resets", End::appResets},
                 {"upstream resets", End::upstreamResets},
                 {"stopped by its owner", End::stopped}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        asio::io_context queue;
        auto work = asio::make_work_guard(queue);
        std::thread runner([&] { queue.run(); });
        Connection app;
        Connection upstream;
        std::promise<SpliceRelay::Ending> ended;
        auto relay =
            SpliceRelay::make(queue, [&](const SpliceRelay::Ending& e) { ended.set_value(e); });
        ASSERT_TRUE(relay);
        relay->start(std::exchange(app.near, -1), std::exchange(upstream.near, -1));

        const std::string request(300000, 'q');
        send(app.far, request);
        std::string got(request.size(), '\0');
        ASSERT_EQ(::recv(upstream.far, got.data(), got.size(), MSG_WAITALL),
                  static_cast<ssize_t>(got.size()));
        EXPECT_EQ(got, request);

        auto reset = [](int& fd) {
            ::linger off{1, 0};
            ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &off, sizeof off);
            ::close(fd);
            fd = -1;
        };
        switch (c.end) {
        case End::appHalfClosesFirst:
            ::shutdown(app.far, SHUT_WR);
            EXPECT_EQ(readAll(upstream.far), "") << "the end of the request goes upstream";
            [[fallthrough]];
        case End::upstreamFinishes:
            send(upstream.far, "reply");
            ::shutdown(upstream.far, SHUT_WR);
            break;
        case End::appResets:
            reset(app.far);
            send(upstream.far, "into a reset");
            break;
        case End::upstreamResets:
            reset(upstream.far);
            break;
        case End::stopped:
            relay->stop();
            break;
        }
        auto future = ended.get_future();
        ASSERT_EQ(future.wait_for(std::chrono::seconds(5)), std::future_status::ready);
        const auto ending = future.get();
        EXPECT_EQ(ending.sent, request.size());
        switch (c.end) {
        case End::appHalfClosesFirst:
        case End::upstreamFinishes:
            EXPECT_FALSE(ending.appError || ending.upstreamError);
            EXPECT_EQ(ending.received, 5U);
            EXPECT_EQ(readAll(app.far), "reply");
            break;
        case End::appResets:
            EXPECT_TRUE(ending.appError);
            EXPECT_FALSE(ending.upstreamError);
            break;
        case End::upstreamResets:
        case End::stopped: {
            EXPECT_EQ(ending.upstreamError.has_value(), c.end == End::upstreamResets);
            char byte;
            EXPECT_EQ(::recv(app.far, &byte, 1, 0), -1);
            EXPECT_EQ(errno, ECONNRESET);
            break;
        }
        }
        work.reset();
        runner.join();
    }
}

} // namespace
} // namespace veltrane::platform
