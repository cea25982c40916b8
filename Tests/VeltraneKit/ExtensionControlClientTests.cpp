#include "Support/TempDir.hpp"
#include "Support/UnixSockets.hpp"
#include "VeltraneKit/DTOCoding.hpp"
#include "VeltraneKit/ExtensionControlClient.hpp"

#include <atomic>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace veltrane::kit;
using veltrane::test::TempDir;
using Kind = ExtensionControlError::Kind;
using nlohmann::json;

namespace {

// A peer that answers each request line as the test scripts it: the script
// gets the request and returns the bytes to send back, or nullopt to close
// the connection at once.
class ScriptedPeer {
public:
    using Script = std::function<std::optional<std::string>(const json& request)>;

    explicit ScriptedPeer(Script script)
        : script_(std::move(script)), path_(dir_ / "control.sock"),
          listener_(veltrane::test::bindUnix(path_, 8)) {
        if (::pipe(wake_) != 0) {
            ADD_FAILURE() << "pipe";
        }
        thread_ = std::thread([this] { serve(); });
    }

    ~ScriptedPeer() {
        const ssize_t woke = ::write(wake_[1], "x", 1);
        (void)woke;
        thread_.join();
        ::close(listener_);
        ::close(wake_[0]);
        ::close(wake_[1]);
    }

    const std::string& path() const { return path_; }
    int connections() const { return connections_; }

private:
    void serve() {
        std::vector<pollfd> fds{{listener_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
        std::vector<std::string> pending{"", ""};
        for (;;) {
            ::poll(fds.data(), fds.size(), -1);
            if (fds[1].revents != 0) {
                break;
            }
            if (fds[0].revents & POLLIN) {
                fds.push_back({::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC), POLLIN, 0});
                pending.emplace_back();
                ++connections_;
            }
            for (std::size_t i = 2; i < fds.size(); ++i) {
                if (fds[i].fd < 0 || fds[i].revents == 0) {
                    continue;
                }
                char chunk[4096];
                const ssize_t n = ::read(fds[i].fd, chunk, sizeof chunk);
                if (n <= 0) {
                    ::close(fds[i].fd);
                    fds[i].fd = -1;
                    continue;
                }
                pending[i].append(chunk, static_cast<std::size_t>(n));
                std::size_t newline;
                while (fds[i].fd >= 0 && (newline = pending[i].find('\n')) != std::string::npos) {
                    auto reply = script_(json::parse(pending[i].substr(0, newline)));
                    pending[i].erase(0, newline + 1);
                    if (!reply) {
                        ::close(fds[i].fd);
                        fds[i].fd = -1;
                    } else if (!reply->empty()) {
                        ::send(fds[i].fd, reply->data(), reply->size(), MSG_NOSIGNAL);
                    }
                }
            }
        }
        for (std::size_t i = 2; i < fds.size(); ++i) {
            if (fds[i].fd >= 0) {
                ::close(fds[i].fd);
            }
        }
    }

    Script script_;
    TempDir dir_;
    std::string path_;
    int listener_ = -1;
    int wake_[2] = {-1, -1};
    std::atomic<int> connections_{0};
    std::thread thread_;
};

std::string withID(const json& request, const std::string& rest) {
    return "{\"id\":" + request["id"].dump() + "," + rest + "}\n";
}

Kind failureOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const ExtensionControlError& error) {
        return error.kind();
    }
    ADD_FAILURE() << "no error";
    return Kind::badReply;
}

TEST(ExtensionControlClientTest, DataTheServiceCouldNotEncodeIsAbsentButTheTokenMovesOn) {
    ScriptedPeer peer([](const json& request) -> std::optional<std::string> {
        if (request["selector"] == "fetchStatsWithReply:") {
            return withID(request, R"("reply":[null])");
        }
        return withID(request, R"("reply":[null,9])");
    });
    ExtensionControlClient client(peer.path());
    const auto fetched = client.fetchEvents(7);
    EXPECT_FALSE(fetched.events);
    EXPECT_EQ(fetched.token, 9u);
    EXPECT_FALSE(client.fetchStats());
    EXPECT_EQ(peer.connections(), 1); // one connection for all of it
}

TEST(ExtensionControlClientTest, EachFailureHasItsKindAndTheClientRecovers) {
    struct {
        const char* name;
        std::string reply; // to the first request; "CLOSE" closes instead
        Kind kind;
        bool sameConnectionAfter;
    } cases[] = {
        {"service error", R"("error":"unknown selector")", Kind::rejected, true},
        {"not JSON", "garbage", Kind::badReply, false},
        {"no reply values", R"("result":[true])", Kind::badReply, false},
        {"wrong value type", R"("reply":["yes"])", Kind::badReply, false},
        {"reply to another id", "ID", Kind::badReply, false},
        {"closed", "CLOSE", Kind::connectionLost, false},
        {"event that does not read", R"("reply":[[{"app":"x"}],1])", Kind::badReply, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        int requests = 0;
        ScriptedPeer peer([&](const json& request) -> std::optional<std::string> {
            if (requests++ > 0) {
                return withID(request, R"("reply":[true])");
            }
            if (c.reply == "CLOSE") {
                return std::nullopt;
            }
            if (c.reply == "garbage") {
                return std::string("garbage\n");
            }
            if (c.reply == "ID") {
                return std::string("{\"id\":999,\"reply\":[true]}\n");
            }
            return withID(request, c.reply);
        });
        ExtensionControlClient client(peer.path());
        EXPECT_EQ(failureOf([&] {
                      if (std::string(c.name) == "event that does not read") {
                          client.fetchEvents(0);
                      } else {
                          client.ping();
                      }
                  }),
                  c.kind);
        EXPECT_TRUE(client.ping()); // the next request is served
        EXPECT_EQ(peer.connections(), c.sameConnectionAfter ? 1 : 2);
    }
}

TEST(ExtensionControlClientTest, GivesUpOnASilentServiceAfterItsTimeOut) {
    ScriptedPeer peer([](const json&) -> std::optional<std::string> { return std::string(); });
    ExtensionControlClient client(peer.path(), std::chrono::milliseconds(100));
    EXPECT_EQ(failureOf([&] { client.ping(); }), Kind::timedOut);
    EXPECT_FALSE(client.isConnected());
}

TEST(ExtensionControlClientTest, NothingListeningIsNotRunning) {
    TempDir dir;
    // A socket file whose server is gone refuses the connection.
    const std::string stale = dir / "stale.sock";
    ::close(veltrane::test::bindUnix(stale));
    for (const std::string& path : {(dir / "absent.sock").string(), stale, std::string(200, 'x')}) {
        ExtensionControlClient client(path);
        EXPECT_EQ(failureOf([&] { client.ping(); }), Kind::notRunning) << path;
    }
    EXPECT_NE(ExtensionControlError(Kind::notRunning, stale, "")
                  .localizedDescription()
                  .find("no extension is running"),
              std::string::npos);
}

} // namespace
