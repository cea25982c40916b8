// The clients against real servers on loopback, started and stopped here.
#include "ExtensionCore/Clients/ConnectionSteps.hpp"
#include "ExtensionCore/Clients/HTTPConnectClient.hpp"
#include "ExtensionCore/Clients/NetworkError.hpp"
#include "ExtensionCore/Clients/SOCKS5Client.hpp"
#include "ExtensionCore/Clients/UDPRelay.hpp"
#include "ExtensionCore/TestBytes.hpp"
#include "ExtensionCore/TestQueue.hpp"
#include "Platform/linux/LinuxConnection.hpp"
#include "Platform/memory/MemoryUDPFlow.hpp"
#include "Support/EchoServers.hpp"
#include "Support/Peers.hpp"

#include <condition_variable>
#include <gtest/gtest.h>
#include <random>

namespace veltrane::core {
namespace {

using platform::Bytes;
using platform::FlowError;
using platform::LinuxConnectionService;
using platform::NWConnection;
using test::errorOf;
using test::TestQueue;
using test::UserPass;

Bytes randomBytes(std::size_t size) {
    std::mt19937 generator(42);
    Bytes out(size);
    for (auto& b : out) {
        b = static_cast<std::uint8_t>(generator());
    }
    return out;
}

// Sends `payload` through the tunnel and reads until as many bytes came back.
Awaitable<Bytes> roundTrip(std::shared_ptr<NWConnection> connection, Bytes payload) {
    auto size = payload.size();
    auto sendError = co_await ConnectionSteps::send(connection, std::move(payload));
    if (sendError) {
        throw NetworkError(*sendError);
    }
    Bytes echoed;
    while (echoed.size() < size) {
        auto outcome = co_await ConnectionSteps::receive(connection, 1, 65536);
        if (outcome.error) {
            throw NetworkError(*outcome.error);
        }
        if (!outcome.data || outcome.data->empty()) {
            break;
        }
        echoed.insert(echoed.end(), outcome.data->begin(), outcome.data->end());
    }
    co_return echoed;
}

kit::ProxyServer loopbackProxy(kit::ProxyProtocol proto, std::uint16_t port,
                               std::optional<kit::ProxyCredentials> credentials = std::nullopt) {
    kit::ProxyServer proxy;
    proxy.address = "127.0.0.1";
    proxy.port = port;
    proxy.proto = proto;
    proxy.credentials = std::move(credentials);
    return proxy;
}

class InteropTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(echo.ok()); }

    // Connects through `proxy` to the echo server and checks that 200 KB
    // come back unchanged.
    void expectTunnel(const kit::ProxyServer& proxy, bool asDomain = false) {
        std::shared_ptr<NWConnection> upstream;
        if (proxy.proto == kit::ProxyProtocol::socks5) {
            SOCKS5Client client(proxy, service, queue.io());
            auto destination = asDomain
                                   ? SOCKS5Client::Destination::domain("127.0.0.1", echo.port())
                                   : SOCKS5Client::Destination::ipv4("127.0.0.1", echo.port());
            upstream = queue.await(client.connect(destination));
        } else {
            HTTPConnectClient client(proxy, service, queue.io());
            upstream = queue.await(client.connect("127.0.0.1", echo.port()));
        }
        auto payload = randomBytes(200 * 1024);
        EXPECT_EQ(queue.await(roundTrip(upstream, payload)), payload);
        upstream->cancel();
    }

    template <class E>
    std::optional<E> failure(const kit::ProxyServer& proxy) {
        if constexpr (std::is_same_v<E, SOCKSError>) {
            SOCKS5Client client(proxy, service, queue.io());
            return errorOf<E>(
                queue, client.connect(SOCKS5Client::Destination::ipv4("127.0.0.1", echo.port())));
        } else {
            HTTPConnectClient client(proxy, service, queue.io());
            return errorOf<E>(queue, client.connect("127.0.0.1", echo.port()));
        }
    }

    test::TCPEchoServer echo;
    TestQueue queue;
    LinuxConnectionService service;
};

TEST_F(InteropTest, MicrosocksWithoutAuthentication) {
    std::string whyNot;
    auto socks = test::startMicrosocks(whyNot);
    if (!socks) {
        GTEST_SKIP() << whyNot;
    }
    auto proxy = loopbackProxy(kit::ProxyProtocol::socks5, socks->port());
    expectTunnel(proxy);
    expectTunnel(proxy, /*asDomain=*/true);
}

TEST_F(InteropTest, MicrosocksWithUserNameAndPassword) {
    std::string whyNot;
    auto socks = test::startMicrosocks(whyNot, UserPass{"alice", "s3cret"});
    if (!socks) {
        GTEST_SKIP() << whyNot;
    }
    expectTunnel(loopbackProxy(kit::ProxyProtocol::socks5, socks->port(),
                               kit::ProxyCredentials{"alice", "s3cret"}));

    auto wrong = failure<SOCKSError>(loopbackProxy(kit::ProxyProtocol::socks5, socks->port(),
                                                   kit::ProxyCredentials{"alice", "wrong"}));
    EXPECT_EQ(wrong, SOCKSError::authFailed());

    auto none = failure<SOCKSError>(loopbackProxy(kit::ProxyProtocol::socks5, socks->port()));
    EXPECT_EQ(none, SOCKSError::authRequired());
    EXPECT_EQ(none->localizedDescription(), "代理要求认证，但未配置用户名密码");
}

