#include "ExtensionCore/Clients/ConnectionSteps.hpp"
#include "ExtensionCore/Clients/InterfaceBoundClient.hpp"
#include "ExtensionCore/Clients/InterfaceRegistry.hpp"
#include "ExtensionCore/TestBytes.hpp"
#include "ExtensionCore/TestQueue.hpp"
#include "Platform/linux/LinuxConnection.hpp"
#include "Platform/memory/MemoryConnection.hpp"
#include "Support/EchoServers.hpp"
#include "Support/NetNamespace.hpp"
#include "Support/Peers.hpp"

#include <cerrno>
#include <gtest/gtest.h>

namespace veltrane::core {
namespace {

using platform::NWError;
using platform::NWInterface;
using test::errorOf;
using test::NetNamespace;

// Polls a condition that changes on another thread, with a deadline.
template <class F>
bool eventually(F condition) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// Runs a queue on one thread from its construction to its end.
class Runner {
public:
    explicit Runner(asio::io_context& io) : io_(io), work_(asio::make_work_guard(io)) {
        thread_ = std::thread([this] { io_.run(); });
    }
    ~Runner() {
        work_.reset();
        io_.stop();
        thread_.join();
    }

private:
    asio::io_context& io_;
    asio::executor_work_guard<asio::io_context::executor_type> work_;
    std::thread thread_;
};

TEST(InterfaceRegistryTest, FollowsInterfacesThatComeAndGo) {
    std::string whyNot;
    auto ns = NetNamespace::create(whyNot);
    if (!ns) {
        GTEST_SKIP() << whyNot;
    }
    ASSERT_TRUE(ns->must("ip link set lo up"));

    asio::io_context io; // not running yet: no update can have arrived
    InterfaceRegistry registry;
    {
        auto inside = ns->enter();
        ASSERT_TRUE(inside.ok());
        registry.start(io);
    }
    EXPECT_EQ(registry.interface("lo"), std::nullopt);
    registry.start(io); // a second start changes nothing

    Runner runner(io);

    EXPECT_TRUE(eventually([&] { return registry.interface("lo").has_value(); }));
    ASSERT_TRUE(ns->must("ip tuntap add dev vt0 mode tun && ip link set vt0 up"));
    EXPECT_TRUE(eventually([&] { return registry.interface("vt0").has_value(); }));
    auto vt0 = registry.interface("vt0");
    ASSERT_TRUE(vt0);
    EXPECT_EQ(vt0->name, "vt0");
    EXPECT_GT(vt0->index, 0u);
    EXPECT_EQ(registry.interface("VT0"), std::nullopt); // names are case-sensitive

    // A tunnel that comes back under a new name is a new name to the registry.
    ASSERT_TRUE(ns->must("ip link set vt0 down && ip link set vt0 name vt9 && ip link set vt9 up"));
    EXPECT_TRUE(eventually(
        [&] { return !registry.interface("vt0") && registry.interface("vt9").has_value(); }));
    ASSERT_TRUE(ns->must("ip link del vt9"));
    EXPECT_TRUE(eventually([&] { return !registry.interface("vt9"); }));
    EXPECT_TRUE(registry.interface("lo").has_value());
}

TEST(InterfaceBoundClientTest, ConnectsOnlyThroughItsInterface) {
    std::string whyNot;
    auto ns = NetNamespace::create(whyNot);
    if (!ns) {
        GTEST_SKIP() << whyNot;
    }
    ASSERT_TRUE(ns->must("ip link set lo up"));
    ASSERT_TRUE(ns->must("ip tuntap add dev vt1 mode tun && ip link set vt1 up"));

    test::TestQueue queue(ns.get());
    InterfaceRegistry registry;
    std::optional<test::TCPEchoServer> echo;
    {
        auto inside = ns->enter();
        ASSERT_TRUE(inside.ok());
        registry.start(queue.io());
        echo.emplace();
    }
    ASSERT_TRUE(echo->ok());
    ASSERT_TRUE(eventually([&] { return registry.interface("lo") && registry.interface("vt1"); }));
    platform::LinuxConnectionService service;

    // Through loopback to a server in the namespace, with real bytes.
    {
        InterfaceBoundClient client("127.0.0.1", echo->port(), *registry.interface("lo"), service,
                                    queue.io());
        auto upstream = queue.await(client.connect());
        auto payload = test::bytes("pinned bytes");
        ASSERT_FALSE(queue.await(ConnectionSteps::send(upstream, payload)));
        auto echoed =
            queue.await(ConnectionSteps::receive(upstream, payload.size(), payload.size()));
        EXPECT_EQ(echoed.data, payload);
        upstream->cancel();
    }

    // A refusal on the pinned path: the failure names the interface.
    {
        auto closedPort = test::freeLoopbackPort(SOCK_STREAM); // the namespace's loopback is empty
        InterfaceBoundClient client("127.0.0.1", closedPort, *registry.interface("lo"), service,
                                    queue.io());
        auto error = errorOf<InterfaceError>(queue, client.connect());
        EXPECT_EQ(error, InterfaceError::connectionFailed(
                             "lo", NWError::posix(ECONNREFUSED).localizedDescription()));
    }

    // An interface that went away after the look-up.
    auto vt1 = *registry.interface("vt1");
    ASSERT_TRUE(ns->must("ip link del vt1"));
    ASSERT_TRUE(eventually([&] { return !registry.interface("vt1"); }));
    {
        InterfaceBoundClient client("127.0.0.1", echo->port(), vt1, service, queue.io());
        auto error = errorOf<InterfaceError>(queue, client.connect());
        EXPECT_EQ(error, InterfaceError::connectionFailed(
                             "vt1", NWError::posix(ENODEV).localizedDescription()));
    }
    echo.reset();
}

TEST(InterfaceBoundClientTest, StartOutcomes) {
    struct Case {
        const char* name;
        std::vector<platform::MemoryConnection::StateStep> states;
        std::optional<InterfaceError> expected;
    } cases[] = {
        {"ready after waiting",
         {{platform::NWConnectionState::preparing, std::nullopt},
          {platform::NWConnectionState::waiting, std::nullopt},
          {platform::NWConnectionState::ready, std::nullopt}},
         std::nullopt},
        {"failed",
         {{platform::NWConnectionState::failed, NWError::posix(EHOSTUNREACH)}},
         InterfaceError::connectionFailed("utun4",
                                          NWError::posix(EHOSTUNREACH).localizedDescription())},
        {"cancelled",
         {{platform::NWConnectionState::cancelled, std::nullopt}},
         InterfaceError::connectionFailed("utun4", "cancelled")},
    };
    test::TestQueue queue;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        platform::MemoryConnectionService service;
        auto connection = platform::MemoryConnection::make();
        connection->setStartStates(c.states);
        service.enqueue(connection);
        InterfaceBoundClient client("example.com", 443, NWInterface{"utun4", 7}, service,
                                    queue.io());
        auto requests = service.requests();
        ASSERT_EQ(requests.size(), 1u);
        EXPECT_EQ(requests[0].host, "example.com");
        EXPECT_EQ(requests[0].port, 443);
        EXPECT_EQ(requests[0].parameters.requiredInterface, "utun4");
        EXPECT_EQ(requests[0].parameters.transport, platform::NWParameters::Transport::tcp);
        if (c.expected) {
            EXPECT_EQ(errorOf<InterfaceError>(queue, client.connect()), c.expected);
        } else {
            EXPECT_EQ(queue.await(client.connect()), connection);
        }
        EXPECT_EQ(connection->record().cancels, 0u);
    }
    EXPECT_EQ(InterfaceError::unavailable("utun4").localizedDescription(),
              "网卡「utun4」不在了 —— VPN 可能断开了，或重连后换了名字");
}

} // namespace
} // namespace veltrane::core
