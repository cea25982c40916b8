#include "ExtensionCore/DNS/DirectResolver.hpp"
#include "ExtensionCore/TestBytes.hpp"
#include "Platform/linux/LinuxConnection.hpp"
#include "Support/Peers.hpp"
#include "Support/PoolQueue.hpp"

#include <future>
#include <gtest/gtest.h>

namespace veltrane::core {
namespace {

using test::hex;

TEST(DirectResolverTest, QueriesAndRepliesOnTheWire) {
    EXPECT_EQ(DirectResolver::makeQuery(0x4242, "a.example.", DirectResolver::typeA),
              hex("4242 0100 0001 0000 0000 0000 0161 076578616d706c65 00 0001 0001"));
    std::vector<std::string> unwritable{"", ".", "a..example"};
    unwritable.emplace_back(64, 'x'); // a label over 63 bytes
    unwritable.back().append(".example");
    for (const auto& bad : unwritable) {
        EXPECT_TRUE(DirectResolver::makeQuery(1, bad, DirectResolver::typeA).empty()) << bad;
    }

    // A reply to the query for a.example: a CNAME, then the A record it leads to.
    const auto question = hex("0161 076578616d706c65 00 0001 0001");
    const auto answers = hex("c00c 0005 0001 0000003c 0004 0162c00e"   // a.example CNAME b.example
                             "c027 0001 0001 0000003c 0004 c0000207"); // b.example A 192.0.2.7
    auto reply = [&](const char* header, const test::Bytes& rest) {
        return test::concat({hex(header), question, rest});
    };
    const struct {
        const char* name;
        test::Bytes bytes;
        std::optional<std::vector<std::string>> expected;
    } cases[] = {
        {"cname then address", reply("4242 8180 0001 0002 0000 0000", answers),
         std::vector<std::string>{"192.0.2.7"}},
        {"no such name", reply("4242 8183 0001 0000 0000 0000", {}), std::vector<std::string>{}},
        {"another query's reply", reply("4243 8180 0001 0002 0000 0000", answers), std::nullopt},
        {"a query, not a reply", reply("4242 0100 0001 0000 0000 0000", {}), std::nullopt},
        {"server failure", reply("4242 8182 0001 0000 0000 0000", {}), std::nullopt},
        {"cut short", reply("4242 8180 0001 0002 0000 0000", hex("c00c 0005 0001")), std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(DirectResolver::parseAddresses(c.bytes, 0x4242, DirectResolver::typeA),
                  c.expected)
            << c.name;
    }
}

TEST(DirectResolverTest, ServersOfTheResolverConfiguration) {
    EXPECT_EQ(DirectResolver::serversIn("# stub\nnameserver 127.0.0.53\nnameserver\t192.0.2.53 # "
                                        "lab\nnameservers 192.0.2.9\nnameserver 2001:db8::53\n"
                                        "nameserver ::1\nsearch example\nnameserver bogus\n"),
              (std::vector<std::string>{"192.0.2.53:53", "[2001:db8::53]:53"}));
    EXPECT_EQ(DirectResolver::splitServer("[2001:db8::53]:5353"),
              std::pair(std::string("2001:db8::53"), std::uint16_t(5353)));
    EXPECT_EQ(DirectResolver::splitServer("192.0.2.1:0"), std::nullopt);
}

TEST(DirectResolverTest, LooksNamesUpWithARealResolver) {
    std::string whyNot;
    auto dnsmasq = test::startDnsmasq(
        whyNot, {"name.test=192.0.2.7", "fake.test=198.18.0.9", "six.test=2001:db8::7"});
    if (!dnsmasq) {
        GTEST_SKIP() << whyNot;
    }
    test::PoolQueue queue;
    platform::LinuxConnectionService connections;
    const auto server = "127.0.0.1:" + std::to_string(dnsmasq->port());
    auto isFake = [](const std::string& address) { return address.starts_with("198.18."); };
    const struct {
        const char* name;
        std::vector<std::string> expected;
    } cases[] = {{"name.test", {"192.0.2.7"}},
                 {"six.test", {"2001:db8::7"}}, // no A record: AAAA is asked next
                 {"fake.test", {}},
                 {"unknown.test", {}}};
    for (const auto& c : cases) {
        std::promise<std::vector<std::string>> found;
        DirectResolver::resolve(
            c.name, server, connections, queue.context(), std::chrono::milliseconds(2000), isFake,
            [&](std::vector<std::string> addresses) { found.set_value(std::move(addresses)); });
        EXPECT_EQ(found.get_future().get(), c.expected) << c.name;
    }
}

} // namespace
} // namespace veltrane::core
