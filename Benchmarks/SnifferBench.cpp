// The name sniffed from a flow's first bytes: a browser's ClientHello of
// about 2 KB whose server name comes after a post-quantum key share, and an
// HTTP request whose Host follows the usual headers.
#include "ExtensionCore/Flow/SNISniffer.hpp"

#include <benchmark/benchmark.h>
#include <cstdint>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

void put16(Bytes& out, std::size_t value) {
    out.push_back(static_cast<std::uint8_t>(value >> 8));
    out.push_back(static_cast<std::uint8_t>(value));
}

void extension(Bytes& out, std::uint16_t type, const Bytes& body) {
    put16(out, type);
    put16(out, body.size());
    out.insert(out.end(), body.begin(), body.end());
}

Bytes browserHello(const std::string& name) {
    Bytes extensions;
    extension(extensions, 0x000a, {0, 4, 0x11, 0xec, 0, 0x1d}); // groups
    Bytes share;
    put16(share, 2 + 2 + 1216);
    put16(share, 0x11ec); // X25519MLKEM768
    put16(share, 1216);
    share.resize(share.size() + 1216, 0x5a);
    extension(extensions, 0x0033, share);
    Bytes sni;
    put16(sni, name.size() + 3);
    sni.push_back(0);
    put16(sni, name.size());
    sni.insert(sni.end(), name.begin(), name.end());
    extension(extensions, 0x0000, sni);
    extension(extensions, 0x0015, Bytes(300, 0)); // padding

    Bytes body{3, 3};
    body.resize(body.size() + 32, 7); // random
    body.push_back(32);
    body.resize(body.size() + 32, 9); // session id
    put16(body, 32);
    body.resize(body.size() + 32, 0x13); // cipher suites
    body.push_back(1);
    body.push_back(0);
    put16(body, extensions.size());
    body.insert(body.end(), extensions.begin(), extensions.end());

    Bytes handshake{1, 0};
    put16(handshake, body.size());
    handshake.insert(handshake.end(), body.begin(), body.end());
    Bytes record{0x16, 3, 1};
    put16(record, handshake.size());
    record.insert(record.end(), handshake.begin(), handshake.end());
    return record;
}

void BM_TLSServerNameAfterKeyShare(benchmark::State& state) {
    const auto hello = browserHello("www.example.org");
    for (auto _ : state) {
        benchmark::DoNotOptimize(veltrane::core::SNISniffer::tlsServerName(hello));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * hello.size()));
}
BENCHMARK(BM_TLSServerNameAfterKeyShare);

void BM_HTTPHost(benchmark::State& state) {
    const std::string request = "GET /index.html HTTP/1.1\r\n"
                                "User-Agent: Mozilla/5.0 (X11; Linux x86_64)\r\n"
                                "Accept: text/html,application/xhtml+xml\r\n"
                                "Accept-Language: en-US,en;q=0.5\r\n"
                                "Accept-Encoding: gzip, deflate, br\r\n"
                                "Connection: keep-alive\r\n"
                                "Host: www.example.org\r\n\r\n";
    const Bytes bytes(request.begin(), request.end());
    for (auto _ : state) {
        benchmark::DoNotOptimize(veltrane::core::SNISniffer::httpHost(bytes));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_HTTPHost);

} // namespace
