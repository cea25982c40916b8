#include "ExtensionCore/Clients/SOCKS5Handshake.hpp"
#include "ExtensionCore/TestBytes.hpp"

#include <algorithm>
#include <gtest/gtest.h>

namespace veltrane::core {
namespace {

using test::bytes;
using test::concat;
using test::hex;
using Command = SOCKS5Handshake::Command;

struct Run {
    std::vector<Bytes> sent;
    std::optional<SOCKS5Handshake::Established> established;
    std::optional<SOCKSError> error;
    std::size_t consumed = 0; // bytes of the proxy's output that were read
};

// Plays the proxy: `proxyOutput` is everything it sends before closing. Each
// exact read takes what is left, fewer bytes once the output runs out.
Run runAgainst(SOCKS5Handshake handshake, const Bytes& proxyOutput) {
    Run run;
    auto action = handshake.start();
    for (;;) {
        if (auto* send = std::get_if<SOCKS5Handshake::Send>(&action)) {
            run.sent.push_back(send->bytes);
            action = handshake.sendCompleted();
        } else if (auto* receive = std::get_if<SOCKS5Handshake::Receive>(&action)) {
            std::size_t n = std::min(receive->count, proxyOutput.size() - run.consumed);
            std::span<const std::uint8_t> chunk(proxyOutput.data() + run.consumed, n);
            run.consumed += n;
            action = handshake.received(chunk);
        } else if (auto* done = std::get_if<SOCKS5Handshake::Established>(&action)) {
            run.established = *done;
            EXPECT_EQ(handshake.stage(), SOCKS5Handshake::Stage::finished);
            return run;
        } else {
            run.error = std::get<SOCKS5Handshake::Failure>(action).error;
            EXPECT_EQ(handshake.stage(), SOCKS5Handshake::Stage::failed);
            return run;
        }
    }
}

const std::optional<kit::ProxyCredentials> noCredentials;
const std::optional<kit::ProxyCredentials> userPass = kit::ProxyCredentials{"user", "pass"};
const Bytes replyIPv4 = hex("05 00 00 01 0a 00 00 01 1f 90"); // bound 10.0.0.1:8080

TEST(SOCKS5HandshakeTest, ExchangesAgainstScriptedProxy) {
    const auto exampleCom = SOCKS5Destination::domain("example.com", 443);
    const Bytes connectExample = hex("05 01 00 03 0b 6578616d706c652e636f6d 01bb");
    struct Case {
        const char* name;
        std::optional<kit::ProxyCredentials> credentials;
        Command command;
        SOCKS5Destination destination;
        Bytes proxyOutput;
        std::vector<Bytes> expectedSent;
        std::optional<SOCKS5Handshake::Established> expectedResult = std::nullopt;
        std::optional<SOCKSError> expectedError = std::nullopt;
        std::size_t expectedUnread = 0;
    } cases[] = {
        // A full exchange with credentials, and UDP ASSOCIATE with an IPv6
        // reply, are checked byte for byte in the client's tests.
        {"no credentials, IPv4 reply, application bytes stay unread",
         noCredentials,
         Command::connect,
         exampleCom,
         concat({hex("05 00"), replyIPv4, bytes("HTTP/1.1")}),
         {hex("05 01 00"), connectExample},
         SOCKS5Handshake::Established{"10.0.0.1", 8080},
         std::nullopt,
         8},
        {"empty user name and password count as credentials",
         kit::ProxyCredentials{"", ""},
         Command::connect,
         exampleCom,
         concat({hex("05 02 01 00"), replyIPv4}),
         {hex("05 02 00 02"), hex("01 00 00"), connectExample},
         SOCKS5Handshake::Established{"10.0.0.1", 8080}},
        {"reply ATYP 3 with invalid UTF-8 is repaired",
         noCredentials,
         Command::connect,
         exampleCom,
         hex("05 00 05 00 00 03 03 61ff62 0035"),
         {hex("05 01 00"), connectExample},
         SOCKS5Handshake::Established{"a\xEF\xBF\xBD"
                                      "b",
                                      53}},
        {"IPv4 destination",
         noCredentials,
         Command::connect,
         SOCKS5Destination::ipv4("192.168.1.20", 80),
         concat({hex("05 00"), replyIPv4}),
         {hex("05 01 00"), hex("05 01 00 01 c0a80114 0050")},
         SOCKS5Handshake::Established{"10.0.0.1", 8080}},
        {"IPv6 destination",
         noCredentials,
         Command::connect,
         SOCKS5Destination::ipv6("2001:db8::1", 443),
         concat({hex("05 00"), replyIPv4}),
         {hex("05 01 00"), hex("05 01 00 04 20010db8000000000000000000000001 01bb")},
         SOCKS5Handshake::Established{"10.0.0.1", 8080}},
        {"unparsable IPv6 text goes out as sixteen zeros",
         noCredentials,
         Command::connect,
         SOCKS5Destination::ipv6("not-an-address", 443),
         concat({hex("05 00"), replyIPv4}),
         {hex("05 01 00"), concat({hex("05 01 00 04"), Bytes(16, 0), hex("01bb")})},
         SOCKS5Handshake::Established{"10.0.0.1", 8080}},
        {"domain is sent unchanged",
         noCredentials,
         Command::connect,
         SOCKS5Destination::domain("Ex.COM", 1),
         concat({hex("05 00"), replyIPv4}),
         {hex("05 01 00"), hex("05 01 00 03 06 45782e434f4d 0001")},
         SOCKS5Handshake::Established{"10.0.0.1", 8080}},
        // Greeting failures.
        {"greeting VER not 5",
         noCredentials,
         Command::connect,
         exampleCom,
         hex("04 00"),
         {hex("05 01 00")},
         std::nullopt,
         SOCKSError::handshakeFailed()},
        {"0xFF without credentials",
         noCredentials,
         Command::connect,
         exampleCom,
         hex("05 ff"),
         {hex("05 01 00")},
         std::nullopt,
         SOCKSError::authRequired()},
        {"0xFF with credentials",
         userPass,
         Command::connect,
         exampleCom,
         hex("05 ff"),
         {hex("05 02 00 02")},
         std::nullopt,
         SOCKSError::unsupportedAuth(0xff)},
        {"method 1 (GSSAPI)",
         noCredentials,
         Command::connect,
         exampleCom,
         hex("05 01"),
         {hex("05 01 00")},
         std::nullopt,
         SOCKSError::unsupportedAuth(1)},
        {"method 2 never offered: nothing more is sent",
         noCredentials,
         Command::connect,
         exampleCom,
         hex("05 02 01 00"),
         {hex("05 01 00")},
         std::nullopt,
         SOCKSError::authRequired(),
         2},
        // Authentication failures.
        {"auth status 01 01",
         userPass,
         Command::connect,
         exampleCom,
         hex("05 02 01 01"),
         {hex("05 02 00 02"), hex("01 04 75736572 04 70617373")},
         std::nullopt,
         SOCKSError::authFailed()},
        {"auth status with wrong version",
         userPass,
         Command::connect,
         exampleCom,
         hex("05 02 05 00"),
         {hex("05 02 00 02"), hex("01 04 75736572 04 70617373")},
         std::nullopt,
         SOCKSError::authFailed()},
        // Request failures.
        {"reply VER not 5",
         noCredentials,
         Command::connect,
         exampleCom,
         hex("05 00 04 00 00 01 7f000001 0050"),
         {hex("05 01 00"), connectExample},
         std::nullopt,
         SOCKSError::handshakeFailed(),
         6},
        {"REP judged before ATYP",
         noCredentials,
         Command::connect,
         exampleCom,
         hex("05 00 05 07 00 09"),
         {hex("05 01 00"), connectExample},
         std::nullopt,
         SOCKSError::requestRejected(7)},
        {"unknown ATYP",
         noCredentials,
         Command::connect,
         exampleCom,
         hex("05 00 05 00 00 09 7f000001 0050"),
         {hex("05 01 00"), connectExample},
         std::nullopt,
         SOCKSError::handshakeFailed(),
         6},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto run =
            runAgainst(SOCKS5Handshake(c.credentials, c.command, c.destination), c.proxyOutput);
        EXPECT_EQ(run.sent, c.expectedSent);
        EXPECT_EQ(run.established, c.expectedResult);
        EXPECT_EQ(run.error, c.expectedError);
        EXPECT_EQ(c.proxyOutput.size() - run.consumed, c.expectedUnread);
    }
}

TEST(SOCKS5HandshakeTest, ProxyClosingAtEveryStepGivesShortRead) {
    struct Case {
        const char* name;
        std::optional<kit::ProxyCredentials> credentials;
        Bytes proxyOutput;
    } cases[] = {
        {"authenticated, domain reply", userPass, hex("05 02 01 00 05 00 00 03 02 6869 0050")},
        {"IPv6 reply", noCredentials,
         concat({hex("05 00 05 00 00 04"), Bytes(16, 1), hex("0050")})},
    };
    for (const auto& c : cases) {
        for (std::size_t length = 0; length < c.proxyOutput.size(); ++length) {
            SCOPED_TRACE(std::string(c.name) + ", closed after " + std::to_string(length));
            Bytes truncated(c.proxyOutput.begin(), c.proxyOutput.begin() + length);
            auto run = runAgainst(
                SOCKS5Handshake(c.credentials, Command::connect, SOCKS5Destination::domain("h", 1)),
                truncated);
            EXPECT_EQ(run.error, SOCKSError::shortRead());
        }
    }
}

TEST(SOCKS5HandshakeTest, ValueOverLengthByteFailsOnlyWhenItWouldBeSent) {
    const std::string max(255, 'a');
    const std::string over(256, 'a');
    const auto h = SOCKS5Destination::domain("h", 1);
    const Bytes picksNone = concat({hex("05 00"), replyIPv4});
    const Bytes picksPassword = concat({hex("05 02 01 00"), replyIPv4});
    struct Case {
        const char* name;
        std::optional<kit::ProxyCredentials> credentials;
        SOCKS5Destination destination;
        Bytes proxyOutput;
        std::size_t expectedSends;
        std::optional<SOCKSError> expectedError;
    } cases[] = {
        {"255-byte domain fits", noCredentials, SOCKS5Destination::domain(max, 1), picksNone, 2,
         std::nullopt},
        {"256-byte domain: nothing sent", noCredentials, SOCKS5Destination::domain(over, 1),
         picksNone, 0, SOCKSError::valueTooLong(SOCKSError::Field::domain)},
        {"long IPv4 text is no domain", noCredentials, SOCKS5Destination::ipv4(over, 1), picksNone,
         2, std::nullopt},
        {"255-byte user and password fit", kit::ProxyCredentials{max, max}, h, picksPassword, 3,
         std::nullopt},
        {"256-byte user name, proxy picks 0x02", kit::ProxyCredentials{over, "p"}, h, picksPassword,
         1, SOCKSError::valueTooLong(SOCKSError::Field::username)},
        {"256-byte password, proxy picks 0x02: no auth bytes sent",
         kit::ProxyCredentials{"u", over}, h, picksPassword, 1,
         SOCKSError::valueTooLong(SOCKSError::Field::password)},
        {"256-byte password, proxy picks no-auth: request sent", kit::ProxyCredentials{"u", over},
         h, picksNone, 2, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto run = runAgainst(SOCKS5Handshake(c.credentials, Command::connect, c.destination),
                              c.proxyOutput);
        EXPECT_EQ(run.sent.size(), c.expectedSends);
        EXPECT_EQ(run.error, c.expectedError);
        EXPECT_EQ(run.established.has_value(), !c.expectedError);
    }
    EXPECT_EQ(SOCKS5Destination::domain(over, 1).addressBytes(), std::nullopt);
    auto fits = SOCKS5Destination::domain(max, 0x1234).addressBytes();
    ASSERT_TRUE(fits);
    EXPECT_EQ(fits->size(), 1 + 1 + 255 + 2u);
    EXPECT_EQ((*fits)[1], 255);
}

TEST(SOCKS5HandshakeTest, LenientIPv4Text) {
    struct Case {
        const char* text;
        Bytes expected;
    } cases[] = {
        {"1..2.3.4.", hex("01020304")},    // empty pieces dropped
        {"1.2.x.3.4", hex("01020304")},    // unparsable piece skipped
        {"001.+2.3.255", hex("010203ff")}, // leading zeros, sign
        {"1.2.3.256", hex("00000000")},    // 256 is no 8-bit number
        {"1.2.3.4.5", hex("00000000")},    // five numbers
        {"-0.1.2.3", hex("00010203")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        auto address = SOCKS5Destination::ipv4(c.text, 0x0102).addressBytes();
        ASSERT_TRUE(address);
        EXPECT_EQ(*address, concat({hex("01"), c.expected, hex("0102")}));
    }
}

// The messages with something filled in; the fixed ones would only repeat
// their text.
TEST(SOCKS5HandshakeTest, MessagesAreQuotedTexts) {
    struct Case {
        SOCKSError error;
        const char* message;
    } cases[] = {
        {SOCKSError::connectionFailed("Connection refused"), "无法连接代理：Connection refused"},
        {SOCKSError::unsupportedAuth(1), "代理要求不支持的认证方式 (0x1)"},
        {SOCKSError::requestRejected(0x1a), "代理拒绝了连接请求 (REP=0x1a)"},
        {SOCKSError::valueTooLong(SOCKSError::Field::domain),
         "目标域名超过 255 字节，SOCKS5 无法发送"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.error.errorDescription(), c.message);
        EXPECT_STREQ(c.error.what(), c.message);
        EXPECT_EQ(c.error.domain(), "SOCKS5Client.SOCKSError");
    }
}

} // namespace
} // namespace veltrane::core
