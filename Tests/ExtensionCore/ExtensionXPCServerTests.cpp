#include "ExtensionCore/Control/ExtensionXPCServer.hpp"
#include "ExtensionCore/Control/StatsCollector.hpp"
#include "Support/TempDir.hpp"
#include "Support/UnixSockets.hpp"
#include "VeltraneKit/ExtensionControlClient.hpp"

#include <atomic>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>

using namespace veltrane;
using namespace std::chrono_literals;
using core::ExtensionXPCServer;
using core::StatsCollector;
using kit::ConnectionEvent;
using test::TempDir;

namespace {

const kit::Timestamp kNow = kit::Timestamp(1'700'000'000s); // 2023-11-14T22:13:20Z

ConnectionEvent event(int n, std::size_t padding = 0) {
    ConnectionEvent e;
    e.id = kit::UUID::random();
    e.date = kNow;
    e.app = "app/" + std::string(padding, 'x');
    e.host = "h" + std::to_string(n);
    e.port = 443;
    e.phase = ConnectionEvent::Phase::open;
    e.route = "direct";
    return e;
}

// A client that speaks the line protocol byte by byte, with no help.
class RawClient {
public:
    explicit RawClient(const std::string& path) : fd_(test::connectUnix(path)) {}
    ~RawClient() { close(); }
    void close() {
        if (fd_ >= 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }
    bool connected() const { return fd_ >= 0; }
    void send(const std::string& bytes) {
        ASSERT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    // The next line, waiting at most five seconds for it.
    std::string line() {
        for (;;) {
            if (auto nl = buffer_.find('\n'); nl != std::string::npos) {
                std::string out = buffer_.substr(0, nl);
                buffer_.erase(0, nl + 1);
                return out;
            }
            pollfd p{fd_, POLLIN, 0};
            if (::poll(&p, 1, 5000) != 1) {
                return "<timeout>";
            }
            char chunk[65536];
            const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
            if (n <= 0) {
                return "<closed>";
            }
            buffer_.append(chunk, static_cast<std::size_t>(n));
        }
    }
    // Whatever arrives first, at most `n` bytes.
    std::string some(std::size_t n) {
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, 5000) != 1) {
            return "<timeout>";
        }
        std::string out(n, '\0');
        const ssize_t got = ::recv(fd_, out.data(), n, MSG_WAITALL);
        out.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return out;
    }
    std::string ask(const std::string& request) {
        send(request + "\n");
        return line();
    }

private:
    int fd_ = -1;
    std::string buffer_;
};

TEST(ExtensionXPCServerTest, AnswersEachRequestLineWithOneReplyLine) {
    StatsCollector collector([] { return kNow; });
    for (int i = 1; i <= 3; ++i) {
        collector.record(event(i));
    }
    ExtensionXPCServer server(&collector);
    const std::string stats = R"({"activeConnections":3,"blockedConnections":0,"bytesReceived":0,)"
                              R"("bytesSent":0,"failedConnections":0,"perApp":{},)"
                              R"("startedAt":"2023-11-14T22:13:20Z","totalConnections":3})";
    struct {
        const char* request;
        std::string reply;
    } cases[] = {
        {R"({"selector":"pingWithReply:"})", R"({"reply":[true]})"},
        {R"({"arguments":[],"id":"a\/b","selector":"pingWithReply:"})",
         R"({"id":"a\/b","reply":[true]})"},
        {R"({"id":1,"selector":"fetchStatsWithReply:"})", R"({"id":1,"reply":[)" + stats + "]}"},
        {R"({"arguments":[3],"selector":"fetchEventsSinceToken:reply:"})",
         R"({"reply":[[],3]})"}, // up to date: an empty array, not null
        {"{\"selector\":", R"({"error":"the request is not JSON"})"},
        {"[1,2]", R"({"error":"the request is not a JSON object"})"},
        {R"({"id":5})", R"({"error":"the request names no selector","id":5})"},
        {R"({"selector":7})", R"({"error":"the request names no selector"})"},
        {R"({"selector":"launchMissiles:"})",
         R"({"error":"unknown selector \"launchMissiles:\""})"},
        {R"({"arguments":{"token":1},"selector":"fetchEventsSinceToken:reply:"})",
         R"({"error":"\"arguments\" is not an array"})"},
        {R"({"arguments":[1],"selector":"pingWithReply:"})",
         R"({"error":"pingWithReply: takes no arguments"})"},
        {R"({"arguments":[1],"selector":"fetchStatsWithReply:"})",
         R"({"error":"fetchStatsWithReply: takes no arguments"})"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(server.handleLine(c.request), c.reply) << c.request;
    }
    for (const char* arguments : {"[]", "[-1]", "[\"1\"]", "[1.5]", "[18446744073709551616]"}) {
        const std::string request = std::string(R"({"arguments":)") + arguments +
                                    R"(,"selector":"fetchEventsSinceToken:reply:"})";
        EXPECT_NE(server.handleLine(request).find("\"error\":"), std::string::npos) << arguments;
    }
}

TEST(ExtensionXPCServerTest, ServesARealClientOverTheSocketWithMode0660) {
    TempDir dir;
    StatsCollector collector([] { return kNow; });
    ExtensionXPCServer server(&collector);
    server.startAtPath(dir / "control.sock");
    struct stat st {};
    ASSERT_EQ(::lstat((dir / "control.sock").c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0660u);

    kit::ExtensionControlClient client(dir / "control.sock");
    EXPECT_TRUE(client.ping()); // also with nothing recorded yet
    EXPECT_EQ(client.fetchEvents(0).token, 0u);
    collector.record(event(1));
    auto closed = event(2);
    closed.phase = ConnectionEvent::Phase::close;
    closed.bytesSent = 100;
    collector.record(closed);
    const auto fetched = client.fetchEvents(0);
    ASSERT_TRUE(fetched.events);
    EXPECT_EQ(fetched.token, 2u);
    ASSERT_EQ(fetched.events->size(), 2u);
    EXPECT_EQ(fetched.events->back().host, "h2");
    const auto stats = client.fetchStats();
    ASSERT_TRUE(stats);
    EXPECT_EQ(stats->startedAt, kNow);
    EXPECT_EQ(stats->bytesSent, 100u);
    EXPECT_EQ(stats->perApp.at(closed.app).connections, 1u);

    server.stop();
    EXPECT_NE(::access((dir / "control.sock").c_str(), F_OK), 0); // the file is gone
    EXPECT_THROW(client.ping(), kit::ExtensionControlError);
}

TEST(ExtensionXPCServerTest, BadRequestsGetErrorRepliesOnAConnectionThatStaysUsable) {
    TempDir dir;
    StatsCollector collector;
    ExtensionXPCServer server(&collector);
    server.startAtPath(dir / "c.sock");
    RawClient raw(dir / "c.sock");
    ASSERT_TRUE(raw.connected());
    // Longer than any request may be: one error, the rest of the line dropped.
    EXPECT_EQ(raw.ask(std::string(200 * 1024, 'x')),
              R"({"error":"request longer than 65536 bytes"})");
    // Several requests in one write, each answered in turn.
    raw.send("{\"id\":1,\"selector\":\"pingWithReply:\"}\n{\"id\":2,\"selector\":"
             "\"pingWithReply:\"}\n");
    EXPECT_EQ(raw.line(), R"({"id":1,"reply":[true]})");
    EXPECT_EQ(raw.line(), R"({"id":2,"reply":[true]})");
}

TEST(ExtensionXPCServerTest, ClientsThatVanishMidReplyHarmNothing) {
    TempDir dir;
    StatsCollector collector;
    // About a megabyte of events: far more than the socket buffers hold.
    for (int i = 1; i <= 2000; ++i) {
        collector.record(event(i, 300));
    }
    ExtensionXPCServer server(&collector);
    server.startAtPath(dir / "c.sock");
    for (int round = 0; round < 8; ++round) {
        RawClient quitter(dir / "c.sock");
        ASSERT_TRUE(quitter.connected());
        quitter.send("{\"arguments\":[0],\"selector\":\"fetchEventsSinceToken:reply:\"}\n"
                     "{\"selector\":\"pingWithReply:\"}\n");
        if (round % 2 == 1) {
            // Read the head of the reply, then go away in its middle.
            EXPECT_EQ(quitter.some(64).rfind("{\"reply\":[[{", 0), 0u);
        }
        quitter.close();
    }
    kit::ExtensionControlClient client(dir / "c.sock");
    EXPECT_TRUE(client.ping());
    const auto fetched = client.fetchEvents(1999);
    ASSERT_TRUE(fetched.events);
    EXPECT_EQ(fetched.events->size(), 1u);
}

TEST(ExtensionXPCServerTest, ServesConcurrentlyWithEventsBeingRecorded) {
    TempDir dir;
    StatsCollector collector;
    ExtensionXPCServer server(&collector);
    server.startAtPath(dir / "c.sock");
    constexpr int kEvents = 1500; // below the 2000 a reader may fall behind by
    std::thread recorder([&] {
        for (int i = 1; i <= kEvents; ++i) {
            collector.record(event(i));
        }
    });
    std::atomic<bool> statsOK{true};
    std::thread statsReader([&] {
        kit::ExtensionControlClient client(dir / "c.sock");
        std::uint64_t lastTotal = 0;
        for (int i = 0; i < 50; ++i) {
            const auto stats = client.fetchStats();
            if (!stats || stats->totalConnections < lastTotal) {
                statsOK = false;
            }
            lastTotal = stats ? stats->totalConnections : 0;
        }
    });
    kit::ExtensionControlClient client(dir / "c.sock");
    std::vector<std::string> seen;
    std::uint64_t token = 0;
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (token < kEvents && std::chrono::steady_clock::now() < deadline) {
        auto fetched = client.fetchEvents(token);
        ASSERT_TRUE(fetched.events);
        ASSERT_EQ(fetched.events->size(), fetched.token - token);
        for (const auto& e : *fetched.events) {
            seen.push_back(e.host);
        }
        token = fetched.token;
    }
    recorder.join();
    statsReader.join();
    EXPECT_TRUE(statsOK);
    ASSERT_EQ(seen.size(), static_cast<std::size_t>(kEvents));
    for (int i = 0; i < kEvents; ++i) {
        ASSERT_EQ(seen[static_cast<std::size_t>(i)], "h" + std::to_string(i + 1));
    }
}

TEST(ExtensionXPCServerTest, TakesOverAStaleSocketButNotALiveOne) {
    TempDir dir;
    const std::string path = dir / "c.sock";
    ::close(test::bindUnix(path)); // left behind by a process that is gone
    StatsCollector collector;
    ExtensionXPCServer first(&collector);
    first.startAtPath(path);
    ExtensionXPCServer second(&collector);
    try {
        second.startAtPath(path);
        ADD_FAILURE() << "a second server took a live socket";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), EADDRINUSE);
    }
    EXPECT_TRUE(kit::ExtensionControlClient(path).ping()); // the first still serves
    // Restarting replaces the listener in place.
    first.startAtPath(path);
    EXPECT_TRUE(kit::ExtensionControlClient(path).ping());

    const std::string plainFile = dir / "file";
    dir.write("file", "");
    ExtensionXPCServer third(&collector);
    EXPECT_THROW(third.startAtPath(plainFile), std::system_error);
    EXPECT_EQ(::access(plainFile.c_str(), F_OK), 0); // never deleted
    EXPECT_THROW(third.startAtPath(dir / std::string(120, 'x')), std::system_error);
}

} // namespace
