#include "VeltraneKit/RuleEngine.hpp"

#include <benchmark/benchmark.h>
#include <string>

using namespace veltrane::kit;

namespace {

// Rules that a flow of com.example.browser to www.example.org:443 misses at
// each step in turn: the application, the host, the port.
Rule missingRule(int i) {
    Rule rule;
    rule.id = UUID::random();
    rule.name = "Rule " + std::to_string(i);
    switch (i % 3) {
    case 0:
        rule.apps = {"com.vendor" + std::to_string(i) + ".tool", "Tool" + std::to_string(i) + "*"};
        rule.hosts = {"*.vendor" + std::to_string(i) + ".com",
                      "10." + std::to_string(i % 256) + ".0.0/16"};
        rule.ports = {"80", "8000-9000"};
        break;
    case 1:
        rule.hosts = {"*.vendor" + std::to_string(i) + ".com", "10.0.0.1-10.0.0.9",
                      "host" + std::to_string(i) + ".example.org"};
        break;
    default:
        rule.apps = {"Browser"};
        rule.hosts = {"*.example.org"};
        rule.ports = {"80", "8080-8090"};
        break;
    }
    rule.action = RuleAction::proxy(UUID::random());
    return rule;
}

Profile profileWith(int ruleCount) {
    Profile profile;
    profile.id = UUID::random();
    profile.name = "bench";
    ProxyServer server{UUID::random(), "Local", "127.0.0.1", 1080, ProxyProtocol::socks5, {}};
    profile.proxies = {server};
    for (int i = 0; i + 1 < ruleCount; ++i) {
        profile.rules.push_back(missingRule(i));
    }
    Rule hit;
    hit.id = UUID::random();
    hit.name = "Browser via proxy";
    hit.apps = {"com.example.browser"};
    hit.hosts = {"*.example.org"};
    hit.ports = {"443"};
    hit.action = RuleAction::proxy(server.id);
    profile.rules.push_back(hit);
    return profile;
}

void BM_MatchHitOnLastOf1000(benchmark::State& state) {
    constexpr int ruleCount = 1000;
    const RuleEngine engine(profileWith(ruleCount));
    AppIdentity app;
    app.bundleID = "com.example.browser";
    app.displayName = "Browser";
    app.executableName = "browser";
    app.appBundleName = "Browser.app";
    for (auto _ : state) {
        Verdict verdict = engine.match(app, "www.example.org", 443, FlowTransport::tcp);
        benchmark::DoNotOptimize(verdict);
        if (verdict.trace.size() != ruleCount) {
            state.SkipWithError("the last rule did not hit");
            break;
        }
    }
    // Time per rule passed over: the rate of rules per second, inverted.
    state.counters["per_rule"] =
        benchmark::Counter(double(state.iterations()) * ruleCount,
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_MatchHitOnLastOf1000);

void BM_Compile10000Rules(benchmark::State& state) {
    const Profile profile = profileWith(10000);
    for (auto _ : state) {
        RuleEngine engine(profile);
        benchmark::DoNotOptimize(engine);
    }
}
BENCHMARK(BM_Compile10000Rules)->Unit(benchmark::kMillisecond);

} // namespace
