#include "VeltraneKit/FakeDNS/FakeIPAllocator.hpp"

#include <benchmark/benchmark.h>
#include <string>
#include <vector>

using veltrane::kit::FakeIPAllocator;

namespace {

constexpr std::size_t kHosts = 20000;

// One allocator as the provider holds it, filled once and shared by every
// benchmark thread, as the DNS path and the new-flow path share it.
struct Shared {
    FakeIPAllocator allocator{0x10000, 3600};
    std::vector<std::string> hosts;
    std::vector<std::string> ips;

    Shared() {
        for (std::size_t i = 0; i < kHosts; ++i) {
            hosts.push_back("host" + std::to_string(i) + ".cdn.example.com");
            ips.push_back(allocator.ip(hosts.back()));
        }
    }
};

Shared& shared() {
    static Shared s;
    return s;
}

// ip(for:) of a host that already has its address: the DNS answer path.
void BM_FakeIPForKnownHost(benchmark::State& state) {
    auto& s = shared();
    std::size_t i = static_cast<std::size_t>(state.thread_index()) * 7919;
    for (auto _ : state) {
        benchmark::DoNotOptimize(s.allocator.ip(s.hosts[i++ % kHosts]));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FakeIPForKnownHost)->Threads(1)->Threads(2)->UseRealTime();

// host(for:) of a handed-out address: the new-flow path.
void BM_FakeIPHostForAddress(benchmark::State& state) {
    auto& s = shared();
    std::size_t i = static_cast<std::size_t>(state.thread_index()) * 7919;
    for (auto _ : state) {
        benchmark::DoNotOptimize(s.allocator.host(s.ips[i++ % kHosts]));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FakeIPHostForAddress)->Threads(1)->Threads(2)->UseRealTime();

// Both paths at once: even threads answer DNS, odd ones map flows back.
void BM_FakeIPMixed(benchmark::State& state) {
    auto& s = shared();
    const bool dns = state.thread_index() % 2 == 0;
    std::size_t i = static_cast<std::size_t>(state.thread_index()) * 7919;
    for (auto _ : state) {
        if (dns) {
            benchmark::DoNotOptimize(s.allocator.ip(s.hosts[i++ % kHosts]));
        } else {
            benchmark::DoNotOptimize(s.allocator.host(s.ips[i++ % kHosts]));
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FakeIPMixed)->Threads(2)->UseRealTime();

// The worst case: every entry live, so each new host costs a full scan and a
// pass over the expiries.
void BM_FakeIPClaimWhenFull(benchmark::State& state) {
    FakeIPAllocator allocator(0x10000, 3600);
    for (std::size_t i = 0; i < 0xFFFF; ++i) {
        allocator.ip("filler" + std::to_string(i) + ".example");
    }
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(allocator.ip("new" + std::to_string(i++) + ".example"));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FakeIPClaimWhenFull)->Unit(benchmark::kMicrosecond);

} // namespace
