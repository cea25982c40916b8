#include "ExtensionCore/Flow/FlowPump.hpp"
#include "ExtensionCore/TestBytes.hpp"
#include "Platform/memory/MemoryConnection.hpp"
#include "Platform/memory/MemoryTCPFlow.hpp"

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <cerrno>
#include <condition_variable>
#include <gtest/gtest.h>
#include <latch>
#include <thread>

namespace {

using veltrane::core::FlowPump;
using veltrane::platform::Bytes;
using veltrane::platform::FlowError;
using veltrane::platform::MemoryConnection;
using veltrane::platform::MemoryTCPFlow;
using veltrane::platform::NWError;
using veltrane::test::bytes;

// Collects what onClose reported.
struct CloseProbe {
    std::mutex mutex;
    std::condition_variable changed;
    int calls = 0;
    FlowPump::Counters counters;
    std::optional<FlowError> error;

    FlowPump::OnClose callback() {
        return [this](FlowPump::Counters c, const std::optional<FlowError>& e) {
            std::lock_guard guard(mutex);
            ++calls;
            counters = c;
            error = e;
            changed.notify_all();
        };
    }
    bool wait() {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(10), [&] { return calls > 0; });
    }
};

// One pump between a memory flow and a memory connection. As in the
// provider, the flow's completions come from the host's thread and the
// connection's from the provider's queue. Without threads the test runs both
// queues itself, so each step settles before the next assertion; with
// threads the two directions race.
struct Harness {
    asio::io_context hostQueue;
    asio::io_context providerQueue;
    std::shared_ptr<MemoryTCPFlow> flow = MemoryTCPFlow::make(hostQueue, "203.0.113.7", "443");
    std::shared_ptr<MemoryConnection> upstream = MemoryConnection::make();
    CloseProbe probe;
    std::weak_ptr<FlowPump> pump;
    using WorkGuard = asio::executor_work_guard<asio::io_context::executor_type>;
    std::vector<WorkGuard> work;
    std::vector<std::thread> threads;

    explicit Harness(bool threaded = false) {
        bool opened = false;
        flow->open([&](const std::optional<FlowError>& error) { opened = !error; });
        upstream->start(providerQueue);
        settle();
        EXPECT_TRUE(opened);
        if (threaded) {
            for (auto* queue : {&hostQueue, &providerQueue}) {
                queue->restart();
                work.push_back(asio::make_work_guard(*queue));
                threads.emplace_back([queue] { queue->run(); });
            }
        }
    }
    ~Harness() {
        drain();
        // A pump that is still running holds itself through the completions
        // its flow and connection keep; ending both sides must free it.
        if (!pump.expired()) {
            upstream->cancel();
            flow->appGoAway();
            settle();
            EXPECT_TRUE(pump.expired());
        }
    }

    void start(std::optional<Bytes> initial = std::nullopt) {
        auto p = std::make_shared<FlowPump>(flow, upstream, std::move(initial), probe.callback());
        pump = p;
        p->start(); // the caller keeps no reference
    }
    // Runs every handler that is ready on either queue, until none is left.
    void settle() {
        std::size_t ran = 0;
        do {
            hostQueue.restart();
            providerQueue.restart();
            ran = hostQueue.poll() + providerQueue.poll();
        } while (ran > 0);
    }
    // Lets the threads finish every handler, then stops them.
    void drain() {
        work.clear();
        for (auto& thread : threads) {
            thread.join();
        }
        threads.clear();
    }
};

const FlowError resetByPeer = FlowError::from(NWError::posix(ECONNRESET));

