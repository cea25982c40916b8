#include "ExtensionCore/Clients/SOCKSError.hpp"
#include "ExtensionCore/Clients/UDPRelay.hpp"
#include "ExtensionCore/TestBytes.hpp"
#include "ExtensionCore/TestQueue.hpp"
#include "Platform/memory/MemoryConnection.hpp"
#include "Platform/memory/MemoryUDPFlow.hpp"

#include <cerrno>
#include <condition_variable>
#include <gtest/gtest.h>

namespace veltrane::core {
namespace {

using platform::Bytes;
using platform::FlowError;
using platform::MemoryConnection;
using platform::MemoryConnectionService;
using platform::MemoryUDPFlow;
using platform::NWEndpointRef;
using platform::NWError;
using platform::NWHostEndpoint;
using test::bytes;
using test::concat;
using test::hex;
using test::TestQueue;

struct Closed {
    std::uint64_t sent = 0;
    std::uint64_t received = 0;
    std::optional<FlowError> error;
};

// Collects onClose calls.
struct CloseProbe {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Closed> calls;

    UDPRelay::OnClose callback() {
        return [this](std::uint64_t sent, std::uint64_t received,
                      const std::optional<FlowError>& error) {
            std::lock_guard guard(mutex);
            calls.push_back({sent, received, error});
            changed.notify_all();
        };
    }
    std::optional<Closed> wait() {
        std::unique_lock lock(mutex);
        if (!changed.wait_for(lock, std::chrono::seconds(10), [&] { return !calls.empty(); })) {
            return std::nullopt;
        }
        return calls.front();
    }
};

NWEndpointRef endpoint(std::string host, std::string port) {
    return NWHostEndpoint::endpointWithHostname(std::move(host), std::move(port));
}

// A relay between a memory flow and memory connections: the control
// connection answers the method request and UDP ASSOCIATE with `controlReply`.
struct Harness {
    explicit Harness(Bytes controlReply, int threads = 2) : queue(threads) {
        kit::ProxyServer proxy;
        proxy.address = "192.0.2.30";
        proxy.port = 1080;
        control->peerSend(std::move(controlReply));
        service.enqueue(control);
        service.enqueue(relayConnection);
        std::promise<bool> opened;
        flow->open([&](const std::optional<FlowError>& error) { opened.set_value(!error); });
        EXPECT_TRUE(opened.get_future().get());
        relay = std::make_shared<UDPRelay>(flow, proxy, service, queue.io(), probe.callback());
        queue.await(relay->start());
    }

