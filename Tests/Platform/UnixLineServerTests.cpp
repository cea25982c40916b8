#include "Platform/linux/UnixLineServer.hpp"
#include "Support/TempDir.hpp"
#include "Support/UnixSockets.hpp"

#include <condition_variable>
#include <cstring>
#include <gtest/gtest.h>
#include <mutex>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace veltrane::platform;
using veltrane::test::connectUnix;

namespace {

// Everything the peer sends until it closes, or until five seconds pass.
std::string readToEnd(int fd) {
    std::string out;
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 5000) != 1) {
            return out + "<timeout>";
        }
        char chunk[4096];
        const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0) {
            return out;
        }
        out.append(chunk, static_cast<std::size_t>(n));
    }
}

struct UnixLineServerTest : ::testing::Test {
    veltrane::test::TempDir dir;
    const std::string path = dir / "s.sock";
};

TEST_F(UnixLineServerTest, AnswersLinesInOrderIncludingALastOneWithoutLineEnd) {
    UnixLineServer server(path,
                          [](std::string_view line) { return "<" + std::string(line) + ">"; });
    server.start();
    struct {
        const char* sent;
        const char* received;
    } cases[] = {
        {"a\r\nb", "<a>\n<b>\n"},    // CRLF, and a final line cut by the end of stream
        {"\n \n\t\r\nc\n", "<c>\n"}, // blank lines are no requests
    };
    for (const auto& c : cases) {
        const int fd = connectUnix(path);
        ASSERT_EQ(::send(fd, c.sent, std::strlen(c.sent), MSG_NOSIGNAL),
                  static_cast<ssize_t>(std::strlen(c.sent)));
        ::shutdown(fd, SHUT_WR);
        EXPECT_EQ(readToEnd(fd), c.received) << c.sent;
        ::close(fd);
    }
}

TEST_F(UnixLineServerTest, ServesConnectionsSideBySide) {
    // The first connection's request waits until the second one's arrives:
    // a server that handled one connection at a time would never answer.
    std::mutex lock;
    std::condition_variable changed;
    bool released = false;
    UnixLineServer server(path, [&](std::string_view line) {
        std::unique_lock guard(lock);
        if (line == "wait") {
            changed.wait(guard, [&] { return released; });
            return std::string("waited");
        }
        released = true;
        changed.notify_all();
        return std::string("released");
    });
    server.start();
    const int first = connectUnix(path);
    ASSERT_EQ(::send(first, "wait\n", 5, MSG_NOSIGNAL), 5);
    const int second = connectUnix(path);
    ASSERT_EQ(::send(second, "go\n", 3, MSG_NOSIGNAL), 3);
    ::shutdown(first, SHUT_WR);
    ::shutdown(second, SHUT_WR);
    EXPECT_EQ(readToEnd(second), "released\n");
    EXPECT_EQ(readToEnd(first), "waited\n");
    ::close(first);
    ::close(second);
}

TEST_F(UnixLineServerTest, StopClosesOpenConnectionsAndRemovesTheSocket) {
    auto server =
        std::make_unique<UnixLineServer>(path, [](std::string_view) { return std::string("x"); });
    server->start();
    const int idle = connectUnix(path);
    server->stop();
    EXPECT_EQ(readToEnd(idle), ""); // closed, not left hanging
    EXPECT_NE(::access(path.c_str(), F_OK), 0);
    server->stop(); // twice is fine
    ::close(idle);
    // And the same path can be served again.
    server->start();
    const int fd = connectUnix(path);
    ASSERT_EQ(::send(fd, "q\n", 2, MSG_NOSIGNAL), 2);
    ::shutdown(fd, SHUT_WR);
    EXPECT_EQ(readToEnd(fd), "x\n");
    ::close(fd);
}

} // namespace
