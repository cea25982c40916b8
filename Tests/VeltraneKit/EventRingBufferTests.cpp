#include "VeltraneKit/EventRingBuffer.hpp"

#include <atomic>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

using namespace veltrane::kit;
using namespace std::chrono_literals;

namespace {

const Timestamp kT0 = Timestamp(1'700'000'000s);

// Events told apart by their port; the n-th is made n seconds after kT0.
ConnectionEvent eventNumber(int n, std::string app = "app", std::string host = "host.example",
                            std::optional<std::string> bundleID = std::nullopt) {
    ConnectionEvent e;
    e.id = UUID::random();
    e.date = kT0 + std::chrono::seconds(n);
    e.app = std::move(app);
    e.bundleID = std::move(bundleID);
    e.host = std::move(host);
    e.port = static_cast<std::uint16_t>(n);
    e.route = "direct";
    return e;
}

std::vector<int> ports(const std::vector<ConnectionEvent>& events) {
    std::vector<int> out;
    for (const auto& e : events) {
        out.push_back(e.port);
    }
    return out;
}

TEST(EventRingBufferTest, KeepsTheNewestInAppendOrderAcrossWrapAround) {
    struct {
        std::int64_t capacity;
        int appends;
        std::int64_t head;
        std::vector<int> kept;
    } cases[] = {
        {0, 3, 0, {3}},                             // below 1 means 1: only the latest
        {-7, 2, 0, {2}},      {1, 2, 0, {2}},       // head wraps straight back to 0
        {3, 2, 0, {1, 2}},    {3, 3, 0, {1, 2, 3}}, // exactly full: head still 0
        {3, 4, 1, {2, 3, 4}},                       // one over: index 0 overwritten
        {3, 6, 0, {4, 5, 6}},
    };
    for (const auto& c : cases) {
        EventRingBuffer ring(c.capacity);
        for (int i = 1; i <= c.appends; ++i) {
            ring.append(eventNumber(i));
        }
        SCOPED_TRACE("capacity " + std::to_string(c.capacity) + ", " + std::to_string(c.appends) +
                     " appends");
        EXPECT_EQ(ring.head(), c.head);
        EXPECT_EQ(ports(ring.snapshot(std::nullopt, std::nullopt, std::nullopt, 1000)), c.kept);
    }
}

TEST(EventRingBufferTest, FiltersThenLimitsToTheNewestMatches) {
    EventRingBuffer ring(100);
    ring.append(eventNumber(1, "Safari", "www.apple.com", "com.apple.Safari"));
    ring.append(eventNumber(2, "curl", "api.github.com"));
    ring.append(eventNumber(3, "Helper", "cdn.example.org", "org.mozilla.firefox"));
    ring.append(eventNumber(4, "firefox", "École.example.fr"));
    ring.append(eventNumber(5, "Safari", "github.com", "com.apple.Safari"));

    const std::optional<std::string> none;
    struct {
        const char* name;
        std::optional<std::string> app, host;
        std::optional<Timestamp> since;
        std::int64_t limit;
        std::vector<int> expected;
    } cases[] = {
        {"no filter", none, none, std::nullopt, 10, {1, 2, 3, 4, 5}},
        {"limit keeps the newest, oldest first", none, none, std::nullopt, 2, {4, 5}},
        {"limit zero", none, none, std::nullopt, 0, {}},
        {"negative limit gives none", none, none, std::nullopt, -1, {}},
        {"app matches the bundle id only", "mozilla", none, std::nullopt, 10, {3}},
        {"app name or bundle id", "fire", none, std::nullopt, 10, {3, 4}},
        {"host substring", none, "github", std::nullopt, 10, {2, 5}},
        {"host ignores case beyond ASCII", none, "école", std::nullopt, 10, {4}},
        {"both filters", "safari", "GITHUB", std::nullopt, 10, {5}},
        {"limit after filters", none, "github", std::nullopt, 1, {5}},
        {"since keeps an event exactly at it", none, none, kT0 + 3s, 10, {3, 4, 5}},
        {"empty filter text matches all", "", "", std::nullopt, 10, {1, 2, 3, 4, 5}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ports(ring.snapshot(c.app, c.host, c.since, c.limit)), c.expected) << c.name;
    }
}

TEST(EventRingBufferTest, SnapshotsWhileAppendingSeeWholeOrderedEvents) {
    EventRingBuffer ring(64);
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 1; i <= 5000; ++i) {
            ring.append(eventNumber(i));
        }
        done = true;
    });
    while (!done) {
        const auto seen = ports(ring.snapshot(std::nullopt, std::nullopt, std::nullopt, 64));
        for (std::size_t i = 1; i < seen.size(); ++i) {
            // Ports wrap at 65536, far above 5000: consecutive means in order.
            ASSERT_EQ(seen[i], seen[i - 1] + 1);
        }
    }
    writer.join();
    EXPECT_EQ(ports(ring.snapshot(std::nullopt, std::nullopt, std::nullopt, 3)),
              (std::vector<int>{4998, 4999, 5000}));
}

} // namespace
