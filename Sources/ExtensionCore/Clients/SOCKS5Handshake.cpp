#include "ExtensionCore/Clients/SOCKS5Handshake.hpp"

#include "ExtensionCore/DecimalText.hpp"
#include "VeltraneKit/UnicodeText.hpp"

#include <arpa/inet.h>
#include <array>
#include <stdexcept>
#include <string_view>

namespace veltrane::core {

namespace {

constexpr std::uint8_t version = 5;
constexpr std::uint8_t methodNone = 0x00;
constexpr std::uint8_t methodPassword = 0x02;
constexpr std::uint8_t methodRefused = 0xFF;
constexpr std::size_t maxLengthByte = 255;

void appendPort(Bytes& out, std::uint16_t port) {
    out.push_back(static_cast<std::uint8_t>(port >> 8));
    out.push_back(static_cast<std::uint8_t>(port & 0xFF));
}

// Splits at "." dropping empty pieces, keeps the pieces that read as 8-bit
// numbers; four of them are the address, anything else is 0.0.0.0.
std::array<std::uint8_t, 4> lenientIPv4(std::string_view text) {
    std::vector<std::uint8_t> numbers;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t dot = text.find('.', start);
        if (dot == std::string_view::npos) {
            dot = text.size();
        }
        std::string_view piece = text.substr(start, dot - start);
        if (!piece.empty()) {
            if (auto value = parseUnsignedDecimal(piece, 255)) {
                numbers.push_back(static_cast<std::uint8_t>(*value));
            }
        }
        start = dot + 1;
    }
    if (numbers.size() != 4) {
        return {0, 0, 0, 0};
    }
    return {numbers[0], numbers[1], numbers[2], numbers[3]};
}

std::array<std::uint8_t, 16> lenientIPv6(const std::string& text) {
    std::array<std::uint8_t, 16> bytes{};
    if (inet_pton(AF_INET6, text.c_str(), bytes.data()) != 1) {
        bytes.fill(0);
    }
    return bytes;
}

} // namespace

std::optional<Bytes> SOCKS5Destination::addressBytes() const {
    Bytes out;
    switch (kind) {
    case Kind::domain:
        if (host.size() > maxLengthByte) {
            return std::nullopt;
        }
        out.push_back(0x03);
        out.push_back(static_cast<std::uint8_t>(host.size()));
        out.insert(out.end(), host.begin(), host.end());
        break;
    case Kind::ipv4: {
        out.push_back(0x01);
        auto octets = lenientIPv4(host);
        out.insert(out.end(), octets.begin(), octets.end());
        break;
    }
    case Kind::ipv6: {
        out.push_back(0x04);
        auto bytes = lenientIPv6(host);
        out.insert(out.end(), bytes.begin(), bytes.end());
        break;
    }
    }
    appendPort(out, port);
    return out;
}

SOCKS5Handshake::SOCKS5Handshake(std::optional<kit::ProxyCredentials> credentials, Command command,
                                 SOCKS5Destination destination)
    : credentials_(std::move(credentials)), command_(command),
      destination_(std::move(destination)) {}

SOCKS5Handshake::Stage SOCKS5Handshake::stage() const {
    switch (step_) {
    case Step::created:
        return Stage::created;
    case Step::sendingGreeting:
    case Step::readingMethod:
        return Stage::greeting;
    case Step::sendingAuth:
    case Step::readingAuthStatus:
        return Stage::authenticating;
    case Step::finished:
        return Stage::finished;
    case Step::failed:
        return Stage::failed;
    default:
        return Stage::requesting;
    }
}

SOCKS5Handshake::Action SOCKS5Handshake::fail(SOCKSError error) {
    step_ = Step::failed;
    return Failure{std::move(error)};
}

SOCKS5Handshake::Action SOCKS5Handshake::expect(Step step, std::size_t count) {
    step_ = step;
    expected_ = count;
    return Receive{count};
}

SOCKS5Handshake::Action SOCKS5Handshake::start() {
    if (step_ != Step::created) {
        throw std::logic_error("SOCKS5Handshake::start called twice");
    }
    // Every request carries the domain, so one that can't be sent fails
    // before the first byte leaves. Credentials go out only if the proxy
    // asks for them, and a proxy that needs none must still be reachable with
    // an overlong password configured: their lengths are judged in onMethod.
    if (destination_.kind == SOCKS5Destination::Kind::domain &&
        destination_.host.size() > maxLengthByte) {
        return fail(SOCKSError::valueTooLong(SOCKSError::Field::domain));
    }
    step_ = Step::sendingGreeting;
    if (credentials_) {
        return Send{{version, 2, methodNone, methodPassword}};
    }
    return Send{{version, 1, methodNone}};
}

