#include "VeltraneKit/AppIdentity.hpp"
#include "VeltraneKit/Profile.hpp"

#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace veltrane::kit;

namespace {

Rule makeRule(std::string name, bool locked = false) {
    Rule rule;
    rule.id = UUID::random();
    rule.name = std::move(name);
    rule.locked = locked;
    return rule;
}

std::vector<std::string> namesOf(const std::vector<Rule>& rules) {
    std::vector<std::string> names;
    for (const auto& rule : rules) {
        names.push_back(rule.name + (rule.locked ? "#" : ""));
    }
    return names;
}

Profile profileWith(std::vector<Rule> rules) {
    Profile profile;
    profile.id = UUID::random();
    profile.name = "P";
    profile.rules = std::move(rules);
    return profile;
}

} // namespace

// Each reader knows only its own enum's texts, spelled exactly.
TEST(ProfileEnums, ReadersRejectOtherText) {
    EXPECT_FALSE(proxyProtocolFromRaw("SOCKS5"));
    EXPECT_FALSE(flowTransportFromRaw(""));
    EXPECT_FALSE(quicPolicyFromRaw("block"));
}

TEST(ProfileRecords, EndpointDescriptionAndBestDescription) {
    ProxyServer proxy;
    proxy.address = "::1";
    proxy.port = 1080;
    EXPECT_EQ(proxy.endpointDescription(), "::1:1080");

    struct {
        AppIdentity app;
        std::string expected;
    } cases[] = {
        {{.bundleID = "com.b", .displayName = "", .executableName = "exe"}, ""},
        {{.bundleID = "com.b", .executableName = "exe"}, "exe"},
        {{.bundleID = "com.b", .responsibleAppName = "R", .appBundleName = "A"}, "com.b"},
        {{.responsibleBundleID = "r", .responsibleAppName = "R"}, "unknown"},
        {{.displayName = "Shown", .executableName = "exe"}, "Shown"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.app.bestDescription(), c.expected);
    }
}

TEST(ProfileOrderedRules, GuardsFrameUnlockedRulesAndOthersDrop) {
    struct {
        const char* title;
        std::vector<Rule> stored;
        std::vector<std::string> expected;
    } cases[] = {
        {"guards anywhere",
         {makeRule("Default", true), makeRule("A"), makeRule("Localhost", true), makeRule("B")},
         {"Localhost#", "A", "B", "Default#"}},
        {"unlocked Default is ordinary",
         {makeRule("A"), makeRule("Default"), makeRule("B"), makeRule("Default", true)},
         {"A", "Default", "B", "Default#"}},
        {"case differs", {makeRule("localhost", true), makeRule("A")}, {"A"}},
        {"other locked name left out", {makeRule("Mine", true), makeRule("A")}, {"A"}},
        {"two defaults in stored order",
         {makeRule("Default", true), makeRule("A"), makeRule("Default", true)},
         {"A", "Default#", "Default#"}},
    };
    for (const auto& c : cases) {
        auto ordered = profileWith(c.stored).orderedRules();
        EXPECT_EQ(namesOf(ordered), c.expected) << c.title;
    }
    // The two defaults keep their relative order, told apart by id.
    auto stored = cases[4].stored;
    auto ordered = profileWith(stored).orderedRules();
    EXPECT_EQ(ordered[1].id, stored[0].id);
    EXPECT_EQ(ordered[2].id, stored[2].id);
}

TEST(ProfileDefaults, MakeDefaultAndGuardRules) {
    auto profile = Profile::makeDefault("Home");
    EXPECT_EQ(profile.schemaVersion, 1);
    EXPECT_EQ(profile.name, "Home");
    EXPECT_EQ(profile.dns.resolveViaProxy, true);
    EXPECT_EQ(profile.dns.exclusions,
              (std::vector<std::string>{"localhost", "*.local", "%ComputerName%"}));
    EXPECT_EQ(profile.general, (GeneralSettings{true, true}));
    ASSERT_EQ(namesOf(profile.rules), (std::vector<std::string>{"Localhost#", "Default#"}));
    EXPECT_NE(profile.id, Profile::makeDefault("Home").id);

    auto expectGuard = [](const Rule& rule, const std::vector<std::string>& hosts) {
        EXPECT_TRUE(rule.enabled);
        EXPECT_TRUE(rule.locked);
        EXPECT_TRUE(rule.apps.empty());
        EXPECT_EQ(rule.hosts, hosts);
        EXPECT_TRUE(rule.ports.empty());
        EXPECT_TRUE(rule.tags.empty());
        EXPECT_EQ(rule.transport, FlowTransport::any);
        EXPECT_EQ(rule.action, RuleAction::direct());
        EXPECT_EQ(rule.quicPolicy, QUICPolicy::fallback);
    };
    expectGuard(profile.rules[0], {"localhost", "127.0.0.1", "::1", "%ComputerName%"});
    expectGuard(profile.rules[1], {});
    EXPECT_NE(Profile::localhostGuardRule().id, Profile::localhostGuardRule().id);
    EXPECT_NE(Profile::defaultFallbackRule().id, profile.rules[1].id);
}

