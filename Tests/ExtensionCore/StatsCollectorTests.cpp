#include "ExtensionCore/Control/StatsCollector.hpp"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

using namespace veltrane;
using namespace std::chrono_literals;
using core::StatsCollector;
using kit::ConnectionEvent;
using Phase = kit::ConnectionEvent::Phase;

namespace {

const kit::Timestamp kNow = kit::Timestamp(1'700'000'000s);

// Events are numbered through their host, "h<n>".
ConnectionEvent event(int n, Phase phase = Phase::direct, kit::Timestamp date = kNow) {
    ConnectionEvent e;
    e.id = kit::UUID::random();
    e.date = date;
    e.app = "app";
    e.host = "h" + std::to_string(n);
    e.port = 443;
    e.phase = phase;
    e.route = "direct";
    return e;
}

std::vector<int> numbers(const std::vector<ConnectionEvent>& events) {
    std::vector<int> out;
    for (const auto& e : events) {
        out.push_back(std::stoi(e.host.substr(1)));
    }
    return out;
}

std::vector<int> range(int first, int last) {
    std::vector<int> out;
    for (int i = first; i <= last; ++i) {
        out.push_back(i);
    }
    return out;
}

StatsCollector::Now fixedClock() {
    return [] { return kNow; };
}

TEST(StatsCollectorTest, TokenProtocolKeepsItsPromises) {
    StatsCollector collector(fixedClock());
    auto fresh = collector.events(0);
    EXPECT_TRUE(fresh.events.empty());
    EXPECT_EQ(fresh.token, 0u);

    for (int i = 1; i <= 2500; ++i) {
        collector.record(event(i));
    }
    struct {
        const char* name;
        std::uint64_t since;
        std::vector<int> expected;
    } cases[] = {
        {"up to date", 2500, {}},
        {"one behind", 2499, {2500}},
        {"behind by exactly 2000", 500, range(501, 2500)},
        {"far behind: newest 2000, no mark of the gap", 0, range(501, 2500)},
        {"token from before a restart", 9000, {}},
    };
    for (const auto& c : cases) {
        const auto reply = collector.events(c.since);
        EXPECT_EQ(numbers(reply.events), c.expected) << c.name;
        EXPECT_EQ(reply.token, 2500u) << c.name;
    }
    // After a restart the reader goes on from the smaller token it was given.
    collector.record(event(2501));
    EXPECT_EQ(numbers(collector.events(2500).events), (std::vector<int>{2501}));
    // The ring still has what the tokened buffer dropped.
    kit::ConnectionQueryDTO all;
    all.limit = 5000;
    EXPECT_EQ(numbers(collector.query(all)), range(1, 2501));
}

TEST(StatsCollectorTest, SmallCountsAndTheRingBound) {
    StatsCollector collector(fixedClock());
    for (int i = 1; i <= 3; ++i) {
        collector.record(event(i));
    }
    EXPECT_EQ(numbers(collector.events(0).events), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(collector.events(0).token, 3u);
    for (int i = 4; i <= 10001; ++i) {
        collector.record(event(i));
    }
    kit::ConnectionQueryDTO all;
    all.limit = 20000;
    const auto ring = numbers(collector.query(all));
    ASSERT_EQ(ring.size(), 10000u);
    EXPECT_EQ(ring.front(), 2);
    EXPECT_EQ(ring.back(), 10001);
}

TEST(StatsCollectorTest, CountsByPhaseWithActiveNeverBelowZero) {
    struct Step {
        Phase phase;
        std::uint64_t sent = 0, received = 0;
    };
    struct {
        const char* name;
        std::vector<Step> steps;
        std::uint64_t total, active, failed, blocked, sent, received;
    } cases[] = {
        {"close with nothing open", {{Phase::close, 5, 6}}, 0, 0, 0, 0, 5, 6},
        {"failed with nothing open", {{Phase::failed}}, 0, 0, 1, 0, 0, 0},
        {"open then close", {{Phase::open}, {Phase::close, 10, 20}}, 1, 0, 0, 0, 10, 20},
        {"two open, one failed",
         {{Phase::open}, {Phase::open}, {Phase::failed, 7, 7}},
         2,
         1,
         1,
         0,
         0,
         0},
        {"blocked and direct carry no bytes",
         {{Phase::blocked, 9, 9}, {Phase::direct, 9, 9}},
         0,
         0,
         0,
         1,
         0,
         0},
    };
    for (const auto& c : cases) {
        StatsCollector collector(fixedClock());
        int n = 0;
        for (const auto& step : c.steps) {
            auto e = event(++n, step.phase);
            e.bytesSent = step.sent;
            e.bytesReceived = step.received;
            collector.record(e);
        }
        const auto s = collector.snapshot();
        SCOPED_TRACE(c.name);
        EXPECT_EQ(s.startedAt, kNow);
        EXPECT_EQ(s.totalConnections, c.total);
        EXPECT_EQ(s.activeConnections, c.active);
        EXPECT_EQ(s.failedConnections, c.failed);
        EXPECT_EQ(s.blockedConnections, c.blocked);
        EXPECT_EQ(s.bytesSent, c.sent);
        EXPECT_EQ(s.bytesReceived, c.received);
        // Every event stands in the buffers, whatever it counted for.
        EXPECT_EQ(collector.events(0).events.size(), c.steps.size());
    }
}

TEST(StatsCollectorTest, PerAppCountsClosedFlowsUnderTheBundleNameElseTheApp) {
    StatsCollector collector(fixedClock());
    auto closed = [&](std::string app, std::optional<std::string> bundle, std::uint64_t sent) {
        auto e = event(1, Phase::close);
        e.app = std::move(app);
        e.appBundleName = std::move(bundle);
        e.bytesSent = sent;
        e.bytesReceived = sent * 2;
        collector.record(e);
    };
    closed("Google Chrome Helper", "Google Chrome", 10);
    closed("Google Chrome Helper (GPU)", "Google Chrome", 5);
    closed("curl", std::nullopt, 1);
    auto open = event(2, Phase::open);
    open.app = "wget";
    collector.record(open);
    auto blocked = event(3, Phase::blocked);
    blocked.app = "blocked-app";
    collector.record(blocked);

    const auto s = collector.snapshot();
    ASSERT_EQ(s.perApp.size(), 2u);
    EXPECT_EQ(s.perApp.at("Google Chrome"), (kit::AppStats{2, 15, 30}));
    EXPECT_EQ(s.perApp.at("curl"), (kit::AppStats{1, 1, 2}));
}

TEST(StatsCollectorTest, QueryDefaultsLimitsAndLooksBackFromItsClock) {
    StatsCollector collector(fixedClock());
    for (int i = 1; i <= 600; ++i) {
        // Event n is (600 - n) seconds old: the newest is from this very moment.
        collector.record(event(i, Phase::direct, kNow - std::chrono::seconds(600 - i)));
    }
    auto query = [&](std::optional<std::int64_t> since, std::optional<std::int64_t> limit) {
        kit::ConnectionQueryDTO q;
        q.sinceMinutes = since;
        q.limit = limit;
        return numbers(collector.query(q));
    };
    EXPECT_EQ(query(std::nullopt, std::nullopt), range(101, 600)); // newest 500
    EXPECT_EQ(query(0, std::nullopt), (std::vector<int>{600}));    // from now on
    EXPECT_EQ(query(1, std::nullopt), range(540, 600));
    EXPECT_EQ(query(-1, std::nullopt), std::vector<int>{}); // the future
    EXPECT_EQ(query(std::nullopt, 2), (std::vector<int>{599, 600}));
}

TEST(StatsCollectorTest, RecordsFromManyThreadsWhileReadersPoll) {
    StatsCollector collector;
    constexpr int kThreads = 4, kPerThread = 2000;
    std::atomic<bool> done{false};
    std::thread reader([&] {
        std::uint64_t token = 0;
        while (!done) {
            auto reply = collector.events(token);
            ASSERT_GE(reply.token, token);
            token = reply.token;
            const auto s = collector.snapshot();
            ASSERT_LE(s.activeConnections, s.totalConnections);
        }
    });
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t) {
        writers.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                collector.record(
                    event(t * kPerThread + i, i % 2 == 0 ? Phase::open : Phase::close));
            }
        });
    }
    for (auto& w : writers) {
        w.join();
    }
    done = true;
    reader.join();
    const auto s = collector.snapshot();
    EXPECT_EQ(s.totalConnections, static_cast<std::uint64_t>(kThreads * kPerThread / 2));
    EXPECT_EQ(collector.events(0).token, static_cast<std::uint64_t>(kThreads * kPerThread));
    EXPECT_EQ(s.perApp.at("app").connections,
              static_cast<std::uint64_t>(kThreads * kPerThread / 2));
}

} // namespace
