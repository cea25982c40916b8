#include "VeltraneKit/Localize.hpp"
#include "VeltraneKit/RuleEngine.hpp"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

using namespace veltrane::kit;

namespace {

using Entry = Verdict::TraceEntry;
using Trace = std::vector<Entry>;

const char* const noFallbackName = "(无兜底规则)";
const Entry noFallback{noFallbackName, true, "默认直连"};

struct RuleFields {
    std::string name = "R";
    std::vector<std::string> apps{};
    std::vector<std::string> hosts{};
    std::vector<std::string> ports{};
    FlowTransport transport = FlowTransport::any;
    RuleAction action = RuleAction::direct();
    bool enabled = true;
    bool locked = false;
    QUICPolicy quicPolicy = QUICPolicy::fallback;
};

Rule makeRule(const RuleFields& fields) {
    Rule rule;
    rule.id = UUID::random();
    rule.name = fields.name;
    rule.enabled = fields.enabled;
    rule.apps = fields.apps;
    rule.hosts = fields.hosts;
    rule.ports = fields.ports;
    rule.transport = fields.transport;
    rule.action = fields.action;
    rule.quicPolicy = fields.quicPolicy;
    rule.locked = fields.locked;
    return rule;
}

ProxyServer makeServer(std::string name, std::string address, std::uint16_t port,
                       ProxyProtocol proto = ProxyProtocol::socks5) {
    return ProxyServer{UUID::random(), std::move(name), std::move(address), port, proto, {}};
}

Profile makeProfile(std::vector<Rule> rules, std::vector<ProxyServer> proxies = {},
                    std::vector<ProxyChain> chains = {}) {
    Profile profile;
    profile.id = UUID::random();
    profile.name = "Test";
    profile.rules = std::move(rules);
    profile.proxies = std::move(proxies);
    profile.chains = std::move(chains);
    return profile;
}

AppIdentity browser() {
    AppIdentity app;
    app.bundleID = "com.example.browser";
    app.displayName = "Browser";
    app.executableName = "browser";
    return app;
}

// The flow a case looks at, unless it says otherwise.
struct Flow {
    AppIdentity app = browser();
    std::string host = "a.com";
    std::uint16_t port = 443;
    FlowTransport transport = FlowTransport::tcp;
};

// One rule against one flow: the whole trace, so both the reason chosen and
// its placeholder value are pinned.
TEST(RuleEngineTest, TraceOfOneRule) {
    const AppIdentity nobody;
    const char* const hit = "命中";
    const FlowTransport udp = FlowTransport::udp, tcp = FlowTransport::tcp;
    struct {
        const char* title;
        RuleFields rule;
        Flow flow;
        const char* reason; // `hit`, or why the rule was passed over
    } cases[] = {
        {"empty lists match everything", {}, {nobody, "", 0, udp}, hit},
        {"disabled, conditions not looked at",
         {.hosts = {"*"}, .enabled = false},
         {},
         "规则已停用"},
        {"tcp flow, udp rule, apps not looked at",
         {.apps = {"Other"}, .transport = udp},
         {},
         "传输层不匹配（规则限 udp）"},
        {"any flow passes transport", {.transport = udp}, {.transport = FlowTransport::any}, hit},
        {"same transport", {.transport = tcp}, {}, hit},
        {"app miss names bestDescription",
         {.apps = {"Other", "com.other.*"}},
         {},
         "应用不匹配（Browser）"},
        {"all-absent identity is unknown",
         {.apps = {"*"}},
         {.app = nobody},
         "应用不匹配（unknown）"},
        {"second app pattern hits", {.apps = {"Other", "BROWSER"}}, {}, hit},
        {"apps are trimmed", {.apps = {" \tBrowser "}}, {}, hit},
        {"empty app element dropped", {.apps = {""}}, {.app = nobody}, hit},
        {"blank app element stays", {.apps = {"  "}}, {}, "应用不匹配（Browser）"},
        {"host miss names host",
         {.hosts = {"*.example.com"}},
         {.host = "example.com"},
         "目标主机不匹配（example.com）"},
        {"empty host element dropped", {.hosts = {""}}, {}, hit},
        {"second host pattern hits",
         {.hosts = {"x.com", "10.0.0.1-10.0.0.5"}},
         {.host = "10.0.0.5"},
         hit},
        {"port miss", {.ports = {"80", "8000-9000"}}, {.port = 9001}, "端口不匹配（9001）"},
        {"second port pattern hits", {.ports = {"80", "8000-9000"}}, {.port = 9000}, hit},
        {"invalid ports leave no condition",
         {.ports = {"80,443", "", "9000-8000"}},
         {.port = 1234},
         hit},
        {"host checked before port",
         {.hosts = {"b.com"}, .ports = {"1"}},
         {.port = 2},
         "目标主机不匹配（a.com）"},
        {"app checked before host",
         {.apps = {"x"}, .hosts = {"b.com"}},
         {},
         "应用不匹配（Browser）"},
    };
    for (const auto& c : cases) {
        const RuleEngine engine(makeProfile({makeRule(c.rule)}));
        const Verdict verdict =
            engine.match(c.flow.app, c.flow.host, c.flow.port, c.flow.transport);
        const bool matched = std::string_view(c.reason) == hit;
        const Trace expected =
            matched ? Trace{{"R", true, hit}} : Trace{{"R", false, c.reason}, noFallback};
        EXPECT_EQ(verdict.trace, expected) << c.title;
        EXPECT_EQ(verdict.matchedRule.has_value(), matched) << c.title;
    }
}

TEST(RuleEngineTest, NoRulesIsDirectWithOneEntry) {
    const RuleEngine engine(makeProfile({}));
    const Verdict verdict = engine.match(browser(), "a.com", 443, FlowTransport::tcp);
    EXPECT_EQ(verdict.trace, Trace{noFallback});
    EXPECT_EQ(verdict.resolved, Verdict::Resolved{Verdict::Direct{}});
    EXPECT_EQ(verdict.quicPolicy, QUICPolicy::direct);
    EXPECT_FALSE(verdict.matchedRule);
}

TEST(RuleEngineTest, EvaluatesInGuardOrderAndStopsAtFirstHit) {
    const Rule defaultRule = makeRule({.name = "Default", .locked = true});
    const Rule a = makeRule({.name = "A", .hosts = {"a.com"}});
    const Rule localhost = makeRule({.name = "Localhost", .hosts = {"localhost"}, .locked = true});
    const Rule b = makeRule({.name = "B", .action = RuleAction::block()});
    const Rule c = makeRule({.name = "C"});
    const RuleEngine engine(makeProfile({defaultRule, a, localhost, b, c}));

    const Verdict verdict = engine.match(browser(), "b.com", 443, FlowTransport::tcp);
    EXPECT_EQ(verdict.trace, (Trace{{"Localhost", false, "目标主机不匹配（b.com）"},
                                    {"A", false, "目标主机不匹配（b.com）"},
                                    {"B", true, "命中"}}));
    EXPECT_EQ(verdict.matchedRule, b);
    EXPECT_EQ(verdict.resolved, Verdict::Resolved{Verdict::Block{}});
    EXPECT_EQ(verdict.actionDescription(), "block");

    const Verdict local = engine.match(browser(), "LOCALHOST", 80, FlowTransport::tcp);
    EXPECT_EQ(local.trace, (Trace{{"Localhost", true, "命中"}}));
    EXPECT_EQ(local.quicPolicy, QUICPolicy::fallback);
}

TEST(RuleEngineTest, ResolvesActions) {
    const ProxyServer first = makeServer("First", "10.0.0.1", 1080);
    ProxyServer duplicate = makeServer("Duplicate", "10.0.0.9", 9);
    duplicate.id = first.id;
    const ProxyServer second = makeServer("Second", "proxy.example.com", 3128, ProxyProtocol::http);
    const UUID missing = UUID::random();
    const ProxyChain withGap{UUID::random(), "gap", {first.id, missing, second.id}};
    const ProxyChain allMissing{UUID::random(), "lost", {missing, UUID::random()}};
    const ProxyChain twice{UUID::random(), "twice", {second.id, second.id}};
    const std::vector<ProxyServer> proxies{first, duplicate, second};
    const std::vector<ProxyChain> chains{withGap, allMissing, twice};

    const Entry hit{"R", true, "命中"};
    const std::string noProxy = "规则指向的代理不存在，回退直连";
    const std::string noChain = "规则指向的代理链不存在，回退直连";
    const std::string emptyChain = "代理链为空，回退直连";
    struct {
        const char* title;
        RuleAction action;
        Verdict::Resolved expected;
        std::string fallback = {}; // why the route fell back to direct, if it did
    } cases[] = {
        {"proxy, first of duplicate ids", RuleAction::proxy(first.id), Verdict::Proxy{{first}}},
        {"missing proxy", RuleAction::proxy(missing), Verdict::Direct{}, noProxy},
        {"missing chain", RuleAction::chain(missing), Verdict::Direct{}, noChain},
        {"chain id is not a proxy id", RuleAction::chain(first.id), Verdict::Direct{}, noChain},
        {"chain with missing middle hop", RuleAction::chain(withGap.id),
         Verdict::Proxy{{first, second}}},
        {"chain of missing proxies", RuleAction::chain(allMissing.id), Verdict::Direct{},
         emptyChain},
        {"chain naming one proxy twice", RuleAction::chain(twice.id),
         Verdict::Proxy{{second, second}}},
        {"interface passed on unexamined", RuleAction::interface("utun99"),
         Verdict::Interface{"utun99"}},
    };
    for (const auto& c : cases) {
        const Rule rule = makeRule({.action = c.action, .quicPolicy = QUICPolicy::proxy});
        const RuleEngine engine(makeProfile({rule}, proxies, chains));
        const Verdict verdict = engine.match(browser(), "a.com", 443, FlowTransport::tcp);
        EXPECT_EQ(verdict.resolved, c.expected) << c.title;
        const Trace trace = c.fallback.empty() ? Trace{hit} : Trace{{"R", false, c.fallback}, hit};
        EXPECT_EQ(verdict.trace, trace) << c.title;
        // A fallback does not undo the match.
        EXPECT_EQ(verdict.matchedRule, rule) << c.title;
        EXPECT_EQ(verdict.quicPolicy, QUICPolicy::proxy) << c.title;
    }
}

TEST(RuleEngineTest, DescribesAction) {
    ProxyServer a = makeServer("Home", "10.0.0.1", 1080);
    ProxyServer b = makeServer("Office", "::1", 8080, ProxyProtocol::http);
    struct {
        Verdict::Resolved resolved;
        const char* expected;
    } cases[] = {
        {Verdict::Proxy{{a, b}},
         "proxy Home (10.0.0.1:1080 socks5) \xE2\x86\x92 Office (::1:8080 http)"},
        {Verdict::Interface{"utun4"}, "interface utun4"},
        {Verdict::Direct{}, "direct"},
    };
    for (const auto& c : cases) {
        Verdict verdict;
        verdict.resolved = c.resolved;
        EXPECT_EQ(verdict.actionDescription(), c.expected);
    }
}

TEST(RuleEngineTest, ReasonsGoThroughMessageLookup) {
    installMessageCatalogue({{"命中", "hit"},
                             {"端口不匹配（%lld）", "port %lld"},
                             {"(无兜底规则)", "(none)"},
                             {"默认直连", "direct by default"}});
    const RuleEngine engine(makeProfile({makeRule({.name = "P", .ports = {"1"}})}));
    const Verdict miss = engine.match(browser(), "a.com", 2, FlowTransport::tcp);
    const Verdict hit = engine.match(browser(), "a.com", 1, FlowTransport::tcp);
    installMessageCatalogue({});
    EXPECT_EQ(miss.trace, (Trace{{"P", false, "port 2"}, {"(none)", true, "direct by default"}}));
    EXPECT_EQ(hit.trace, (Trace{{"P", true, "hit"}}));
}

TEST(RuleEngineTest, MatchesFromManyThreads) {
    std::vector<Rule> rules;
    for (int i = 0; i < 50; ++i) {
        rules.push_back(makeRule({.name = "R" + std::to_string(i),
                                  .apps = {"App" + std::to_string(i) + "*"},
                                  .hosts = {"*.h" + std::to_string(i) + ".com"}}));
    }
    const RuleEngine engine(makeProfile(rules));
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int n = 0; n < 200; ++n) {
                const int i = (n + t) % 50;
                AppIdentity app;
                app.executableName = "app" + std::to_string(i) + "-helper";
                const Verdict v =
                    engine.match(app, "x.H" + std::to_string(i) + ".com", 1, FlowTransport::tcp);
                if (!v.matchedRule || v.matchedRule->name != "R" + std::to_string(i) ||
                    v.trace.size() != std::size_t(i + 1)) {
                    ++wrong;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong.load(), 0);
}

} // namespace
