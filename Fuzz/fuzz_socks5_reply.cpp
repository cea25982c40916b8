// Plays arbitrary bytes as a SOCKS5 proxy's side of a handshake. The first
// byte picks credentials and command; the rest is everything the proxy sends.
#include "ExtensionCore/Clients/SOCKS5Handshake.hpp"

#include <algorithm>
#include <cstdlib>

using veltrane::core::SOCKS5Destination;
using veltrane::core::SOCKS5Handshake;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    std::optional<veltrane::kit::ProxyCredentials> credentials;
    if (data[0] & 1) {
        credentials = veltrane::kit::ProxyCredentials{"user", (data[0] & 2) ? "" : "pass"};
    }
    auto command =
        (data[0] & 4) ? SOCKS5Handshake::Command::udpAssociate : SOCKS5Handshake::Command::connect;
    SOCKS5Handshake handshake(credentials, command, SOCKS5Destination::domain("example.com", 443));
    std::span<const std::uint8_t> proxy(data + 1, size - 1);

    auto action = handshake.start();
    std::size_t steps = 0;
    for (;;) {
        if (++steps > 64) {
            std::abort(); // a handshake has a handful of steps
        }
        if (auto* send = std::get_if<SOCKS5Handshake::Send>(&action)) {
            if (send->bytes.empty()) {
                std::abort();
            }
            action = handshake.sendCompleted();
        } else if (auto* receive = std::get_if<SOCKS5Handshake::Receive>(&action)) {
            if (receive->count == 0 || receive->count > 255) {
                std::abort();
            }
            std::size_t n = std::min(receive->count, proxy.size());
            auto chunk = proxy.first(n);
            proxy = proxy.subspan(n);
            action = handshake.received(chunk);
        } else if (std::holds_alternative<SOCKS5Handshake::Established>(action)) {
            if (handshake.stage() != SOCKS5Handshake::Stage::finished) {
                std::abort();
            }
            return 0;
        } else {
            auto& failure = std::get<SOCKS5Handshake::Failure>(action);
            if (failure.error.localizedDescription().empty()) {
                std::abort();
            }
            return 0;
        }
    }
}