TEST(ProfileSettingRoute, Cases) {
    const auto proxyID = UUID::random();
    const auto viaProxy = RuleAction::proxy(proxyID);

    // New rule: after all unlocked rules, before Default, with the fixed fields.
    {
        auto base = profileWith(
            {makeRule("Default", true), makeRule("A"), makeRule("Localhost", true), makeRule("B")});
        base.schemaVersion = 7;
        auto result = base.settingRoute("Firefox", viaProxy);
        EXPECT_EQ(namesOf(result.rules),
                  (std::vector<std::string>{"Localhost#", "A", "B", "App: Firefox", "Default#"}));
        const Rule& added = result.rules[3];
        EXPECT_TRUE(added.enabled);
        EXPECT_FALSE(added.locked);
        EXPECT_EQ(added.apps, std::vector<std::string>{"Firefox"});
        EXPECT_TRUE(added.hosts.empty());
        EXPECT_TRUE(added.ports.empty());
        EXPECT_TRUE(added.tags.empty());
        EXPECT_EQ(added.transport, FlowTransport::any);
        EXPECT_EQ(added.quicPolicy, QUICPolicy::fallback);
        EXPECT_EQ(added.action, viaProxy);
        EXPECT_EQ(result.schemaVersion, 7);
        EXPECT_EQ(result.id, base.id);
        EXPECT_EQ(result.name, base.name);
    }
    // A disabled rule of that name changes action and stays disabled and in place.
    {
        auto own = makeRule("App: curl");
        own.enabled = false;
        own.hosts = {"example.com"};
        auto base = profileWith({own, makeRule("Z")});
        auto result = base.settingRoute("curl", RuleAction::interface("utun4"));
        ASSERT_EQ(namesOf(result.rules), (std::vector<std::string>{"App: curl", "Z"}));
        EXPECT_EQ(result.rules[0], own.with({.action = RuleAction::interface("utun4")}));
        EXPECT_FALSE(result.rules[0].enabled);
    }
    // No guards: none added.
    {
        auto result = profileWith({makeRule("A")}).settingRoute("x", RuleAction::direct());
        EXPECT_EQ(namesOf(result.rules), (std::vector<std::string>{"A", "App: x"}));
    }
    // A locked rule of that name is not found and stays where it was.
    {
        auto lockedOwn = makeRule("App: x", true);
        auto base = profileWith({makeRule("Default", true), lockedOwn, makeRule("A")});
        auto result = base.settingRoute("x", viaProxy);
        EXPECT_EQ(namesOf(result.rules),
                  (std::vector<std::string>{"App: x#", "A", "App: x", "Default#"}));
        EXPECT_EQ(result.rules[0], lockedOwn);
        EXPECT_EQ(result.rules[2].action, viaProxy);
    }
    // Only the first unlocked rule of the name is changed.
    {
        auto first = makeRule("App: x");
        auto second = makeRule("App: x");
        auto result = profileWith({first, second}).settingRoute("x", RuleAction::block());
        EXPECT_EQ(result.rules[0].action, RuleAction::block());
        EXPECT_EQ(result.rules[1], second);
    }
}

TEST(ProfileBuilders, WithReplacesOnlyGivenFields) {
    auto rule = makeRule("R");
    rule.tags = {"t"};
    EXPECT_EQ(rule.with({}), rule);
    auto changed = rule.with({.name = "S",
                              .enabled = false,
                              .apps = std::vector<std::string>{"a"},
                              .hosts = std::vector<std::string>{"h"},
                              .ports = std::vector<std::string>{"80"},
                              .transport = FlowTransport::udp,
                              .action = RuleAction::block(),
                              .quicPolicy = QUICPolicy::direct,
                              .tags = std::vector<std::string>{}});
    EXPECT_EQ(changed.id, rule.id);
    EXPECT_EQ(changed.locked, rule.locked);
    EXPECT_EQ(changed.name, "S");
    EXPECT_FALSE(changed.enabled);
    EXPECT_EQ(changed.apps, std::vector<std::string>{"a"});
    EXPECT_EQ(changed.hosts, std::vector<std::string>{"h"});
    EXPECT_EQ(changed.ports, std::vector<std::string>{"80"});
    EXPECT_EQ(changed.transport, FlowTransport::udp);
    EXPECT_EQ(changed.action, RuleAction::block());
    EXPECT_EQ(changed.quicPolicy, QUICPolicy::direct);
    EXPECT_TRUE(changed.tags.empty());
    auto guard = Profile::defaultFallbackRule();
    EXPECT_TRUE(guard.with({.name = "Default"}).locked);

    auto profile = Profile::makeDefault("P");
    profile.schemaVersion = 3;
    EXPECT_EQ(profile.with({}), profile);
    auto renamed = profile.with({.name = "Q", .dns = DNSSettings{false, {}}});
    EXPECT_EQ(renamed.id, profile.id);
    EXPECT_EQ(renamed.schemaVersion, 3);
    EXPECT_EQ(renamed.name, "Q");
    EXPECT_EQ(renamed.dns, (DNSSettings{false, {}}));
    EXPECT_EQ(renamed.rules, profile.rules);
    EXPECT_EQ(renamed.general, profile.general);
}

TEST(ProfileLookups, FirstElementWithTheID) {
    const auto shared = UUID::random();
    Profile profile;
    profile.proxies = {ProxyServer{shared, "one", "a", 1, ProxyProtocol::socks5, {}},
                       ProxyServer{shared, "two", "b", 2, ProxyProtocol::http, {}}};
    profile.chains = {ProxyChain{UUID::random(), "c", {}}, ProxyChain{shared, "d", {shared}}};
    auto rule = makeRule("r");
    profile.rules = {makeRule("q"), rule};

    ASSERT_TRUE(profile.proxy(shared));
    EXPECT_EQ(profile.proxy(shared)->name, "one");
    ASSERT_TRUE(profile.chain(shared));
    EXPECT_EQ(profile.chain(shared)->name, "d");
    EXPECT_EQ(profile.rule(rule.id), rule);
    EXPECT_FALSE(profile.rule(shared));
    EXPECT_FALSE(profile.proxy(UUID::random()));
}
