#include "ExtensionCore/Control/StatsCollector.hpp"
#include "VeltraneKit/DTOCoding.hpp"

#include <benchmark/benchmark.h>
#include <string>
#include <vector>

using namespace veltrane;
using kit::ConnectionEvent;

namespace {

// Events as the data path makes them: a few dozen bytes of text each.
std::vector<ConnectionEvent> sampleEvents() {
    static const ConnectionEvent::Phase phases[] = {
        ConnectionEvent::Phase::open,    ConnectionEvent::Phase::close,
        ConnectionEvent::Phase::open,    ConnectionEvent::Phase::failed,
        ConnectionEvent::Phase::blocked, ConnectionEvent::Phase::direct};
    std::vector<ConnectionEvent> events;
    for (int i = 0; i < 64; ++i) {
        ConnectionEvent e;
        e.id = kit::UUID::random();
        e.date = std::chrono::system_clock::now();
        e.app = "Application " + std::to_string(i % 8);
        e.bundleID = "com.vendor.app" + std::to_string(i % 8);
        e.appBundleName = "App" + std::to_string(i % 8) + ".app";
        e.host = "host" + std::to_string(i) + ".cdn.example.com";
        e.port = 443;
        e.phase = phases[i % 6];
        e.ruleName = "Rule " + std::to_string(i % 5);
        e.route = "proxy Office (10.0.0.1:1080 socks5)";
        e.bytesSent = 1000u * static_cast<unsigned>(i);
        e.bytesReceived = 5000u * static_cast<unsigned>(i);
        e.lifetime = 1.5;
        events.push_back(std::move(e));
    }
    return events;
}

// record(_:) in steady state: both buffers full, so every call overwrites.
void BM_StatsCollectorRecord(benchmark::State& state) {
    static core::StatsCollector collector;
    static const auto events = sampleEvents();
    if (state.thread_index() == 0) {
        for (int i = 0; i < 12000; ++i) {
            collector.record(events[static_cast<std::size_t>(i) % events.size()]);
        }
    }
    std::size_t i = static_cast<std::size_t>(state.thread_index());
    for (auto _ : state) {
        collector.record(events[i++ % events.size()]);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StatsCollectorRecord)->Threads(1)->Threads(2)->UseRealTime();

// What one fetchEvents reply costs a reader that is far behind: the 2000
// newest events copied out and encoded as JSON.
void BM_FetchEventsFarBehind(benchmark::State& state) {
    core::StatsCollector collector;
    const auto events = sampleEvents();
    for (int i = 0; i < 2000; ++i) {
        collector.record(events[static_cast<std::size_t>(i) % events.size()]);
    }
    for (auto _ : state) {
        auto reply = collector.events(0);
        benchmark::DoNotOptimize(kit::DTOCoding::encode(reply.events));
    }
}
BENCHMARK(BM_FetchEventsFarBehind)->Unit(benchmark::kMillisecond);

} // namespace
