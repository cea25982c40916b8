#include "Support/TempDir.hpp"
#include "Support/UnixSockets.hpp"
#include "VeltraneKit/AutomationProtocol/AutomationClient.hpp"
#include "VeltraneKit/AutomationProtocol/AutomationWire.hpp"
#include "VeltraneKit/AutomationProtocol/RuleDTO.hpp"
#include "VeltraneKit/AutomationProtocol/StatusDTO.hpp"
#include "VeltraneKit/AutomationProtocol/StoreAutomation.hpp"
#include "VeltraneKit/DTOCoding.hpp"
#include "VeltraneKit/ProfileCoding.hpp"
#include "VeltraneKit/ProfileStore/ProfileStore.hpp"

#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace veltrane::kit;
using nlohmann::json;
using veltrane::test::TempDir;

namespace {

// What an action text became: the action, or the text of its error.
std::string outcome(const std::string& action, const Profile& profile) {
    try {
        RuleDTO dto;
        dto.action = action;
        const Rule rule = dto.makeRule(profile);
        return RuleDTO(rule, profile).action;
    } catch (const Error& error) {
        return error.domain() + ": " + error.localizedDescription();
    }
}

std::string ruleJSON(const std::string& name, const std::string& action) {
    return R"({"name":")" + name + R"(","enabled":true,"apps":["firefox"],"hosts":[],)" +
           R"("ports":[],"action":")" + action + R"(","locked":false})";
}

} // namespace

