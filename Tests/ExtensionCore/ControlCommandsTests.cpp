// The "stats" and "events" verbs as users run them, against a control
// service served in this process.
#include "ExtensionCore/Control/ExtensionXPCServer.hpp"
#include "ExtensionCore/Control/StatsCollector.hpp"
#include "Support/TempDir.hpp"
#include "VeltraneKit/DTOCoding.hpp"
#include "VeltraneKit/ExtensionControlClient.hpp"

#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

using namespace veltrane;
using namespace std::chrono_literals;
using kit::ConnectionEvent;

namespace {

// The command under test: $VELTRANE_CLI, else the one built with this tree.
std::string cli() {
    if (const char* path = std::getenv("VELTRANE_CLI")) {
        return path;
    }
    return VELTRANE_BINARY_DIR "/Apps/veltrane/veltrane";
}

struct Run {
    int status = -1;
    std::string out, err;
};

// The command running with stdout and stderr apart.
class Command {
public:
    explicit Command(const std::vector<std::string>& arguments) {
        std::vector<std::string> all{cli()};
        all.insert(all.end(), arguments.begin(), arguments.end());
        std::vector<char*> argv;
        for (auto& a : all) {
            argv.push_back(a.data());
        }
        argv.push_back(nullptr);
        int out[2], err[2];
        if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) {
            return;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_adddup2(&actions, err[1], 2);
        if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
            pid_ = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        ::close(out[1]);
        ::close(err[1]);
        fds_[0] = out[0];
        fds_[1] = err[0];
    }
    ~Command() {
        finish(true);
        for (int fd : fds_) {
            if (fd >= 0) {
                ::close(fd);
            }
        }
    }

    // Reads until stdout holds `text`; false at the end of the output or
    // after ten seconds.
    bool awaitOutput(const std::string& text) {
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (result_.out.find(text) == std::string::npos) {
            if (!readSome(deadline)) {
                return false;
            }
        }
        return true;
    }

    // Waits for the end (stopping the command first when `stop`), at most
    // ten seconds before it is stopped anyway.
    Run finish(bool stop = false) {
        if (pid_ < 0) {
            return result_;
        }
        if (stop) {
            ::kill(pid_, SIGTERM);
        }
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (readSome(deadline)) {
        }
        if (open_[0] || open_[1]) {
            ::kill(pid_, SIGKILL);
        }
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        result_.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return result_;
    }

private:
    bool readSome(std::chrono::steady_clock::time_point deadline) {
        while (open_[0] || open_[1]) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                return false;
            }
            pollfd p[2] = {{open_[0] ? fds_[0] : -1, POLLIN, 0},
                           {open_[1] ? fds_[1] : -1, POLLIN, 0}};
            if (::poll(p, 2, static_cast<int>(left.count())) <= 0) {
                continue;
            }
            for (int i = 0; i < 2; ++i) {
                if (p[i].revents == 0) {
                    continue;
                }
                char chunk[4096];
                const ssize_t n = ::read(fds_[i], chunk, sizeof chunk);
                if (n <= 0) {
                    open_[i] = false;
                } else {
                    (i == 0 ? result_.out : result_.err).append(chunk, static_cast<std::size_t>(n));
                }
            }
            return true;
        }
        return false;
    }

    pid_t pid_ = -1;
    int fds_[2] = {-1, -1};
    bool open_[2] = {true, true};
    Run result_;
};

Run run(const std::vector<std::string>& arguments) {
    return Command(arguments).finish();
}

class ControlCommandsTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (::access(cli().c_str(), X_OK) != 0 || run({"stats", "--help"}).status != 0 ||
            run({"events", "--help"}).status != 0) {
            GTEST_SKIP() << cli() << " has no stats and events verbs";
        }
    }
    void TearDown() override { server_.stop(); }

    ConnectionEvent record(int n, ConnectionEvent::Phase phase, std::string app) {
        ConnectionEvent e;
        e.id = kit::UUID::random();
        e.date = std::chrono::system_clock::now();
        e.app = std::move(app);
        e.host = "h" + std::to_string(n) + ".example";
        e.port = 443;
        e.phase = phase;
        e.route = "direct";
        e.bytesSent = 1500;
        e.bytesReceived = 2'500'000;
        collector_.record(e);
        return e;
    }

    test::TempDir dir_;
    const std::string socket_ = dir_ / "control.sock";
    core::StatsCollector collector_;
    core::ExtensionXPCServer server_{&collector_};
};

