#pragma once

#include "ExtensionCore/Clients/SOCKSError.hpp"
#include "VeltraneKit/Profile.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

namespace veltrane::core {

using Bytes = std::vector<std::uint8_t>;

// The target of a SOCKS5 request as the caller classified it (also reached
// as SOCKS5Client::Destination).
struct SOCKS5Destination {
    enum class Kind { domain, ipv4, ipv6 };

    Kind kind = Kind::domain;
    std::string host;
    std::uint16_t port = 0;

    static SOCKS5Destination domain(std::string host, std::uint16_t port) {
        return {Kind::domain, std::move(host), port};
    }
    static SOCKS5Destination ipv4(std::string host, std::uint16_t port) {
        return {Kind::ipv4, std::move(host), port};
    }
    static SOCKS5Destination ipv6(std::string host, std::uint16_t port) {
        return {Kind::ipv6, std::move(host), port};
    }

    // ATYP, address and port (high byte first). An IPv4 text that is not
    // four numbers goes out as 0.0.0.0 and an IPv6 text that does not parse
    // as sixteen zero bytes. Nothing when a domain is over 255 bytes.
    std::optional<Bytes> addressBytes() const;

    friend bool operator==(const SOCKS5Destination&, const SOCKS5Destination&) = default;
};

// The client side of RFC 1928 with RFC 1929 authentication, without I/O.
// The driver asks for the first action, carries it out, and reports back:
// a Send is answered by sendCompleted(), a Receive by received() with what
// one exact read delivered (fewer bytes when the proxy closed). Nothing is
// ever asked for beyond what the proxy announced, so bytes that follow the
// reply stay unread.
class SOCKS5Handshake {
public:
    enum class Command : std::uint8_t { connect = 1, udpAssociate = 3 };

    enum class Stage { created, greeting, authenticating, requesting, finished, failed };

    struct Send {
        Bytes bytes;
        friend bool operator==(const Send&, const Send&) = default;
    };
    struct Receive {
        std::size_t count;
        friend bool operator==(const Receive&, const Receive&) = default;
    };
    // The proxy's bound address from the reply.
    struct Established {
        std::string host;
        std::uint16_t port;
        friend bool operator==(const Established&, const Established&) = default;
    };
    struct Failure {
        SOCKSError error;
        friend bool operator==(const Failure&, const Failure&) = default;
    };
    using Action = std::variant<Send, Receive, Established, Failure>;

    SOCKS5Handshake(std::optional<kit::ProxyCredentials> credentials, Command command,
                    SOCKS5Destination destination);

    // The greeting to send, or a failure when a value can't be expressed;
    // in that case nothing must be sent at all.
    Action start();
    Action sendCompleted();
    Action received(std::span<const std::uint8_t> bytes);

    Stage stage() const;

private:
    enum class Step {
        created,
        sendingGreeting,
        readingMethod,
        sendingAuth,
        readingAuthStatus,
        sendingRequest,
        readingReplyHead,
        readingIPv4,
        readingDomainLength,
        readingDomain,
        readingIPv6,
        readingPort,
        finished,
        failed,
    };

    Action fail(SOCKSError error);
    Action expect(Step step, std::size_t count);
    Action sendRequest();
    Action onMethod(std::span<const std::uint8_t> reply);
    Action onAuthStatus(std::span<const std::uint8_t> reply);
    Action onReplyHead(std::span<const std::uint8_t> reply);

    std::optional<kit::ProxyCredentials> credentials_;
    Command command_;
    SOCKS5Destination destination_;
    Step step_ = Step::created;
    std::size_t expected_ = 0;
    std::string boundHost_;
};

} // namespace veltrane::core
