#include "ExtensionCore/Clients/HTTPConnectHandshake.hpp"
#include "ExtensionCore/TestBytes.hpp"

#include <gtest/gtest.h>

namespace veltrane::core {
namespace {

using test::Bytes;
using test::bytes;
using test::concat;
using test::text;
using Outcome = HTTPConnectHandshake::Outcome;

HTTPConnectHandshake anyHandshake() {
    return HTTPConnectHandshake("h", 1, std::nullopt);
}

// Feeds `response` in reads of at most `chunk` bytes, then reports the close.
Outcome feed(const Bytes& response, std::size_t chunk) {
    auto handshake = anyHandshake();
    for (std::size_t at = 0; at < response.size(); at += chunk) {
        std::size_t n = std::min(chunk, response.size() - at);
        auto outcome = handshake.received(std::span(response).subspan(at, n));
        if (!std::holds_alternative<HTTPConnectHandshake::ReadMore>(outcome)) {
            return outcome;
        }
    }
    return handshake.received({});
}

Outcome established(std::string_view tunnel = "") {
    return HTTPConnectHandshake::Established{bytes(tunnel)};
}
Outcome failure(HTTPProxyError error) {
    return HTTPConnectHandshake::Failure{std::move(error)};
}

TEST(HTTPConnectHandshakeTest, RequestIsExact) {
    struct Case {
        const char* name;
        std::string host;
        std::uint16_t port;
        std::optional<kit::ProxyCredentials> credentials;
        const char* expected;
    } cases[] = {
        {"no credentials: two header lines", "example.com", 443, std::nullopt,
         "CONNECT example.com:443 HTTP/1.1\r\n"
         "Host: example.com:443\r\n"
         "Proxy-Connection: Keep-Alive\r\n\r\n"},
        {"empty password keeps the colon", "a", 1, kit::ProxyCredentials{"user", ""},
         "CONNECT a:1 HTTP/1.1\r\nHost: a:1\r\n"
         "Proxy-Authorization: Basic dXNlcjo=\r\n"
         "Proxy-Connection: Keep-Alive\r\n\r\n"},
        {"UTF-8 credentials", "a", 65535, kit::ProxyCredentials{"用户", "密"},
         "CONNECT a:65535 HTTP/1.1\r\nHost: a:65535\r\n"
         "Proxy-Authorization: Basic 55So5oi3OuWvhg==\r\n"
         "Proxy-Connection: Keep-Alive\r\n\r\n"},
        {"IPv6 literal without brackets", "2001:db8::1", 8443, std::nullopt,
         "CONNECT 2001:db8::1:8443 HTTP/1.1\r\nHost: 2001:db8::1:8443\r\n"
         "Proxy-Connection: Keep-Alive\r\n\r\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(text(HTTPConnectHandshake(c.host, c.port, c.credentials).request()), c.expected);
    }
}

TEST(HTTPConnectHandshakeTest, StatusLineForms) {
    struct Case {
        const char* response;
        Outcome expected;
    } cases[] = {
        {"X 204\r\n\r\n", established()},
        {"HTTP/1.1  200 OK\r\n\r\n", established()},
        {"HTTP/1.1 299 Whatever\r\nVia: x\r\n\r\n", established()},
        {"\r\nHTTP/1.1 200 OK\r\n\r\n", established()}, // empty lines are dropped
        {"HTTP/1.1 100 Continue\r\n\r\n", failure(HTTPProxyError::rejected(100, "Continue"))},
        {"HTTP/1.1 300 Multiple\r\n\r\n", failure(HTTPProxyError::rejected(300, "Multiple"))},
        {"HTTP/1.1 403\r\n\r\n", failure(HTTPProxyError::rejected(403, ""))},
        {"HTTP/1.1 403 \r\n\r\n", failure(HTTPProxyError::rejected(403, ""))},
        {"HTTP/1.1 502 Bad  Gateway now\r\n\r\n",
         failure(HTTPProxyError::rejected(502, "Bad  Gateway now"))},
        {"HTTP/1.1 502  Bad\r\n\r\n", failure(HTTPProxyError::rejected(502, " Bad"))},
        {"HTTP/1.1 2OO OK\r\n\r\n", failure(HTTPProxyError::malformedResponse())},
        {"HTTP/1.1\r\n\r\n", failure(HTTPProxyError::malformedResponse())},
        {"\r\n\r\n", failure(HTTPProxyError::malformedResponse())},
        {"HTTP/1.1 99999999999999999999 Big\r\n\r\n", failure(HTTPProxyError::malformedResponse())},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.response);
        EXPECT_EQ(feed(bytes(c.response), 4096), c.expected);
    }
}

TEST(HTTPConnectHandshakeTest, SplitAtEveryOffsetAndTruncatedAtEveryLength) {
    const Bytes response = bytes("HTTP/1.1 200 Connection established\r\nVia: p\r\n\r\nHELLO");
    const Bytes head(response.begin(), response.end() - 5);
    for (std::size_t split = 1; split < response.size(); ++split) {
        SCOPED_TRACE("split at " + std::to_string(split));
        auto handshake = anyHandshake();
        auto first = handshake.received(std::span(response).first(split));
        if (split < head.size()) {
            ASSERT_EQ(first, Outcome(HTTPConnectHandshake::ReadMore{}));
            EXPECT_EQ(handshake.received(std::span(response).subspan(split)), established("HELLO"));
        } else {
            EXPECT_EQ(first, established(text(
                                 Bytes(response.begin() + static_cast<std::ptrdiff_t>(head.size()),
                                       response.begin() + static_cast<std::ptrdiff_t>(split)))));
        }
    }
    for (std::size_t length = 0; length < head.size(); ++length) {
        SCOPED_TRACE("closed after " + std::to_string(length));
        EXPECT_EQ(feed(Bytes(head.begin(), head.begin() + static_cast<std::ptrdiff_t>(length)), 7),
                  failure(HTTPProxyError::malformedResponse()));
    }
    // One byte at a time: the bytes after the block stay in the connection.
    EXPECT_EQ(feed(response, 1), established());
}

TEST(HTTPConnectHandshakeTest, HeaderBlockBound) {
    const std::string status = "HTTP/1.1 200 OK\r\nX: ";
    auto filler = [&](std::size_t total) {
        return bytes(status + std::string(total - status.size(), 'a'));
    };
    // 8191 bytes without the terminator still wait for more; 8192 is refused.
    {
        auto handshake = anyHandshake();
        EXPECT_EQ(handshake.received(filler(8191)), Outcome(HTTPConnectHandshake::ReadMore{}));
        EXPECT_EQ(handshake.received(bytes("a")), failure(HTTPProxyError::malformedResponse()));
    }
    // A block that ends inside the read that crossed the bound is taken.
    {
        auto handshake = anyHandshake();
        EXPECT_EQ(handshake.received(filler(8000)), Outcome(HTTPConnectHandshake::ReadMore{}));
        auto last = concat({Bytes(1000, 'b'), bytes("\r\n\r\n"), Bytes(3000, 'c')});
        auto outcome = handshake.received(last);
        ASSERT_TRUE(std::holds_alternative<HTTPConnectHandshake::Established>(outcome));
        EXPECT_EQ(std::get<HTTPConnectHandshake::Established>(outcome).tunnelBytes,
                  Bytes(3000, 'c'));
    }
}

} // namespace
} // namespace veltrane::core