TEST_F(ControlCommandsTest, WithoutAnExtensionEachVerbSaysSoInOneLineAndFails) {
    // Both verbs connect before --json matters.
    const std::string none = dir_ / "none.sock";
    for (const auto& verb : {"stats", "events"}) {
        const auto result = run({verb, "--socket", none});
        EXPECT_EQ(result.status, 1) << verb;
        EXPECT_EQ(result.out, "") << verb;
        EXPECT_EQ(result.err,
                  "veltrane: no extension is running (nothing answers at " + none + ")\n")
            << verb;
    }
}

TEST_F(ControlCommandsTest, StatsPrintsTheCountersAsATableOrAsJSON) {
    record(1, ConnectionEvent::Phase::open, "Firefox");
    record(1, ConnectionEvent::Phase::close, "Firefox");
    record(2, ConnectionEvent::Phase::blocked, "curl");
    server_.startAtPath(socket_);

    const auto json = run({"stats", "--socket", socket_, "--json"});
    ASSERT_EQ(json.status, 0) << json.err;
    const auto decoded = kit::DTOCoding::decodeStats(json.out);
    ASSERT_TRUE(decoded) << json.out;
    auto expected = collector_.snapshot();
    expected.startedAt = std::chrono::floor<std::chrono::seconds>(expected.startedAt);
    EXPECT_EQ(*decoded, expected);
    EXPECT_EQ(decoded->perApp.at("Firefox").bytesReceived, 2'500'000u);

    const auto table = run({"stats", "--socket", socket_});
    ASSERT_EQ(table.status, 0) << table.err;
    for (const char* text :
         {"1 total, 0 active, 0 failed, 1 blocked", "1.5 KB sent", "2.5 MB received", "Firefox"}) {
        EXPECT_NE(table.out.find(text), std::string::npos) << text << " in\n" << table.out;
    }
}

TEST_F(ControlCommandsTest, EventsFilterAndLimitTheNewestEvents) {
    for (int i = 1; i <= 6; ++i) {
        record(i, ConnectionEvent::Phase::open, i % 2 ? "Firefox" : "curl");
    }
    server_.startAtPath(socket_);
    auto hosts = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"events", "--socket", socket_, "--json"});
        const auto result = run(arguments);
        EXPECT_EQ(result.status, 0) << result.err;
        std::vector<std::string> out;
        if (auto events = kit::DTOCoding::decodeEvents(result.out)) {
            for (const auto& e : *events) {
                out.push_back(e.host);
            }
        } else {
            ADD_FAILURE() << result.out;
        }
        return out;
    };
    // How the filters match is the ring buffer's; these show each option arrives.
    using V = std::vector<std::string>;
    EXPECT_EQ(hosts({"--app", "fire", "--limit", "2"}), (V{"h3.example", "h5.example"}));
    EXPECT_EQ(hosts({"--host", "h6"}), (V{"h6.example"}));
    EXPECT_EQ(hosts({"--since", "-1"}), V{});
    EXPECT_EQ(hosts({"--limit=-4"}), V{});

    const auto text = run({"events", "--socket", socket_, "--host", "h2"});
    EXPECT_EQ(text.status, 0);
    EXPECT_NE(text.out.find("open     curl  h2.example:443/tcp  direct"), std::string::npos)
        << text.out;
}

TEST_F(ControlCommandsTest, FollowPrintsNewEventsAsTheyCome) {
    record(1, ConnectionEvent::Phase::open, "curl");
    server_.startAtPath(socket_);
    Command follow({"events", "--socket", socket_, "--follow", "--json", "--interval", "0.05",
                    "--app", "curl"});
    // Once the events so far are shown, later ones must turn up by polling.
    ASSERT_TRUE(follow.awaitOutput("\"host\":\"h1.example\"")) << follow.finish(true).err;
    record(2, ConnectionEvent::Phase::open, "wget"); // filtered out
    record(3, ConnectionEvent::Phase::close, "curl");
    ASSERT_TRUE(follow.awaitOutput("\"host\":\"h3.example\"")) << follow.finish(true).err;
    const auto result = follow.finish(true);
    EXPECT_EQ(result.out.find("h2.example"), std::string::npos);
    // One event object per line.
    std::size_t lines = 0;
    for (std::size_t start = 0, end; (end = result.out.find('\n', start)) != std::string::npos;
         start = end + 1, ++lines) {
        EXPECT_TRUE(kit::DTOCoding::decodeEvent(result.out.substr(start, end - start)));
    }
    EXPECT_EQ(lines, 2u);
}

} // namespace
