#include "Platform/FlowError.hpp"
#include "Platform/NEFlowMetaData.hpp"
#include "Platform/memory/MemoryConnection.hpp"
#include "Platform/memory/MemoryFlowHost.hpp"
#include "Platform/memory/MemoryTCPFlow.hpp"
#include "Platform/memory/MemoryUDPFlow.hpp"

#include <asio/io_context.hpp>
#include <cerrno>
#include <gtest/gtest.h>

namespace {

using namespace veltrane::platform;

Bytes text(std::string_view s) {
    return Bytes(s.begin(), s.end());
}

void settle(asio::io_context& queue) {
    queue.restart();
    queue.run();
}

TEST(FlowHostTypesTest, OrderlyEndsAndAuditTokens) {
    struct ErrorCase {
        std::optional<FlowError> error;
        bool orderly;
    } errors[] = {
        {std::nullopt, true},
        {NEAppProxyError::notConnected(), true},
        {NEAppProxyError::make(NEAppProxyError::Code::peerReset), false},
        {FlowError{"POSIX", 1, "Operation not permitted"}, false},
        {FlowError{"OtherDomain", 1, "same code, other domain"}, false},
    };
    for (const auto& c : errors) {
        EXPECT_EQ(isOrderlyEnd(c.error), c.orderly) << (c.error ? c.error->text : "none");
    }
    EXPECT_EQ(FlowError::posix(ECONNREFUSED).domain, NWError::posix(ECONNREFUSED).domainName());
    EXPECT_EQ(FlowError::posix(ECONNREFUSED).code, ECONNREFUSED);

    struct TokenCase {
        Bytes token;
        std::optional<std::int32_t> pid;
    } tokens[] = {
        {makeAuditToken(4242), 4242},
        {Bytes(31, 0), std::nullopt},
        {makeAuditToken(0), std::nullopt},
        {makeAuditToken(-5), std::nullopt},
        {[] {
             Bytes longer = makeAuditToken(77);
             longer.push_back(1);
             return longer;
         }(),
         77},
    };
    for (const auto& c : tokens) {
        EXPECT_EQ(auditTokenProcessID(c.token), c.pid);
    }
}

TEST(MemoryTCPFlowTest, ScriptedApplicationAndRecording) {
    asio::io_context queue;
    auto flow = MemoryTCPFlow::make(queue, "198.51.100.1", "8443");
    ASSERT_TRUE(hostEndpoint(flow->remoteEndpoint()));
    EXPECT_EQ(hostEndpoint(flow->remoteEndpoint())->port(), "8443");

    std::vector<std::pair<std::optional<Bytes>, std::optional<FlowError>>> reads;
    auto read = [&] {
        flow->readData([&](std::optional<Bytes> data, const std::optional<FlowError>& error) {
            reads.emplace_back(std::move(data), error);
        });
    };
    read(); // before the open: refused
    settle(queue);
    EXPECT_EQ(reads.back().second, NEAppProxyError::notConnected());
    EXPECT_EQ(flow->record().operationsBeforeOpen, 1u);

    std::optional<FlowError> openResult = FlowError{};
    flow->open([&](const std::optional<FlowError>& error) { openResult = error; });
    EXPECT_FALSE(flow->record().opened) << "completions never run inside the call";
    settle(queue);
    EXPECT_EQ(openResult, std::nullopt);

    flow->appSend(text("one"));
    flow->appSend(text("two"));
    read();
    read(); // two reads at once are served in turn, and counted
    settle(queue);
    EXPECT_EQ(flow->record().maxReadsInFlight, 2u);
    read(); // nothing left and not finished: stays pending
    settle(queue);
    ASSERT_EQ(reads.size(), 3u);
    EXPECT_EQ(reads[1].first, text("one"));
    EXPECT_EQ(reads[2].first, text("two"));
    flow->closeRead(std::nullopt); // fails the pending read
    settle(queue);
    ASSERT_EQ(reads.size(), 4u);
    EXPECT_EQ(reads[3].second, NEAppProxyError::notConnected());

    std::vector<std::optional<FlowError>> writes;
    flow->holdWrites();
    flow->writeData(text("reply"), [&](const std::optional<FlowError>& e) { writes.push_back(e); });
    settle(queue);
    EXPECT_TRUE(writes.empty());
    EXPECT_EQ(flow->record().heldWrites, 1u);
    flow->releaseWrites();
    settle(queue);
    EXPECT_EQ(writes, std::vector<std::optional<FlowError>>{std::nullopt});
    EXPECT_EQ(flow->received(), text("reply"));

    const FlowError failure = FlowError::posix(ECONNRESET);
    flow->closeWrite(failure);
    EXPECT_TRUE(flow->waitClosed(std::chrono::milliseconds(0)));
    EXPECT_EQ(flow->record().closeWrites, std::vector<std::optional<FlowError>>{failure});
}

TEST(MemoryTCPFlowTest, OpenFailures) {
    struct Case {
        const char* name;
        std::function<void(MemoryTCPFlow&)> script;
        FlowError expected;
    } cases[] = {
        {"gone before the open completes", [](MemoryTCPFlow& f) { f.goAwayBeforeOpen(); },
         NEAppProxyError::notConnected()},
        {"open fails", [](MemoryTCPFlow& f) { f.failOpen(FlowError::posix(EPERM)); },
         FlowError::posix(EPERM)},
    };
    for (const auto& c : cases) {
        asio::io_context queue;
        auto flow = MemoryTCPFlow::make(queue, "192.0.2.1", "80");
        c.script(*flow);
        std::optional<FlowError> result;
        flow->open([&](const std::optional<FlowError>& error) { result = error; });
        settle(queue);
        EXPECT_EQ(result, c.expected) << c.name;
        EXPECT_FALSE(flow->record().opened) << c.name;
    }
}

TEST(MemoryUDPFlowTest, BatchesEndWithEmptyLists) {
    asio::io_context queue;
    auto local = NWHostEndpoint::endpointWithHostname("10.0.0.2", "53000");
    auto flow = MemoryUDPFlow::make(queue, local);
    EXPECT_EQ(*hostEndpoint(flow->localEndpoint()), *local);
    flow->open([](const std::optional<FlowError>&) {});
    settle(queue);

    auto peer = NWHostEndpoint::endpointWithHostname("192.0.2.53", "53");
    flow->appSend({text("q1"), text("q2")}, {peer, peer});
    flow->appFinish();
    std::vector<MemoryDatagramBatch> batches;
    for (int i = 0; i < 2; ++i) {
        flow->readDatagrams([&](std::optional<std::vector<Bytes>> datagrams,
                                std::optional<std::vector<NWEndpointRef>> endpoints,
                                const std::optional<FlowError>& error) {
            EXPECT_EQ(error, std::nullopt);
            batches.push_back({std::move(datagrams), std::move(endpoints)});
        });
        settle(queue);
    }
    ASSERT_EQ(batches.size(), 2u);
    EXPECT_EQ(batches[0].datagrams, (std::vector<Bytes>{text("q1"), text("q2")}));
    EXPECT_EQ(batches[1].datagrams, std::vector<Bytes>{});
    EXPECT_EQ(batches[1].endpoints, std::vector<NWEndpointRef>{});

    flow->writeDatagrams({text("a1")}, {peer}, [](const std::optional<FlowError>&) {});
    settle(queue);
    auto written = flow->record().written;
    ASSERT_EQ(written.size(), 1u);
    EXPECT_EQ(written[0].datagrams, std::vector<Bytes>{text("a1")});
    EXPECT_EQ(written[0].sentBy[0], peer);
}

TEST(MemoryConnectionTest, ReceivesKeepChunkBoundariesUnlessTheMinimumNeedsMore) {
    struct Case {
        const char* name;
        std::vector<Bytes> chunks;
        bool finish;
        std::size_t minimum, maximum;
        std::optional<Bytes> data;
        bool isComplete;
    } cases[] = {
        {"one chunk", {text("abcdef")}, false, 1, 100, text("abcdef"), false},
        {"chunk cut at the maximum", {text("abcdef")}, false, 1, 4, text("abcd"), false},
        {"chunks joined for the minimum",
         {text("ab"), text("cd"), text("ef")},
         false,
         3,
         100,
         text("abcd"),
         false},
        {"exact handshake read", {text("ab"), text("cdef")}, false, 6, 6, text("abcdef"), false},
        {"short read only after the end", {text("ab")}, true, 4, 4, text("ab"), false},
        {"end alone", {}, true, 1, 100, std::nullopt, true},
        {"empty chunk delivered as such", {Bytes{}, text("x")}, false, 1, 100, Bytes{}, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        asio::io_context queue;
        auto connection = MemoryConnection::make();
        for (const auto& chunk : c.chunks) {
            connection->peerSend(chunk);
        }
        if (c.finish) {
            connection->peerFinish();
        }
        connection->start(queue);
        std::optional<Bytes> data;
        bool complete = false;
        bool called = false;
        connection->receive(
            c.minimum, c.maximum,
            [&](std::optional<Bytes> d, bool isComplete, const std::optional<NWError>& error) {
                EXPECT_EQ(error, std::nullopt);
                data = std::move(d);
                complete = isComplete;
                called = true;
            });
        settle(queue);
        ASSERT_TRUE(called);
        EXPECT_EQ(data, c.data);
        EXPECT_EQ(complete, c.isComplete);
    }
}

TEST(MemoryConnectionTest, StatesHoldSendsAndCancelEndsWhatIsPending) {
    asio::io_context queue;
    auto connection = MemoryConnection::make();
    connection->setStartStates(
        {{NWConnectionState::preparing, std::nullopt}, {NWConnectionState::waiting, std::nullopt}});
    std::vector<NWConnectionState> states;
    connection->setStateUpdateHandler(
        [&](NWConnectionState state, const std::optional<NWError>&) { states.push_back(state); });
    std::vector<std::optional<NWError>> sendResults;
    auto send = [&](std::optional<Bytes> content) {
        connection->send(std::move(content),
                         [&](const std::optional<NWError>& e) { sendResults.push_back(e); });
    };
    send(text("early"));
    connection->start(queue);
    settle(queue);
    EXPECT_TRUE(sendResults.empty()) << "held until ready";
    connection->announce(NWConnectionState::ready);
    send(std::nullopt); // the half-close
    settle(queue);
    auto record = connection->record();
    EXPECT_EQ(record.sent(), text("early"));
    EXPECT_EQ(record.halfCloses, 1u);
    EXPECT_EQ(sendResults.size(), 2u);

    std::optional<NWError> receiveError;
    connection->receive(1, 10, [&](std::optional<Bytes>, bool, const std::optional<NWError>& e) {
        receiveError = e;
    });
    connection->cancel();
    connection->cancel();
    settle(queue);
    EXPECT_EQ(receiveError, NWError::posix(ECANCELED));
    EXPECT_EQ(connection->record().cancels, 2u);
    EXPECT_EQ(states, (std::vector<NWConnectionState>{
                          NWConnectionState::preparing, NWConnectionState::waiting,
                          NWConnectionState::ready, NWConnectionState::cancelled}));
}

// Asks for tunnel settings at its start and takes only TCP flows.
class TestProvider final : public NETransparentProxyProvider {
public:
    void startProxy(std::optional<ProviderDictionary> options,
                    StartCompletion completion) override {
        startOptions = std::move(options);
        NETransparentProxyNetworkSettings settings("127.0.0.1");
        settings.includedNetworkRules.push_back(NENetworkRule::withRemoteNetwork(
            std::nullopt, 0, std::nullopt, 0, NENetworkRule::Protocol::tcp,
            NENetworkRule::Direction::outbound));
        setTunnelNetworkSettings(settings, std::move(completion));
    }
    void stopProxy(NEProviderStopReason, StopCompletion completion) override { completion(); }
    void handleAppMessage(Bytes message, AppMessageCompletion completion) override {
        if (completion) {
            completion(message);
        }
    }
    bool handleNewFlow(std::shared_ptr<NEAppProxyFlow> flow) override {
        return std::dynamic_pointer_cast<NEAppProxyTCPFlow>(flow) != nullptr;
    }
    std::optional<ProviderDictionary> startOptions;
};

TEST(MemoryFlowHostTest, DrivesTheProviderAndRecordsItsAnswers) {
    asio::io_context queue;
    auto provider = std::make_shared<TestProvider>();
    std::optional<FlowError> unattached;
    provider->setTunnelNetworkSettings(std::nullopt,
                                       [&](const std::optional<FlowError>& e) { unattached = e; });
    EXPECT_TRUE(unattached.has_value()) << "no host attached";

    NETunnelProviderProtocol configuration{
        ProviderDictionary{{"profile", text("{}")}, {"note", std::string("text")}}};
    auto host = MemoryFlowHost::make(provider, configuration);
    EXPECT_EQ(providerBytes(provider->protocolConfiguration()->providerConfiguration, "profile"),
              text("{}"));
    EXPECT_EQ(providerBytes(provider->protocolConfiguration()->providerConfiguration, "note"),
              std::nullopt);

    host->startProxy(std::nullopt);
    host->failTunnelSettings(FlowError::posix(EACCES));
    host->startProxy(ProviderDictionary{});
    host->stopProxy(3);
    host->sendAppMessage(text("ping"));
    EXPECT_TRUE(host->deliver(MemoryTCPFlow::make(queue, "192.0.2.1", "443")));
    EXPECT_FALSE(host->deliver(MemoryUDPFlow::make(queue)));

    auto record = host->record();
    ASSERT_EQ(record.tunnelSettings.size(), 2u);
    EXPECT_EQ(record.tunnelSettings[0]->tunnelRemoteAddress, "127.0.0.1");
    EXPECT_EQ(record.tunnelSettings[0]->includedNetworkRules[0].protocol,
              NENetworkRule::Protocol::tcp);
    EXPECT_EQ(record.startResults,
              (std::vector<std::optional<FlowError>>{std::nullopt, FlowError::posix(EACCES)}));
    EXPECT_EQ(record.stopCompletions, 1u);
    EXPECT_EQ(record.appReplies, std::vector<std::optional<Bytes>>{text("ping")});
    EXPECT_EQ(record.answers, (std::vector<bool>{true, false}));
}

} // namespace
