#include "ExtensionCore/Clients/ConnectionSteps.hpp"
#include "ExtensionCore/Clients/SOCKS5Client.hpp"
#include "ExtensionCore/TestBytes.hpp"
#include "ExtensionCore/TestQueue.hpp"
#include "Support/ScriptedProxy.hpp"

#include <cerrno>
#include <gtest/gtest.h>

namespace veltrane::core {
namespace {

using platform::MemoryConnection;
using platform::MemoryConnectionService;
using platform::NWConnectionState;
using platform::NWError;
using test::bytes;
using test::concat;
using test::errorOf;
using test::hex;
using test::ScriptedProxy;
using test::TestQueue;

kit::ProxyServer proxyWith(std::optional<kit::ProxyCredentials> credentials) {
    kit::ProxyServer proxy;
    proxy.address = "192.0.2.10";
    proxy.port = 1080;
    proxy.credentials = std::move(credentials);
    return proxy;
}

const kit::ProxyCredentials userPass{"user", "pass"};

// What an authenticating proxy sends in a full CONNECT exchange, and what
// the client sends to it.
const Bytes fullReply = hex("05 02  01 00  05 00 00 01  0a000001  1f90");
const Bytes expectedSent = hex("05 02 00 02  01 04 75736572 04 70617373  05 01 00 03 01 68 0050");

TEST(SOCKS5ClientTest, CarriesTheHandshakeAndLeavesTunnelBytesUnread) {
    TestQueue queue;
    ScriptedProxy proxy;
    auto& connection = proxy.connection;
    connection->peerSend(concat({fullReply, bytes("early")}));

    SOCKS5Client client(proxyWith(userPass), proxy.service, queue.io());
    auto upstream = queue.await(client.connect(SOCKS5Client::Destination::domain("h", 80)));

    EXPECT_EQ(upstream, connection);
    auto requests = proxy.service.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].host, "192.0.2.10");
    EXPECT_EQ(requests[0].port, 1080);
    EXPECT_EQ(requests[0].parameters.transport, platform::NWParameters::Transport::tcp);
    auto record = connection->record();
    EXPECT_EQ(record.sent(), expectedSent);
    EXPECT_EQ(record.sends.size(), 3u);
    using Limits = std::vector<std::pair<std::size_t, std::size_t>>;
    EXPECT_EQ(record.receiveLimits, (Limits{{2, 2}, {2, 2}, {4, 4}, {4, 4}, {2, 2}}));
    EXPECT_EQ(record.maxSendsInFlight, 1u);
    EXPECT_EQ(record.maxReceivesInFlight, 1u);
    EXPECT_EQ(record.cancels, 0u);

    auto next = queue.await(ConnectionSteps::receive(upstream, 1, 100));
    EXPECT_EQ(next.data, bytes("early"));
}

TEST(SOCKS5ClientTest, FailingAtEveryStepGivesThatStepsError) {
    const NWError reset = NWError::posix(ECONNRESET);
    const auto resetFailure = SOCKSError::connectionFailed(reset.localizedDescription());
    const std::vector<test::ScriptedFailure<SOCKSError>> cases = {
        {"start cancelled",
         [](MemoryConnection& c) {
             c.setStartStates({{NWConnectionState::cancelled, std::nullopt}});
         },
         SOCKSError::connectionFailed("cancelled")},
        // One driver loop carries every step, so one failing send and one
        // failing receive in the middle of the exchange stand for all.
        {"credentials send fails",
         [reset](MemoryConnection& c) {
             c.peerSend(fullReply);
             c.failSend(2, reset);
         },
         resetFailure},
        {"reply header receive fails",
         [reset](MemoryConnection& c) {
             c.peerSend(fullReply);
             c.failReceive(3, reset);
         },
         resetFailure},
        // The handshake's own tests close at every length; here only what
        // the connection hands over differs: nothing at all, or part of a read.
        {"proxy closes before it answers", [](MemoryConnection& c) { c.peerFinish(); },
         SOCKSError::shortRead()},
        {"proxy closes inside the reply header",
         [](MemoryConnection& c) {
             c.peerSend(Bytes(fullReply.begin(), fullReply.begin() + 5));
             c.peerFinish();
         },
         SOCKSError::shortRead()},
    };
    TestQueue queue;
    test::expectFailures(cases, [&](MemoryConnectionService& service) {
        SOCKS5Client client(proxyWith(userPass), service, queue.io());
        return errorOf<SOCKSError>(queue,
                                   client.connect(SOCKS5Client::Destination::domain("h", 80)));
    });
}