SOCKS5Handshake::Action SOCKS5Handshake::sendRequest() {
    step_ = Step::sendingRequest;
    Bytes request{version, static_cast<std::uint8_t>(command_), 0x00};
    // Length checked in start().
    Bytes address = *destination_.addressBytes();
    request.insert(request.end(), address.begin(), address.end());
    return Send{std::move(request)};
}

SOCKS5Handshake::Action SOCKS5Handshake::sendCompleted() {
    switch (step_) {
    case Step::sendingGreeting:
        return expect(Step::readingMethod, 2);
    case Step::sendingAuth:
        return expect(Step::readingAuthStatus, 2);
    case Step::sendingRequest:
        return expect(Step::readingReplyHead, 4);
    default:
        throw std::logic_error("SOCKS5Handshake::sendCompleted without a send");
    }
}

SOCKS5Handshake::Action SOCKS5Handshake::onMethod(std::span<const std::uint8_t> reply) {
    if (reply[0] != version) {
        return fail(SOCKSError::handshakeFailed());
    }
    std::uint8_t method = reply[1];
    if (method == methodNone) {
        return sendRequest();
    }
    if (method == methodRefused) {
        return fail(credentials_ ? SOCKSError::unsupportedAuth(methodRefused)
                                 : SOCKSError::authRequired());
    }
    if (method != methodPassword) {
        return fail(SOCKSError::unsupportedAuth(method));
    }
    // The proxy picked a method that was never offered.
    if (!credentials_) {
        return fail(SOCKSError::authRequired());
    }
    if (credentials_->username.size() > maxLengthByte) {
        return fail(SOCKSError::valueTooLong(SOCKSError::Field::username));
    }
    if (credentials_->password.size() > maxLengthByte) {
        return fail(SOCKSError::valueTooLong(SOCKSError::Field::password));
    }
    step_ = Step::sendingAuth;
    Bytes message{0x01, static_cast<std::uint8_t>(credentials_->username.size())};
    message.insert(message.end(), credentials_->username.begin(), credentials_->username.end());
    message.push_back(static_cast<std::uint8_t>(credentials_->password.size()));
    message.insert(message.end(), credentials_->password.begin(), credentials_->password.end());
    return Send{std::move(message)};
}

SOCKS5Handshake::Action SOCKS5Handshake::onAuthStatus(std::span<const std::uint8_t> reply) {
    if (reply[0] != 0x01 || reply[1] != 0x00) {
        return fail(SOCKSError::authFailed());
    }
    return sendRequest();
}

SOCKS5Handshake::Action SOCKS5Handshake::onReplyHead(std::span<const std::uint8_t> reply) {
    if (reply[0] != version) {
        return fail(SOCKSError::handshakeFailed());
    }
    // REP is judged before ATYP: a refusal may come with any address type.
    if (reply[1] != 0x00) {
        return fail(SOCKSError::requestRejected(reply[1]));
    }
    switch (reply[3]) {
    case 0x01:
        return expect(Step::readingIPv4, 4);
    case 0x03:
        return expect(Step::readingDomainLength, 1);
    case 0x04:
        return expect(Step::readingIPv6, 16);
    default:
        return fail(SOCKSError::handshakeFailed());
    }
}

SOCKS5Handshake::Action SOCKS5Handshake::received(std::span<const std::uint8_t> bytes) {
    if (step_ == Step::created || step_ == Step::finished || step_ == Step::failed ||
        step_ == Step::sendingGreeting || step_ == Step::sendingAuth ||
        step_ == Step::sendingRequest) {
        throw std::logic_error("SOCKS5Handshake::received without a receive");
    }
    if (bytes.size() != expected_) {
        return fail(SOCKSError::shortRead());
    }
    switch (step_) {
    case Step::readingMethod:
        return onMethod(bytes);
    case Step::readingAuthStatus:
        return onAuthStatus(bytes);
    case Step::readingReplyHead:
        return onReplyHead(bytes);
    case Step::readingIPv4:
        boundHost_ = std::to_string(bytes[0]) + "." + std::to_string(bytes[1]) + "." +
                     std::to_string(bytes[2]) + "." + std::to_string(bytes[3]);
        return expect(Step::readingPort, 2);
    case Step::readingDomainLength:
        if (bytes[0] == 0) {
            boundHost_.clear();
            return expect(Step::readingPort, 2);
        }
        return expect(Step::readingDomain, bytes[0]);
    case Step::readingDomain:
        boundHost_ = kit::UnicodeText::repairUTF8(bytes);
        return expect(Step::readingPort, 2);
    case Step::readingIPv6:
        // The relay address of IPv6 form is not kept.
        boundHost_ = "::";
        return expect(Step::readingPort, 2);
    case Step::readingPort: {
        step_ = Step::finished;
        auto port = static_cast<std::uint16_t>((bytes[0] << 8) | bytes[1]);
        return Established{boundHost_, port};
    }
    default:
        throw std::logic_error("SOCKS5Handshake: unexpected step");
    }
}

} // namespace veltrane::core
