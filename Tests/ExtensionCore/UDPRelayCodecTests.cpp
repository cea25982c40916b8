#include "ExtensionCore/Clients/UDPRelay.hpp"
#include "ExtensionCore/TestBytes.hpp"

#include <gtest/gtest.h>

namespace veltrane::core {
namespace {

using test::Bytes;
using test::bytes;
using test::concat;
using test::hex;

TEST(UDPRelayCodecTest, Encapsulate) {
    const std::string max(255, 'h');
    struct Case {
        const char* name;
        std::string host;
        std::uint16_t port;
        Bytes payload;
        std::optional<Bytes> expected;
    } cases[] = {
        {"IPv4", "8.8.8.8", 53, bytes("abc"), hex("000000 01 08080808 0035 616263")},
        {"host name", "dns.google", 443, bytes("x"),
         concat({hex("000000 03 0a"), bytes("dns.google"), hex("01bb"), bytes("x")})},
        {"255-byte host", max, 0xffff, {}, concat({hex("000000 03 ff"), bytes(max), hex("ffff")})},
        {"256-byte host is not framed", max + "h", 1, bytes("x"), std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(UDPRelay::encapsulate(c.payload, c.host, c.port), c.expected);
    }
}

TEST(UDPRelayCodecTest, Decapsulate) {
    using D = UDPRelay::Datagram;
    struct Case {
        const char* name;
        Bytes frame;
        std::optional<D> expected;
    } cases[] = {
        {"IPv4", hex("0000 00 01 08080808 0035 616263"), D{bytes("abc"), "8.8.8.8", 53}},
        {"RSV not inspected", hex("ffff 00 01 01020304 0001 00"), D{hex("00"), "1.2.3.4", 1}},
        {"exactly the header gives an empty payload", hex("0000 00 01 01020304 0001"),
         D{{}, "1.2.3.4", 1}},
        {"name", concat({hex("0000 00 03 04"), bytes("host"), hex("01bb"), bytes("p")}),
         D{bytes("p"), "host", 443}},
        {"name with invalid UTF-8", hex("0000 00 03 02 c328 0001"), D{{}, "\xEF\xBF\xBD(", 1}},
        {"IPv6 sender is ::", concat({hex("0000 00 04"), Bytes(16, 7), hex("0050 aa")}),
         D{hex("aa"), "::", 80}},
        {"FRAG 1", hex("0000 01 01 08080808 0035 61"), std::nullopt},
        {"unknown ATYP", hex("0000 00 05 08080808 0035"), std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(UDPRelay::decapsulate(c.frame), c.expected);
    }
}

TEST(UDPRelayCodecTest, TruncatedFramesNeverDecode) {
    const Bytes frames[] = {
        hex("0000 00 01 08080808 0035"),
        concat({hex("0000 00 03 04"), bytes("host"), hex("01bb")}),
        concat({hex("0000 00 04"), Bytes(16, 7), hex("0050")}),
    };
    for (const auto& frame : frames) {
        ASSERT_TRUE(UDPRelay::decapsulate(frame));
        for (std::size_t length = 0; length < frame.size(); ++length) {
            SCOPED_TRACE(length);
            EXPECT_FALSE(UDPRelay::decapsulate(std::span(frame).first(length)));
        }
    }
}

TEST(UDPRelayCodecTest, IPv4Octets) {
    using O = std::array<std::uint8_t, 4>;
    struct Case {
        const char* text;
        std::optional<O> expected;
    } cases[] = {
        {"1.2.3.4", O{1, 2, 3, 4}},  {"255.255.255.255", O{255, 255, 255, 255}},
        {"1..2.3.4", O{1, 2, 3, 4}}, {"01.2.3.4", O{1, 2, 3, 4}},
        {"1.2.3", std::nullopt},     {"1.2.3.4.5", std::nullopt},
        {"1.2.3.x", std::nullopt},   {"1.2.3.256", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(UDPRelay::ipv4Octets(c.text), c.expected);
    }
}

} // namespace
} // namespace veltrane::core
