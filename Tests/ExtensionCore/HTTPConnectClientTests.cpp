#include "ExtensionCore/Clients/ConnectionSteps.hpp"
#include "ExtensionCore/Clients/HTTPConnectClient.hpp"
#include "ExtensionCore/Clients/PrefixedConnection.hpp"
#include "ExtensionCore/TestBytes.hpp"
#include "ExtensionCore/TestQueue.hpp"
#include "Support/ScriptedProxy.hpp"

#include <cerrno>
#include <gtest/gtest.h>

namespace veltrane::core {
namespace {

using platform::Bytes;
using platform::MemoryConnection;
using platform::NWConnectionState;
using platform::NWError;
using test::bytes;
using test::concat;
using test::errorOf;
using test::ScriptedProxy;
using test::TestQueue;
using test::text;

kit::ProxyServer httpProxy(std::optional<kit::ProxyCredentials> credentials = std::nullopt) {
    kit::ProxyServer proxy;
    proxy.address = "192.0.2.20";
    proxy.port = 3128;
    proxy.proto = kit::ProxyProtocol::http;
    proxy.credentials = std::move(credentials);
    return proxy;
}

const Bytes okHead = bytes("HTTP/1.1 200 Connection established\r\n\r\n");

TEST(HTTPConnectClientTest, TunnelBytesAfterTheHeaderReachTheFlowFirst) {
    TestQueue queue;
    ScriptedProxy proxy;
    auto& connection = proxy.connection;
    connection->peerSend(concat({okHead, bytes("SSH-2.0-x")}));
    connection->peerSend(bytes("\r\nmore"));

    HTTPConnectClient client(httpProxy(kit::ProxyCredentials{"u", "p"}), proxy.service, queue.io());
    auto upstream = queue.await(client.connect("example.com", 22));

    EXPECT_EQ(text(connection->record().sent()), "CONNECT example.com:22 HTTP/1.1\r\n"
                                                 "Host: example.com:22\r\n"
                                                 "Proxy-Authorization: Basic dTpw\r\n"
                                                 "Proxy-Connection: Keep-Alive\r\n\r\n");
    EXPECT_EQ(connection->record().sends.size(), 1u);
    using Limits = std::vector<std::pair<std::size_t, std::size_t>>;
    EXPECT_EQ(connection->record().receiveLimits, (Limits{{1, 4096}}));
    auto requests = proxy.service.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].host, "192.0.2.20");
    EXPECT_EQ(requests[0].port, 3128);

    // The early bytes come first, also when a read asks for fewer, then the rest.
    auto first = queue.await(ConnectionSteps::receive(upstream, 1, 4));
    EXPECT_EQ(first.data, bytes("SSH-"));
    auto second = queue.await(ConnectionSteps::receive(upstream, 1, 32768));
    EXPECT_EQ(second.data, bytes("2.0-x"));
    auto third = queue.await(ConnectionSteps::receive(upstream, 1, 32768));
    EXPECT_EQ(third.data, bytes("\r\nmore"));
    // Everything else reaches the proxy connection itself.
    upstream->cancel();
    EXPECT_EQ(connection->record().cancels, 1u);
}

TEST(HTTPConnectClientTest, HeaderBlockOneByteAtATime) {
    TestQueue queue;
    ScriptedProxy proxy;
    auto response = bytes("HTTP/1.0 200 OK\r\nVia: 1.1 proxy\r\n\r\n");
    for (auto b : response) {
        proxy.connection->peerSend({b});
    }
    HTTPConnectClient client(httpProxy(), proxy.service, queue.io());
    auto upstream = queue.await(client.connect("2001:db8::1", 443));
    // Nothing came after the block, so the connection itself is handed back.
    EXPECT_EQ(upstream, proxy.connection);
    EXPECT_EQ(proxy.connection->record().receiveCalls, response.size());
}

TEST(HTTPConnectClientTest, FailingAtEveryStepGivesThatStepsError) {
    const NWError reset = NWError::posix(ECONNRESET);
    const std::vector<test::ScriptedFailure<HTTPProxyError>> cases = {
        {"start fails",
         [](MemoryConnection& c) {
             c.setStartStates({{NWConnectionState::failed, NWError::posix(ECONNREFUSED)}});
         },
         HTTPProxyError::connectionFailed(NWError::posix(ECONNREFUSED).localizedDescription())},
        {"start cancelled",
         [](MemoryConnection& c) {
             c.setStartStates({{NWConnectionState::waiting, std::nullopt},
                               {NWConnectionState::cancelled, std::nullopt}});
         },
         HTTPProxyError::connectionFailed("cancelled")},
        {"send fails",
         [&](MemoryConnection& c) {
             c.peerSend(okHead);
             c.failSend(1, reset);
         },
         HTTPProxyError::connectionFailed(reset.localizedDescription())},
        {"first read fails",
         [&](MemoryConnection& c) {
             c.peerSend(okHead);
             c.failReceive(1, reset);
         },
         HTTPProxyError::connectionFailed(reset.localizedDescription())},
        {"closed with the last part of a block",
         [](MemoryConnection& c) {
             c.peerSend(bytes("HTTP/1.1 200 OK\r\n"));
             c.peerFinish(true);
         },
         HTTPProxyError::malformedResponse()},
        {"forbidden",
         [](MemoryConnection& c) { c.peerSend(bytes("HTTP/1.1 403 Forbidden\r\n\r\n")); },
         HTTPProxyError::rejected(403, "Forbidden")},
    };
    TestQueue queue;
    test::expectFailures(cases, [&](platform::MemoryConnectionService& service) {
        HTTPConnectClient client(httpProxy(), service, queue.io());
        return errorOf<HTTPProxyError>(queue, client.connect("h", 443));
    });
}

TEST(PrefixedConnectionTest, PrefixComesBeforeTheConnectionsOwnBytes) {
    struct Case {
        const char* name;
        std::size_t minimum;
        std::size_t maximum;
        bool message;
        Bytes expected;
    } cases[] = {
        {"prefix joined with the connection's bytes for the minimum", 3, 100, false, bytes("abcd")},
        {"a whole message", 0, 0, true, bytes("abcd")},
    };
    TestQueue queue;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto inner = MemoryConnection::make();
        inner->start(queue.io());
        inner->peerSend(bytes("cd"));
        auto connection = std::make_shared<PrefixedConnection>(inner, bytes("ab"), queue.io());
        std::promise<Bytes> delivered;
        auto completion = [&](std::optional<Bytes> data, bool, const std::optional<NWError>&) {
            delivered.set_value(data.value_or(Bytes{}));
        };
        if (c.message) {
            connection->receiveMessage(completion);
        } else {
            connection->receive(c.minimum, c.maximum, completion);
        }
        EXPECT_EQ(delivered.get_future().get(), c.expected);
    }
}

} // namespace
} // namespace veltrane::core