TEST(AutomationTest, RuleActionGrammarBothWays) {
    Profile profile = Profile::makeDefault("P");
    profile.proxies = {{UUID::random(), "Alpha", "127.0.0.1", 1080, ProxyProtocol::socks5, {}}};
    profile.chains = {{UUID::random(), "Main", {profile.proxies[0].id}}};
    const struct {
        std::string action, expected;
    } cases[] = {
        {"DIRECT", "direct"},
        {"bloc\u212A", "block"}, // the Kelvin sign lowers to "k"
        {"PROXY:alpha", "proxy:Alpha"},
        {"proxy:Alpha ", "ProfileStore.StoreError: 找不到 profile「代理「Alpha 」」"},
        {"Chain:MAIN", "chain:Main"},
        {"chain:none", "ProfileStore.StoreError: 找不到 profile「代理链「none」」"},
        {"interface: \t utun4 \t", "interface:utun4"},
        {"INTERFACE: \t ",
         "ImportError: 配置文件内容异常：interface: 后面要跟网卡名，例如 interface:utun4"},
        {"direct ", "ImportError: 配置文件内容异常：未知 action「direct 」，应为 direct / block / "
                    "proxy:<名称> / interface:<网卡名>"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(outcome(c.action, profile), c.expected) << c.action;
    }

    // A locked UDP rule with tags comes back new, unlocked, plain; a rule
    // whose proxy was deleted reads "proxy:?".
    Rule rule =
        Profile::defaultFallbackRule().with({.transport = FlowTransport::udp,
                                             .action = RuleAction::proxy(profile.proxies[0].id),
                                             .quicPolicy = QUICPolicy::proxy,
                                             .tags = {{"t"}}});
    const RuleDTO dto(rule, profile);
    EXPECT_TRUE(dto.locked);
    const Rule back = dto.makeRule(profile);
    EXPECT_NE(back.id, rule.id);
    EXPECT_FALSE(back.locked);
    EXPECT_EQ(back.transport, FlowTransport::any);
    EXPECT_EQ(back.quicPolicy, QUICPolicy::fallback);
    EXPECT_TRUE(back.tags.empty());
    EXPECT_EQ(back.action, rule.action);
    EXPECT_EQ(RuleDTO(rule, Profile::makeDefault("Q")).action, "proxy:?");

    // JSON: sorted keys, "/" escaped, every key required and typed.
    RuleDTO named = dto;
    named.name = "a/b";
    EXPECT_EQ(DTOCoding::encode(named),
              R"({"action":"proxy:Alpha","apps":[],"enabled":true,"hosts":[],"locked":true,)"
              R"("name":"a\/b","ports":[]})");
    EXPECT_EQ(DTOCoding::decodeRule(DTOCoding::encode(named)), named);
    for (const char* key : {"name", "enabled", "apps", "hosts", "ports", "action", "locked"}) {
        json document = json::parse(ruleJSON("r", "direct"));
        document.erase(key);
        EXPECT_FALSE(DTOCoding::decodeRule(document.dump())) << key;
        document[key] = nullptr;
        EXPECT_FALSE(DTOCoding::decodeRule(document.dump())) << key;
    }
}

namespace {

// A store in a scratch directory with "Default" active, served by a
// StoreAutomation whose hooks count what reaches the extension.
struct Served {
    TempDir dir;
    ProfileStore store{dir.path};
    // Names of the profiles handed over; the socket test's server thread
    // writes them.
    std::mutex appliedLock;
    std::vector<std::string> appliedNames;
    std::vector<ConnectionEvent> events;
    StoreAutomation automation;

    explicit Served(bool writesAllowed = true) : automation(store, hooks(writesAllowed)) {}

    StoreAutomation::Hooks hooks(bool writesAllowed) {
        StoreAutomation::Hooks h;
        h.applyToExtension = [this](const Profile& p) {
            std::lock_guard guard(appliedLock);
            appliedNames.push_back(p.name);
            return true;
        };
        h.currentFingerprint = [] {
            NetworkEnvironment::Fingerprint fp;
            fp.interfaceType = NetworkEnvironment::Fingerprint::InterfaceType::wifi;
            fp.ssid = "Home";
            return std::optional(fp);
        };
        h.setEnabled = [](bool) { return true; };
        h.events = [this] { return std::optional(events); };
        h.now = [] { return Timestamp{std::chrono::hours(1000)}; };
        h.writesAllowed = writesAllowed;
        return h;
    }

    Profile active() const { return store.activeProfile(); }
    std::vector<std::string> applied() {
        std::lock_guard guard(appliedLock);
        return appliedNames;
    }
};

} // namespace

TEST(AutomationTest, StoreAutomationChangesTheStoreAndAppliesOnlyActiveChanges) {
    Served s;
    using Check = std::function<bool(Served&)>;
    auto ruleNamed = [](const Profile& p, const std::string& name) -> std::optional<Rule> {
        for (const auto& r : p.rules) {
            if (r.name == name) {
                return r;
            }
        }
        return std::nullopt;
    };
    UUID webID;
    const struct {
        const char* what;
        std::function<AutomationReply(StoreAutomation&)> call;
        bool succeeds;
        bool applies;
        Check check;
    } steps[] = {
        {"create", [](auto& a) { return a.createProfileWithName("Work"); }, true, true,
         [](Served& s) { return s.active().name == "Work"; }},
        {"add proxy",
         [](auto& a) {
             return a.addProxyWithJson(
                 R"({"name":"Sock","address":"127.0.0.1","port":1080,"proto":"socks5"})");
         },
         true, true, [](Served& s) { return s.active().proxies.size() == 1; }},
        {"add proxy clash",
         [](auto& a) {
             return a.addProxyWithJson(
                 R"({"name":"SOCK","address":"10.0.0.1","port":1,"proto":"http"})");
         },
         false, false, [](Served& s) { return s.active().proxies.size() == 1; }},
        {"add proxy without a host",
         [](auto& a) {
             return a.addProxyWithJson(R"({"name":"Blank","address":" ","port":1,"proto":"http"})");
         },
         false, false, [](Served& s) { return s.active().proxies.size() == 1; }},
        {"add rule", [](auto& a) { return a.addRuleWithJson(ruleJSON("Web", "proxy:sock")); }, true,
         true,
         [&](Served& s) {
             const auto rules = s.active().rules;
             webID = rules[1].id;
             return rules.size() == 3 && rules[1].name == "Web" && rules[2].name == "Default" &&
                    rules[1].action == RuleAction::proxy(s.active().proxies[0].id);
         }},
        {"add rule clash", [](auto& a) { return a.addRuleWithJson(ruleJSON("web", "direct")); },
         false, false, [](Served& s) { return s.active().rules.size() == 3; }},
        {"update rule", [](auto& a) { return a.updateRuleWithJson(ruleJSON("WEB", "block")); },
         true, true,
         [&](Served& s) {
             auto r = ruleNamed(s.active(), "WEB");
             return r && r->id == webID && r->action == RuleAction::block();
         }},
        {"disable rule", [](auto& a) { return a.setRuleEnabledWithName("web", false); }, true, true,
         [&](Served& s) { return !ruleNamed(s.active(), "WEB")->enabled; }},
        {"disable again", [](auto& a) { return a.setRuleEnabledWithName("web", false); }, true,
         false, [](Served&) { return true; }},
        {"disable a guard", [](auto& a) { return a.setRuleEnabledWithName("default", false); },
         false, false, [&](Served& s) { return ruleNamed(s.active(), "Default")->enabled; }},
        {"route", [](auto& a) { return a.setRouteWithApp("curl", "interface: wg0 "); }, true, true,
         [&](Served& s) {
             auto r = ruleNamed(s.active(), "App: curl");
             return r && r->action == RuleAction::interface("wg0");
         }},
        {"bind inactive",
         [](auto& a) { return a.bindCurrentEnvironmentWithProfileName("default"); }, true, false,
         [](Served& s) {
             const auto p = s.store.find("Default");
             return p.environments.size() == 1 &&
                    p.environments[0].kind ==
                        NetworkEnvironment::Kind(NetworkEnvironment::Wifi{"Home"});
         }},
        {"bind again", [](auto& a) { return a.bindCurrentEnvironmentWithProfileName("Default"); },
         true, false, [](Served& s) { return s.store.find("Default").environments.size() == 1; }},
        {"remove rule", [](auto& a) { return a.removeRuleWithName("Web"); }, true, true,
         [&](Served& s) { return !ruleNamed(s.active(), "WEB"); }},
        {"import a copy",
         [](auto& a) {
             auto document = json::parse(a.exportProfileWithName("").data.value());
             document["name"] = "Copy";
             return a.importProfileWithJson(document.dump());
         },
         true, false,
         [](Served& s) {
             return s.store.find("Copy").id != s.active().id && s.active().name == "Work";
         }},
        {"import clash",
         [](auto& a) {
             return a.importProfileWithJson(a.exportProfileWithName("copy").data.value());
         },
         false, false, [](Served& s) { return s.store.list().size() == 3; }},
        {"switch", [](auto& a) { return a.switchProfileWithName("default"); }, true, true,
         [](Served& s) { return s.active().name == "Default"; }},
        // Handed over again: how a change saved to the store directly gets in.
        {"switch to the active", [](auto& a) { return a.switchProfileWithName("Default"); }, true,
         true, [](Served&) { return true; }},
        {"rules are the active profile's",
         [](auto& a) { return a.removeRuleWithName("App: curl"); }, false, false,
         [](Served& s) { return s.store.find("Work").rules.size() == 3; }},
        {"enable", [](auto& a) { return a.setEnabled(false); }, true, false,
         [](Served&) { return true; }},
    };
    for (const auto& step : steps) {
        const auto before = s.applied().size();
        const AutomationReply reply = step.call(s.automation);
        EXPECT_EQ(reply.succeeded, step.succeeds) << step.what << ": " << reply.text;
        EXPECT_EQ(s.applied().size() - before, step.applies ? 1u : 0u) << step.what;
        if (step.applies && s.applied().size() > before) {
            EXPECT_EQ(s.applied().back(), s.active().name) << step.what;
        }
        EXPECT_TRUE(step.check(s)) << step.what;
    }

    // Read-only: every changing operation is refused and nothing moves.
    Served r(false);
    const auto files = [&] {
        std::vector<std::string> all{r.store.activeID().uuidString()};
        for (const auto& p : r.store.list()) {
            all.push_back(encodeProfile(p));
        }
        return all;
    };
    const auto before = files();
    const std::function<AutomationReply(StoreAutomation&)> writes[] = {
        [](auto& a) { return a.setEnabled(true); },
        [](auto& a) { return a.switchProfileWithName("Default"); },
        [](auto& a) { return a.createProfileWithName("X"); },
        [](auto& a) { return a.bindCurrentEnvironmentWithProfileName("Default"); },
        // Every edit of the active profile goes through one gate; this one stands for all.
        [](auto& a) { return a.addRuleWithJson(ruleJSON("R", "direct")); },
        [](auto& a) { return a.importProfileWithJson(encodeProfile(Profile::makeDefault("N"))); },
    };
    for (const auto& write : writes) {
        const auto reply = write(r.automation);
        EXPECT_FALSE(reply.succeeded);
        EXPECT_NE(reply.text.find("read-only"), std::string::npos) << reply.text;
    }
    EXPECT_EQ(files(), before);
    EXPECT_TRUE(r.applied().empty());
    EXPECT_TRUE(r.automation.listRulesWithSearch("").succeeded);
}

namespace {

// The service on a Unix socket, one connection at a time, as `veltrane run`
// serves it.
class SocketServer {
public:
    explicit SocketServer(AutomationXPCProtocol& service) : service_(service) {
        path_ = dir_ / "automation.sock";
        listener_ = veltrane::test::bindUnix(path_, 4);
        thread_ = std::thread([this] { serve(); });
    }
    ~SocketServer() {
        ::shutdown(listener_, SHUT_RDWR); // ends a waiting accept
        thread_.join();
        ::close(listener_);
    }
    const std::string& path() const { return path_; }

private:
    void serve() {
        for (;;) {
            const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                return;
            }
            std::string pending;
            char chunk[4096];
            ssize_t n;
            while ((n = ::read(fd, chunk, sizeof chunk)) > 0) {
                pending.append(chunk, static_cast<std::size_t>(n));
                for (std::size_t end; (end = pending.find('\n')) != std::string::npos;) {
                    const std::string reply =
                        handleAutomationLine(service_, pending.substr(0, end)) + "\n";
                    pending.erase(0, end + 1);
                    EXPECT_EQ(::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL),
                              static_cast<ssize_t>(reply.size()));
                }
            }
            ::close(fd);
        }
    }

    AutomationXPCProtocol& service_;
    TempDir dir_;
    std::string path_;
    int listener_ = -1;
    std::thread thread_;
};

} // namespace

