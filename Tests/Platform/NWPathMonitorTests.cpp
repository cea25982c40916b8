#include "Platform/NWPathMonitor.hpp"
#include "Support/NetNamespace.hpp"
#include "Support/PoolQueue.hpp"

#include <algorithm>
#include <asio.hpp>
#include <chrono>
#include <condition_variable>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <vector>

namespace veltrane::platform {
namespace {

using test::NetNamespace;
using test::PoolQueue;
using namespace std::chrono_literals;

constexpr auto deadline = 20s;

// Sorted: the path lists interfaces by index, and the kernel picks those.
std::vector<std::string> namesOf(const NWPath& path) {
    std::vector<std::string> names;
    for (const auto& interface : path.availableInterfaces) {
        names.push_back(interface.name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Every path the handler was given, in order.
class PathLog {
public:
    NWPathMonitor::PathUpdateHandler handler() {
        return [this](const NWPath& path) {
            std::lock_guard lock(mutex_);
            paths_.push_back(path);
            changed_.notify_all();
        };
    }

    // Waits until the latest report names exactly `names`.
    bool waitForNames(const std::vector<std::string>& names) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(
            lock, deadline, [&] { return !paths_.empty() && namesOf(paths_.back()) == names; });
    }

    bool waitForCount(std::size_t count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, deadline, [&] { return paths_.size() >= count; });
    }

    std::vector<NWPath> paths() {
        std::lock_guard lock(mutex_);
        return paths_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<NWPath> paths_;
};

class NWPathMonitorTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string whyNot;
        ns = NetNamespace::create(whyNot);
        if (!ns) {
            GTEST_SKIP() << whyNot;
        }
    }

    // The monitor watches the namespace of the thread that starts it.
    void startInside(NWPathMonitor& monitor, asio::io_context& queue, PathLog& log) {
        monitor.setPathUpdateHandler(log.handler());
        auto inside = ns->enter();
        ASSERT_TRUE(inside.ok());
        monitor.start(queue);
    }

    std::unique_ptr<NetNamespace> ns;
};

TEST_F(NWPathMonitorTest, ReportsInterfacesThatAreUpAsTheyChange) {
    PathLog log;
    PoolQueue queue;
    NWPathMonitor monitor;
    startInside(monitor, queue.context(), log);
    // A fresh namespace has only loopback, and it is down.
    ASSERT_TRUE(log.waitForCount(1));
    EXPECT_EQ(namesOf(log.paths().front()), std::vector<std::string>{});

    struct {
        const char* command;
        std::vector<std::string> names;
    } steps[] = {
        {"ip link set lo up", {"lo"}},
        {"ip link add vt0 type veth peer name vt1 && ip link set vt0 up", {"lo", "vt0"}},
        {"ip link set vt1 up", {"lo", "vt0", "vt1"}},
        {"ip link set vt1 down && ip link set vt1 name vt9 && ip link set vt9 up",
         {"lo", "vt0", "vt9"}},
        {"ip link set vt0 down", {"lo", "vt9"}},
        {"ip link set vt0 up && ip link del vt9", {"lo"}},
        {"ip link set lo down", {}},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.command);
        ASSERT_TRUE(ns->must(step.command));
        EXPECT_TRUE(log.waitForNames(step.names));
        EXPECT_EQ(namesOf(monitor.currentPath()), step.names);
    }
    // Loopback is interface 1 in every namespace.
    ns->must("ip link set lo up");
    ASSERT_TRUE(log.waitForNames({"lo"}));
    EXPECT_EQ(monitor.currentPath().availableInterfaces.front(), (NWInterface{"lo", 1}));
}

TEST_F(NWPathMonitorTest, AddressChangesAreReported) {
    ASSERT_TRUE(ns->must("ip link set lo up"));
    PathLog log;
    PoolQueue queue;
    NWPathMonitor monitor;
    startInside(monitor, queue.context(), log);
    ASSERT_TRUE(log.waitForCount(1));

    for (const char* command :
         {"ip addr add 10.77.0.1/24 dev lo", "ip -6 addr add fd77::1/64 dev lo",
          "ip addr del 10.77.0.1/24 dev lo"}) {
        SCOPED_TRACE(command);
        const std::size_t before = log.paths().size();
        ASSERT_TRUE(ns->must(command));
        EXPECT_TRUE(log.waitForCount(before + 1));
        EXPECT_EQ(namesOf(log.paths().back()), std::vector<std::string>{"lo"});
    }
}

TEST_F(NWPathMonitorTest, CancelStopsReportsAndReleasesTheQueue) {
    PathLog log;
    asio::io_context queue;
    NWPathMonitor monitor;
    startInside(monitor, queue, log);
    // This thread is the queue: run it until the first report.
    const auto until = std::chrono::steady_clock::now() + deadline;
    while (log.paths().empty() && std::chrono::steady_clock::now() < until) {
        queue.run_one_for(100ms);
    }
    ASSERT_EQ(log.paths().size(), 1u);

    monitor.cancel();
    ASSERT_TRUE(ns->must("ip link set lo up"));
    // A cancelled monitor leaves no work behind, so the queue runs dry.
    queue.run_for(deadline);
    EXPECT_TRUE(queue.stopped());
    EXPECT_EQ(log.paths().size(), 1u);
}

TEST_F(NWPathMonitorTest, MonitorsComeAndGoWhileTheQueueRuns) {
    // Destroying a started monitor (which cancels it) while its handlers run
    // on other threads must be clean under the thread sanitizer.
    ASSERT_TRUE(ns->must("ip link set lo up"));
    PoolQueue queue(3);
    for (int round = 0; round < 20; ++round) {
        PathLog log;
        {
            NWPathMonitor monitor;
            startInside(monitor, queue.context(), log);
            ASSERT_TRUE(ns->must(round % 2 == 0 ? "ip addr add 10.78.0.1/24 dev lo"
                                                : "ip addr del 10.78.0.1/24 dev lo"));
        }
        // Reports stop with the monitor: whatever arrived stays as it was.
        const auto seen = log.paths().size();
        EXPECT_LE(seen, 2u);
    }
    EXPECT_TRUE(queue.drain());
}

} // namespace
} // namespace veltrane::platform