    TestQueue queue;
    MemoryConnectionService service;
    std::shared_ptr<MemoryConnection> control = MemoryConnection::make();
    std::shared_ptr<MemoryConnection> relayConnection =
        MemoryConnection::make(platform::NWParameters::udp());
    std::shared_ptr<MemoryUDPFlow> flow = MemoryUDPFlow::make(queue.io());
    CloseProbe probe;
    std::shared_ptr<UDPRelay> relay;
};

const Bytes unspecifiedRelay = hex("05 00  05 00 00 01 00000000 9c40"); // 0.0.0.0:40000

TEST(UDPRelayTest, ConnectsToTheProxyHostWhenTheRelayIsUnspecified) {
    struct Case {
        const char* name;
        Bytes reply;
        std::string host;
        std::uint16_t port;
    } cases[] = {
        {"0.0.0.0 means the proxy itself", unspecifiedRelay, "192.0.2.30", 40000},
        {"any other address is taken as it is", hex("05 00  05 00 00 01 c6336401 1388"),
         "198.51.100.1", 5000},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Harness harness(c.reply);
        auto requests = harness.service.requests();
        ASSERT_EQ(requests.size(), 2u);
        EXPECT_EQ(requests[0].host, "192.0.2.30");
        EXPECT_EQ(requests[0].parameters.transport, platform::NWParameters::Transport::tcp);
        EXPECT_EQ(requests[1].host, c.host);
        EXPECT_EQ(requests[1].port, c.port);
        EXPECT_EQ(requests[1].parameters.transport, platform::NWParameters::Transport::udp);
        EXPECT_EQ(harness.control->record().sent(), hex("05 01 00  05 03 00 01 00000000 0000"));
        EXPECT_TRUE(harness.relayConnection->record().started);
        harness.flow->appFinish();
        ASSERT_TRUE(harness.probe.wait());
    }
}

TEST(UDPRelayTest, FramesDatagramsToTheRelayAndCountsPayloadOnly) {
    Harness harness(unspecifiedRelay);
    harness.flow->appSend({bytes("abc"), bytes("skip"), bytes("v6"), bytes("null endpoint"),
                           bytes("beyond the endpoints")},
                          {endpoint("8.8.8.8", "53"), endpoint("8.8.8.8", "http"),
                           endpoint("2001:db8::1", "+443"), nullptr});
    harness.flow->appSend({bytes("long")}, {endpoint(std::string(256, 'h'), "1")});
    harness.flow->appSend({bytes("z")}, {endpoint("1.2.3.4", "65535")});
    ASSERT_TRUE(harness.relayConnection->waitFor(
        [](const MemoryConnection::Record& r) { return r.sends.size() == 3; }));
    harness.flow->appFinish();
    auto closed = harness.probe.wait();
    ASSERT_TRUE(closed);
    EXPECT_EQ(closed->sent, 3u + 2u + 1u);
    EXPECT_EQ(closed->received, 0u);
    EXPECT_EQ(closed->error, std::nullopt);
    auto sends = harness.relayConnection->record().sends;
    ASSERT_EQ(sends.size(), 3u);
    EXPECT_EQ(sends[0], hex("000000 01 08080808 0035 616263"));
    EXPECT_EQ(sends[1],
              concat({hex("000000 03 0b"), bytes("2001:db8::1"), hex("01bb"), bytes("v6")}));
    EXPECT_EQ(sends[2], hex("000000 01 01020304 ffff 7a"));
}

TEST(UDPRelayTest, DeliversRelayFramesToTheApplication) {
    Harness harness(unspecifiedRelay);
    harness.relayConnection->peerSend(hex("0000 00 01 08080808 0035 616263"));
    harness.relayConnection->peerSend(hex("0000 01 01 08080808 0035 ff")); // FRAG 1: dropped
    harness.relayConnection->peerSend(hex("0000 00 01 01010101 0001"));    // empty payload
    ASSERT_TRUE(harness.flow->waitFor(
        [](const MemoryUDPFlow::Record& r) { return r.written.size() == 2; }));
    auto written = harness.flow->record().written;
    auto sender = [&](std::size_t i) {
        EXPECT_EQ(written[i].sentBy.size(), 1u);
        return *platform::hostEndpoint(written[i].sentBy.at(0));
    };
    EXPECT_EQ(written[0].datagrams, std::vector<Bytes>{bytes("abc")});
    EXPECT_EQ(sender(0), NWHostEndpoint("8.8.8.8", "53"));
    EXPECT_EQ(written[1].datagrams, std::vector<Bytes>{Bytes{}});
    EXPECT_EQ(sender(1), NWHostEndpoint("1.1.1.1", "1"));
    EXPECT_FALSE(harness.flow->record().closed());

    // The relay's end of the association ends the flow without an error.
    harness.relayConnection->peerFinish();
    auto closed = harness.probe.wait();
    ASSERT_TRUE(closed);
    EXPECT_EQ(closed->sent, 0u);
    EXPECT_EQ(closed->received, 3u);
    EXPECT_EQ(closed->error, std::nullopt);
}

TEST(UDPRelayTest, EndingsCloseEverythingOnce) {
    const NWError refused = NWError::posix(ECONNREFUSED);
    const FlowError readFailure{"NEAppProxyErrorDomain", 2, "reset"};
    struct Case {
        const char* name;
        std::function<void(Harness&)> end;
        std::optional<FlowError> expected;
    } cases[] = {
        {"application finishes", [](Harness& h) { h.flow->appFinish(); }, std::nullopt},
        {"application sends an empty batch",
         [](Harness& h) { h.flow->appSend(std::vector<Bytes>{}, std::vector<NWEndpointRef>{}); },
         std::nullopt},
        {"application sends without endpoints",
         [](Harness& h) {
             h.flow->appSend(
                 platform::MemoryDatagramBatch{std::vector<Bytes>{bytes("x")}, std::nullopt});
         },
         std::nullopt},
        {"flow read fails", [&](Harness& h) { h.flow->appGoAway(readFailure); }, readFailure},
        {"relay receive fails",
         [&](Harness& h) {
             h.relayConnection->announce(platform::NWConnectionState::failed, refused);
         },
         FlowError::from(refused)},
        {"both at once",
         [&](Harness& h) {
             h.flow->appFinish();
             h.relayConnection->announce(platform::NWConnectionState::failed, refused);
         },
         std::nullopt /* either one */},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Harness harness(unspecifiedRelay, 4);
        c.end(harness);
        auto closed = harness.probe.wait();
        ASSERT_TRUE(closed);
        if (std::string(c.name) != "both at once") {
            EXPECT_EQ(closed->error, c.expected);
        }
        ASSERT_TRUE(harness.flow->waitClosed());
        harness.queue.stop();
        EXPECT_EQ(harness.probe.calls.size(), 1u);
        auto record = harness.flow->record();
        EXPECT_EQ(record.closeReads, std::vector<std::optional<FlowError>>{closed->error});
        EXPECT_EQ(record.closeWrites, std::vector<std::optional<FlowError>>{closed->error});
        EXPECT_EQ(harness.relayConnection->record().cancels, 1u);
        EXPECT_EQ(harness.control->record().cancels, 1u);
    }
}

TEST(UDPRelayTest, HandshakeFailureClosesTheFlowWithTheError) {
    Harness harness(hex("05 ff"));
    auto closed = harness.probe.wait();
    ASSERT_TRUE(closed);
    EXPECT_EQ(closed->sent, 0u);
    EXPECT_EQ(closed->received, 0u);
    auto expected = SOCKSError::authRequired();
    EXPECT_EQ(closed->error,
              (FlowError{expected.domain(), expected.code(), expected.localizedDescription()}));
    EXPECT_EQ(harness.flow->record().closeReads,
              std::vector<std::optional<FlowError>>{closed->error});
    EXPECT_EQ(harness.control->record().cancels, 0u);
    EXPECT_EQ(harness.service.requests().size(), 1u); // no relay connection
}

} // namespace
} // namespace veltrane::core