TEST_F(InteropTest, DanteUDPAssociateCarriesDatagramsBothWays) {
    std::string whyNot;
    auto dante = test::startDante(whyNot);
    if (!dante) {
        GTEST_SKIP() << whyNot;
    }
    test::UDPEchoServer udpEcho;
    ASSERT_TRUE(udpEcho.ok());

    auto flow = platform::MemoryUDPFlow::make(queue.io());
    std::promise<bool> opened;
    flow->open([&](const std::optional<FlowError>& error) { opened.set_value(!error); });
    ASSERT_TRUE(opened.get_future().get());

    std::mutex mutex;
    std::condition_variable changed;
    std::optional<std::tuple<std::uint64_t, std::uint64_t, std::optional<FlowError>>> closed;
    auto relay = std::make_shared<UDPRelay>(
        flow, loopbackProxy(kit::ProxyProtocol::socks5, dante->port()), service, queue.io(),
        [&](std::uint64_t sent, std::uint64_t received, const std::optional<FlowError>& error) {
            std::lock_guard guard(mutex);
            closed.emplace(sent, received, error);
            changed.notify_all();
        });
    queue.await(relay->start());

    auto echoEndpoint =
        platform::NWHostEndpoint::endpointWithHostname("127.0.0.1", std::to_string(udpEcho.port()));
    const std::vector<Bytes> datagrams = {test::bytes("first"), randomBytes(1200),
                                          test::bytes("third")};
    // One at a time: UDP may reorder or drop, loopback does neither, but
    // waiting for each answer keeps the test free of that question.
    for (std::size_t i = 0; i < datagrams.size(); ++i) {
        flow->appSend({datagrams[i]}, {echoEndpoint});
        ASSERT_TRUE(flow->waitFor([&](const platform::MemoryUDPFlow::Record& r) {
            return r.written.size() == i + 1;
        })) << dante->log();
    }
    auto written = flow->record().written;
    for (std::size_t i = 0; i < datagrams.size(); ++i) {
        EXPECT_EQ(written[i].datagrams, std::vector<Bytes>{datagrams[i]});
        ASSERT_EQ(written[i].sentBy.size(), 1u);
        EXPECT_EQ(*platform::hostEndpoint(written[i].sentBy[0]),
                  platform::NWHostEndpoint("127.0.0.1", std::to_string(udpEcho.port())));
    }

    flow->appFinish();
    std::unique_lock lock(mutex);
    ASSERT_TRUE(
        changed.wait_for(lock, std::chrono::seconds(10), [&] { return closed.has_value(); }));
    std::uint64_t total = 5 + 1200 + 5;
    EXPECT_EQ(std::get<0>(*closed), total);
    EXPECT_EQ(std::get<1>(*closed), total);
    EXPECT_EQ(std::get<2>(*closed), std::nullopt);
}

TEST_F(InteropTest, TinyproxyWithBasicAuthentication) {
    std::string whyNot;
    auto http = test::startTinyproxy(whyNot, UserPass{"bob", "hunter2"});
    if (!http) {
        GTEST_SKIP() << whyNot;
    }
    expectTunnel(loopbackProxy(kit::ProxyProtocol::http, http->port(),
                               kit::ProxyCredentials{"bob", "hunter2"}));

    // Without credentials the proxy asks for them with 407.
    auto missing = failure<HTTPProxyError>(loopbackProxy(kit::ProxyProtocol::http, http->port()));
    ASSERT_TRUE(missing);
    EXPECT_EQ(missing->kind(), HTTPProxyError::Case::rejected);
    EXPECT_EQ(missing->status(), 407);

    // This proxy answers wrong credentials with 401, not 407; the client
    // judges by the status alone and reports the proxy's own words.
    auto wrong = failure<HTTPProxyError>(loopbackProxy(kit::ProxyProtocol::http, http->port(),
                                                       kit::ProxyCredentials{"bob", "nope"}));
    ASSERT_TRUE(wrong);
    EXPECT_EQ(*wrong, HTTPProxyError::rejected(401, "Unauthorized"));
}

TEST_F(InteropTest, SquidWithBasicAuthentication) {
    std::string whyNot;
    auto http = test::startSquid(whyNot, UserPass{"carol", "p4ss:word"});
    if (!http) {
        GTEST_SKIP() << whyNot;
    }
    // A colon in the password: the proxy splits the pair at the first one.
    expectTunnel(loopbackProxy(kit::ProxyProtocol::http, http->port(),
                               kit::ProxyCredentials{"carol", "p4ss:word"}));
}

TEST_F(InteropTest, NothingListening) {
    auto port = test::freeLoopbackPort(SOCK_STREAM);
    auto socks = failure<SOCKSError>(loopbackProxy(kit::ProxyProtocol::socks5, port));
    ASSERT_TRUE(socks);
    EXPECT_EQ(socks->kind(), SOCKSError::Case::connectionFailed);
    EXPECT_EQ(socks->reason(), platform::NWError::posix(ECONNREFUSED).localizedDescription());

    auto http = failure<HTTPProxyError>(loopbackProxy(kit::ProxyProtocol::http, port));
    ASSERT_TRUE(http);
    EXPECT_EQ(http->localizedDescription(),
              "无法连接代理：" + platform::NWError::posix(ECONNREFUSED).localizedDescription());
}

} // namespace
} // namespace veltrane::core