TEST(SOCKS5ClientTest, WaitingIsNoFailure) {
    TestQueue queue;
    ScriptedProxy proxy;
    auto& connection = proxy.connection;
    connection->setStartStates(
        {{NWConnectionState::preparing, std::nullopt}, {NWConnectionState::waiting, std::nullopt}});
    SOCKS5Client client(proxyWith(std::nullopt), proxy.service, queue.io());
    std::string other;
    auto future =
        asio::co_spawn(queue.io(),
                       test::catching<SOCKSError>(
                           client.connect(SOCKS5Client::Destination::ipv4("10.0.0.1", 80)), &other),
                       asio::use_future);
    ASSERT_TRUE(connection->waitFor(
        [](const MemoryConnection::Record& r) { return r.states.size() == 2; }));
    connection->announce(NWConnectionState::failed, NWError::posix(ENETUNREACH));
    // A state after the end changes nothing.
    connection->announce(NWConnectionState::cancelled);
    ASSERT_EQ(future.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_EQ(future.get(),
              SOCKSError::connectionFailed(NWError::posix(ENETUNREACH).localizedDescription()))
        << other;
    EXPECT_EQ(connection->record().cancels, 0u);
}

TEST(SOCKS5ClientTest, UDPAssociate) {
    TestQueue queue;
    ScriptedProxy proxy;
    proxy.connection->peerSend(concat({hex("05 00 05 00 00 04"), Bytes(16, 0xfe), hex("9c40")}));
    SOCKS5Client client(proxyWith(std::nullopt), proxy.service, queue.io());
    auto association = queue.await(client.udpAssociate());
    EXPECT_EQ(association.relayHost, "::");
    EXPECT_EQ(association.relayPort, 40000);
    EXPECT_EQ(association.control, proxy.connection);
    EXPECT_EQ(proxy.connection->record().sent(), hex("05 01 00  05 03 00 01 00000000 0000"));
}

TEST(SOCKS5ClientTest, OverlongDomainFailsBeforeTheConnectionStarts) {
    TestQueue queue;
    ScriptedProxy proxy;
    SOCKS5Client client(proxyWith(std::nullopt), proxy.service, queue.io());
    auto error = errorOf<SOCKSError>(
        queue, client.connect(SOCKS5Client::Destination::domain(std::string(256, 'a'), 80)));
    EXPECT_EQ(error, SOCKSError::valueTooLong(SOCKSError::Field::domain));
    EXPECT_FALSE(proxy.connection->record().started);
    EXPECT_EQ(proxy.connection->record().sendCalls, 0u);
}

// Many handshakes at once on a shared multi-threaded queue, each on its own
// strand, as flows run in the provider.
TEST(SOCKS5ClientTest, ManyClientsShareTheQueue) {
    TestQueue queue(4);
    MemoryConnectionService service;
    constexpr int count = 64;
    std::vector<std::shared_ptr<MemoryConnection>> connections;
    for (int i = 0; i < count; ++i) {
        auto connection = MemoryConnection::make();
        // Chunk boundaries differ from the reads, so reads join and split.
        connection->peerSend(Bytes(fullReply.begin(), fullReply.begin() + 3));
        connection->peerSend(Bytes(fullReply.begin() + 3, fullReply.end()));
        service.enqueue(connection);
        connections.push_back(connection);
    }
    std::vector<std::unique_ptr<SOCKS5Client>> clients;
    std::vector<std::future<std::shared_ptr<platform::NWConnection>>> futures;
    for (int i = 0; i < count; ++i) {
        clients.push_back(std::make_unique<SOCKS5Client>(proxyWith(userPass), service, queue.io()));
        futures.push_back(asio::co_spawn(
            queue.io(), clients.back()->connect(SOCKS5Client::Destination::domain("h", 80)),
            asio::use_future));
    }
    for (int i = 0; i < count; ++i) {
        ASSERT_EQ(futures[i].wait_for(std::chrono::seconds(20)), std::future_status::ready);
        EXPECT_EQ(futures[i].get(), connections[i]);
        EXPECT_EQ(connections[i]->record().sent(), expectedSent);
    }
}

} // namespace
} // namespace veltrane::core