TEST(AutomationTest, OperationsTravelOverTheSocket) {
    Served s;
    for (const char* host : {"a.example", "b.example"}) {
        ConnectionEvent event;
        event.id = UUID::random();
        event.date = Timestamp{std::chrono::hours(999)};
        event.app = "firefox";
        event.host = host;
        s.events.push_back(event);
    }
    SocketServer server(s.automation);
    {
        AutomationClient client(server.path());

        const auto status = client.getStatusWithReply();
        ASSERT_TRUE(status.succeeded) << status.text;
        const auto decoded = DTOCoding::decodeStatus(status.data.value());
        ASSERT_TRUE(decoded);
        EXPECT_EQ(decoded->activeProfile, "Default");
        EXPECT_TRUE(decoded->automationWritesAllowed);
        EXPECT_FALSE(decoded->enabled); // no stats: the extension does not answer

        const auto rules = client.listRulesWithSearch("LOCALHOST");
        const auto listed = DTOCoding::decodeRules(rules.data.value_or(""));
        ASSERT_TRUE(listed && listed->size() == 1) << rules.text;
        EXPECT_EQ(listed->front().name, "Localhost");

        ASSERT_TRUE(client.setRouteWithApp("firefox", "block").succeeded);
        EXPECT_EQ(s.applied(), std::vector<std::string>{"Default"});
        const auto route = client.testRouteWithApp("firefox", "example.com", 443);
        EXPECT_EQ(route.text, "block");
        EXPECT_EQ(json::parse(route.data.value())["matchedRule"], "App: firefox");

        const auto events = client.queryConnectionsWithFilterJSON(R"({"host":"B.EX","limit":5})");
        const auto found = DTOCoding::decodeEvents(events.data.value_or(""));
        ASSERT_TRUE(found && found->size() == 1) << events.text;
        EXPECT_EQ(found->front().host, "b.example");

        const auto missing = client.switchProfileWithName("nope");
        EXPECT_FALSE(missing.succeeded);
        EXPECT_EQ(missing.text, "找不到 profile「nope」");
        EXPECT_FALSE(client.addRuleWithJson("{not json").succeeded);
    }

    // Requests that do not fit the contract get the error line.
    const struct {
        const char* line;
        const char* error;
    } bad[] = {
        {"{", "the request is not JSON"},
        {R"({"id":3,"selector":"nope:"})", "unknown selector \"nope:\""},
        {R"({"id":3,"selector":"setEnabled:reply:","arguments":[1]})",
         "setEnabled:reply: takes 1 arguments: a boolean"},
        {R"({"id":3,"selector":"testRouteWithApp:host:port:reply:","arguments":["a","b",65536]})",
         "testRouteWithApp:host:port:reply: takes 3 arguments: text, text, a port from 0 to 65535"},
    };
    for (const auto& c : bad) {
        const auto reply = json::parse(handleAutomationLine(s.automation, c.line));
        EXPECT_EQ(reply.value("error", ""), c.error) << c.line;
    }

    try {
        AutomationClient(server.path() + ".gone").getStatusWithReply();
        ADD_FAILURE() << "no error";
    } catch (const AutomationClientError& error) {
        EXPECT_EQ(error.kind(), AutomationClientError::Kind::notRunning);
    }
}