TEST(FlowPumpTest, EveryFailingOperationEndsTheFlowOnceWithItsError) {
    const FlowError appError{"TestDomain", 42, "application failed"};
    struct Case {
        const char* name;
        std::function<void(Harness&)> script;
        FlowError expected;
        FlowPump::Counters counters;
    } cases[] = {
        {"flow read", [&](Harness& h) { h.flow->failRead(1, appError); }, appError, {0, 0}},
        {"flow write",
         [&](Harness& h) {
             h.upstream->peerSend(bytes("reply"));
             h.flow->failWrite(1, appError);
         },
         appError,
         {0, 0}},
        {"upstream send",
         [&](Harness& h) {
             h.flow->appSend(bytes("request"));
             h.upstream->failSend(1, NWError::posix(ECONNRESET));
         },
         resetByPeer,
         {0, 0}},
        {"upstream receive after bytes went both ways",
         [&](Harness& h) {
             h.flow->appSend(bytes("abc"));
             h.upstream->peerSend(bytes("de"));
             h.upstream->failReceive(2, NWError::posix(ECONNRESET));
         },
         resetByPeer,
         {3, 2}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Harness h;
        c.script(h);
        h.start();
        h.settle();
        ASSERT_EQ(h.probe.calls, 1);
        EXPECT_EQ(h.probe.error, c.expected);
        EXPECT_EQ(h.probe.counters, c.counters);
        auto flow = h.flow->record();
        EXPECT_EQ(flow.closeReads, std::vector<std::optional<FlowError>>{c.expected});
        EXPECT_EQ(flow.closeWrites, std::vector<std::optional<FlowError>>{c.expected});
        EXPECT_EQ(h.upstream->record().cancels, 1u);
        EXPECT_TRUE(h.pump.expired()) << "pending completions must be released";
    }
}

TEST(FlowPumpTest, InitialBytesGoFirstAndCountOnceSent) {
    Harness h;
    h.upstream->holdSends();
    h.flow->appSend(bytes("-more"));
    h.start(bytes("hello"));
    h.settle();
    // The first read of the flow waits for the initial bytes; the upstream
    // direction does not.
    EXPECT_EQ(h.flow->record().reads, 0u);
    EXPECT_EQ(h.upstream->record().receiveCalls, 1u);

    h.upstream->releaseSends();
    h.settle();
    auto sent = h.upstream->record();
    ASSERT_EQ(sent.sends.size(), 2u);
    EXPECT_EQ(sent.sends[0], bytes("hello"));
    EXPECT_EQ(sent.sent(), bytes("hello-more"));

    h.upstream->peerFinish();
    h.settle();
    ASSERT_EQ(h.probe.calls, 1);
    EXPECT_EQ(h.probe.counters, (FlowPump::Counters{10, 0}));
    EXPECT_EQ(h.probe.error, std::nullopt);
}

// Absent initial bytes are every other test's start.
TEST(FlowPumpTest, EmptyInitialBytesStartTheFirstReadAtOnce) {
    Harness h;
    h.flow->appSend(bytes("x"));
    h.start(Bytes{});
    h.settle();
    auto sent = h.upstream->record();
    EXPECT_EQ(sent.halfCloses, 0u) << "empty initial bytes must not end the stream";
    ASSERT_EQ(sent.sends.size(), 1u);
    EXPECT_EQ(sent.sends[0], bytes("x"));
}

TEST(FlowPumpTest, FailedInitialSendEndsTheFlowBeforeAnyRead) {
    Harness h;
    h.flow->appSend(bytes("never read"));
    h.upstream->failSend(1, NWError::posix(ECONNRESET));
    h.start(bytes("hello"));
    h.settle();
    ASSERT_EQ(h.probe.calls, 1);
    EXPECT_EQ(h.probe.error, resetByPeer);
    EXPECT_EQ(h.probe.counters, (FlowPump::Counters{0, 0}));
    EXPECT_EQ(h.flow->record().reads, 0u);
}

TEST(FlowPumpTest, ApplicationHalfCloseKeepsRepliesFlowingUntilUpstreamFinishes) {
    // The application ends its sending with empty data or with no data.
    for (bool emptyData : {true, false}) {
        SCOPED_TRACE(emptyData ? "empty data" : "no data");
        Harness h;
        h.flow->appSend(bytes("ping"));
        if (emptyData) {
            h.flow->appSend(Bytes{});
        } else {
            h.flow->appFinish();
        }
        h.start();
        h.settle();
        auto up = h.upstream->record();
        EXPECT_EQ(up.sent(), bytes("ping"));
        EXPECT_EQ(up.halfCloses, 1u);
        EXPECT_EQ(h.flow->record().reads, 2u) << "no read after the end of sending";
        EXPECT_EQ(h.probe.calls, 0);

        h.upstream->peerSend(bytes("po"));
        h.settle();
        h.upstream->peerSend(bytes("ng"));
        h.settle();
        EXPECT_EQ(h.flow->received(), bytes("pong"));
        EXPECT_EQ(h.probe.calls, 0);

        h.upstream->peerFinish();
        h.settle();
        ASSERT_EQ(h.probe.calls, 1);
        EXPECT_EQ(h.probe.counters, (FlowPump::Counters{4, 4}));
        EXPECT_EQ(h.probe.error, std::nullopt);
        auto flow = h.flow->record();
        EXPECT_EQ(flow.closeReads, std::vector<std::optional<FlowError>>{std::nullopt});
        EXPECT_EQ(flow.closeWrites, std::vector<std::optional<FlowError>>{std::nullopt});
        EXPECT_EQ(h.upstream->record().sendsAfterHalfClose, 0u);
    }
}

TEST(FlowPumpTest, UpstreamFinishingClosesTheWholeFlowWhileTheApplicationSends) {
    Harness h;
    h.flow->appSend(bytes("still sending"));
    h.start();
    h.settle();
    EXPECT_EQ(h.upstream->record().sent(), bytes("still sending"));

    h.upstream->peerSend(bytes("bye"));
    h.upstream->peerFinish();
    h.settle();
    ASSERT_EQ(h.probe.calls, 1);
    EXPECT_EQ(h.probe.error, std::nullopt);
    EXPECT_EQ(h.probe.counters, (FlowPump::Counters{13, 3}));
    EXPECT_TRUE(h.flow->record().closed());
    EXPECT_EQ(h.upstream->record().cancels, 1u);
    EXPECT_TRUE(h.pump.expired());
}

TEST(FlowPumpTest, ReceivesAgainAfterEmptyDataAndHonoursTheEndFlagOnlyWithoutBytes) {
    struct Case {
        const char* name;
        bool finishWithLastData;
    } cases[] = {{"end reported alone", false}, {"end reported with the last bytes", true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Harness h;
        h.upstream->peerSend(Bytes{});
        h.upstream->peerSend(bytes("data"));
        h.upstream->peerFinish(c.finishWithLastData);
        h.start();
        h.settle();
        ASSERT_EQ(h.probe.calls, 1);
        EXPECT_EQ(h.probe.error, std::nullopt);
        EXPECT_EQ(h.probe.counters, (FlowPump::Counters{0, 4}));
        auto flow = h.flow->record();
        EXPECT_EQ(flow.written, std::vector<Bytes>{bytes("data")}) << "no empty write";
        auto up = h.upstream->record();
        EXPECT_EQ(up.receiveCalls, 3u);
        for (auto limits : up.receiveLimits) {
            EXPECT_EQ(limits, (std::pair<std::size_t, std::size_t>{1, 32768}));
        }
    }
}

TEST(FlowPumpTest, HoldsAtMostOneChunkPerDirection) {
    Harness h;
    h.flow->holdWrites();
    h.upstream->holdSends();
    for (const char* chunk : {"a1", "a2", "a3"}) {
        h.flow->appSend(bytes(chunk));
    }
    for (const char* chunk : {"u1", "u2", "u3"}) {
        h.upstream->peerSend(bytes(chunk));
    }
    h.start();
    h.settle();
    // Neither side accepted its chunk, so neither direction may move on.
    EXPECT_EQ(h.flow->record().reads, 1u);
    EXPECT_EQ(h.upstream->record().sendCalls, 1u);
    EXPECT_EQ(h.upstream->record().receiveCalls, 1u);
    EXPECT_EQ(h.flow->record().writes, 1u);

    h.flow->releaseWrites();
    h.upstream->releaseSends();
    h.settle();
    EXPECT_EQ(h.flow->received(), bytes("u1u2u3"));
    EXPECT_EQ(h.upstream->record().sent(), bytes("a1a2a3"));
    EXPECT_EQ(h.flow->record().maxWritesInFlight, 1u);
    EXPECT_EQ(h.flow->record().maxReadsInFlight, 1u);
    EXPECT_EQ(h.upstream->record().maxSendsInFlight, 1u);
    EXPECT_EQ(h.upstream->record().maxReceivesInFlight, 1u);
}

TEST(FlowPumpTest, FailuresFromBothDirectionsAtOnceEndTheFlowOnce) {
    const FlowError appError{"TestDomain", 7, "application reset"};
    int appWon = 0;
    int upstreamWon = 0;
    for (int round = 0; round < 300; ++round) {
        Harness h(/*threaded=*/true);
        const bool bytesInFlight = round % 2 == 1;
        if (bytesInFlight) {
            // Each direction has read its chunk and waits for the other side
            // to take it.
            h.flow->holdWrites();
            h.upstream->holdSends();
            h.flow->appSend(bytes("x"));
            h.upstream->peerSend(bytes("y"));
        }
        h.start();
        if (bytesInFlight) {
            ASSERT_TRUE(h.flow->waitFor([](const auto& r) { return r.heldWrites == 1; }));
            ASSERT_TRUE(h.upstream->waitFor([](const auto& r) { return r.heldSends == 1; }));
        }
        // Both sides fail at the same moment; their completions run on the
        // host's thread and on the provider's queue.
        std::latch go(2);
        std::thread app([&] {
            go.arrive_and_wait();
            h.flow->appGoAway(appError);
        });
        std::thread network([&] {
            go.arrive_and_wait();
            h.upstream->announce(veltrane::platform::NWConnectionState::failed,
                                 NWError::posix(ECONNRESET));
        });
        app.join();
        network.join();
        ASSERT_TRUE(h.probe.wait());
        h.drain();

        ASSERT_EQ(h.probe.calls, 1);
        ASSERT_TRUE(h.probe.error);
        EXPECT_TRUE(*h.probe.error == appError || *h.probe.error == resetByPeer);
        (*h.probe.error == appError ? appWon : upstreamWon) += 1;
        auto flow = h.flow->record();
        EXPECT_EQ(flow.closeReads, std::vector<std::optional<FlowError>>{h.probe.error});
        EXPECT_EQ(flow.closeWrites, std::vector<std::optional<FlowError>>{h.probe.error});
        EXPECT_EQ(h.upstream->record().cancels, 1u);
        EXPECT_EQ(h.probe.counters, (FlowPump::Counters{0, 0}));
        EXPECT_TRUE(h.pump.expired());
    }
    EXPECT_EQ(appWon + upstreamWon, 300);
}

} // namespace
