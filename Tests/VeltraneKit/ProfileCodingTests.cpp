#include "VeltraneKit/ProfileCoding.hpp"

#include <functional>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

using namespace veltrane::kit;
using Json = nlohmann::json;
using Kind = ProfileDecodingError::Kind;

namespace {

UUID uuid(const char* text) {
    return *UUID::parse(text);
}

Profile richProfile() {
    Profile p;
    p.schemaVersion = 1;
    p.id = uuid("6F9619FF-8B86-D011-B42D-00C04FC964FF");
    p.name = "Büro / Office 办公";
    const auto socksID = UUID::random();
    const auto httpID = UUID::random();
    const auto chainID = UUID::random();
    p.proxies = {
        {socksID, "Socks", "::1", 1080, ProxyProtocol::socks5, ProxyCredentials{"user", "p\"w/d"}},
        {httpID, "HTTP", "proxy.example", 0, ProxyProtocol::http, std::nullopt},
        {UUID::random(), "Max", "10.0.0.1", 65535, ProxyProtocol::socks5, ProxyCredentials{"", ""}},
    };
    p.chains = {{chainID, "Chain", {socksID, httpID, UUID::random()}},
                {UUID::random(), "Empty", {}}};
    auto rule = [](std::string name, RuleAction action) {
        Rule r;
        r.id = UUID::random();
        r.name = std::move(name);
        r.action = std::move(action);
        return r;
    };
    p.rules = {
        Profile::localhostGuardRule(),
        rule("via proxy", RuleAction::proxy(socksID)),
        rule("via chain", RuleAction::chain(chainID)),
        rule("tunnel", RuleAction::interface("utun4")),
        rule("direct", RuleAction::direct()),
        rule("block", RuleAction::block()),
        Profile::defaultFallbackRule(),
    };
    p.rules[1].apps = {"com.example.app", "/usr/bin/curl", "Firefox*"};
    p.rules[1].hosts = {"*.example.com", "10.0.0.0/8"};
    p.rules[1].ports = {"443", "8000-9000"};
    p.rules[1].transport = FlowTransport::tcp;
    p.rules[1].quicPolicy = QUICPolicy::proxy;
    p.rules[1].tags = {"work", "标签"};
    p.rules[2].enabled = false;
    p.rules[2].transport = FlowTransport::udp;
    p.rules[2].quicPolicy = QUICPolicy::direct;
    p.rules[5].hosts = {"ads.\ttracker\n\"x\"\\y"};
    p.dns = {false, {"localhost", "*.local", "%ComputerName%", "intranet/x"}};
    p.general = {false, true};
    p.environments = {
        {UUID::random(), "Home Wi-Fi", NetworkEnvironment::Wifi{"Café 5G"}},
        {UUID::random(), "Desk", NetworkEnvironment::Wired{"aa:bb:cc:dd:ee:ff", "192.168.1.0/24"}},
        {UUID::random(), "Dock", NetworkEnvironment::Wired{std::nullopt, "10.1.0.0/16"}},
        {UUID::random(), "Any wire", NetworkEnvironment::Wired{}},
    };
    return p;
}

// Every key, in an order of its own, with odd white space and lower-case ids.
const char* const kHandWritten = R"JSON(
  {"environments":[{"kind":{"ssid":"Net","type":"wifi"},"name":"W",
     "id":"0e8a4f1c-3b2d-4c5e-9f60-718293a4b5c6"}],
   "general" : { "failsafeOnCrash":true ,"loopDetection":false },
	"rules":[ {"tags":[],"locked":false,"quicPolicy":"fallback",
     "action":{"id":"11111111-2222-3333-4444-555555555555","kind":"proxy"},
     "transport":"any","ports":["1-1024"],"hosts":[],"apps":["Safari"],"enabled":true,
     "name":"R","id":"aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee"} ],
   "dns":{"exclusions":["a\/b"],"resolveViaProxy":true},
   "chains":[{"proxyIDs":["11111111-2222-3333-4444-555555555555"],"name":"C",
     "id":"99999999-8888-7777-6666-555555555555"}],
   "proxies":[{"proto":"http","port":8080,"address":"h","name":"P",
     "id":"11111111-2222-3333-4444-555555555555",
     "credentials":{"password":"pw","username":"u"}}],
   "name":"Hand","id":"12345678-9abc-def0-1234-56789abcdef0","schemaVersion":1}
)JSON";

Json handWrittenJson() {
    return Json::parse(kHandWritten);
}

std::optional<Profile> decodeJson(const Json& document, std::optional<ProfileDecodingError>* e) {
    return decodeProfile(document.dump(), e);
}

} // namespace

TEST(ProfileCoding, RichProfileRoundTripsPrettyAndCompact) {
    const auto profile = richProfile();
    for (bool pretty : {true, false}) {
        std::optional<ProfileDecodingError> error;
        auto text = encodeProfile(profile, pretty);
        auto decoded = decodeProfile(text, &error);
        ASSERT_TRUE(decoded) << (error ? error->localizedDescription() : "");
        EXPECT_FALSE(error);
        EXPECT_EQ(*decoded, profile);
        EXPECT_EQ(encodeProfile(*decoded, pretty), text);
    }
    // Non-ASCII goes out as UTF-8, not as \u escapes.
    EXPECT_NE(encodeProfile(profile).find("办公"), std::string::npos);
}

TEST(ProfileCoding, HandWrittenDocumentReads) {
    std::optional<ProfileDecodingError> error;
    auto profile = decodeProfile(std::string_view(kHandWritten), &error);
    ASSERT_TRUE(profile) << error->localizedDescription();
    EXPECT_EQ(profile->id.uuidString(), "12345678-9ABC-DEF0-1234-56789ABCDEF0");
    EXPECT_EQ(profile->name, "Hand");
    ASSERT_EQ(profile->proxies.size(), 1u);
    EXPECT_EQ(profile->proxies[0].port, 8080);
    EXPECT_EQ(profile->proxies[0].proto, ProxyProtocol::http);
    EXPECT_EQ(profile->proxies[0].credentials, (ProxyCredentials{"u", "pw"}));
    EXPECT_EQ(profile->chains[0].proxyIDs, std::vector<UUID>{profile->proxies[0].id});
    EXPECT_EQ(profile->rules[0].action, RuleAction::proxy(profile->proxies[0].id));
    EXPECT_EQ(profile->rules[0].ports, std::vector<std::string>{"1-1024"});
    EXPECT_EQ(profile->dns.exclusions, std::vector<std::string>{"a/b"});
    EXPECT_EQ(profile->general, (GeneralSettings{false, true}));
    EXPECT_EQ(profile->environments[0].kind,
              NetworkEnvironment::Kind(NetworkEnvironment::Wifi{"Net"}));
}

TEST(ProfileCoding, ExactCompactForm) {
    Profile p;
    p.id = uuid("0e8a4f1c-3b2d-4c5e-9f60-718293a4b5c6");
    p.name = "a/b";
    p.dns.exclusions = {};
    Rule r;
    r.id = uuid("aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee");
    r.name = "R";
    p.rules = {r};
    p.environments = {{r.id, "E", NetworkEnvironment::Wired{}}};
    EXPECT_EQ(
        encodeProfile(p, false),
        R"({"chains":[],"dns":{"exclusions":[],"resolveViaProxy":true},)"
        R"("environments":[{"id":"AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEEE","kind":{"type":"wired"},"name":"E"}],)"
        R"("general":{"failsafeOnCrash":true,"loopDetection":true},)"
        R"("id":"0E8A4F1C-3B2D-4C5E-9F60-718293A4B5C6","name":"a\/b","proxies":[],)"
        R"("rules":[{"action":{"kind":"direct"},"apps":[],"enabled":true,"hosts":[],)"
        R"("id":"AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEEE","locked":false,"name":"R","ports":[],)"
        R"("quicPolicy":"fallback","tags":[],"transport":"any"}],"schemaVersion":1})");
    auto pretty = encodeProfile(p, true);
    EXPECT_EQ(pretty.substr(0, 18), "{\n  \"chains\": [],\n");
    EXPECT_NE(pretty.find("\"name\": \"a\\/b\""), std::string::npos);
}

TEST(ProfileCoding, EdgeCasesReadAndWriteBack) {
    struct {
        const char* title;
        std::function<void(Json&)> edit;
        std::function<void(const Profile&, const Json& rewritten)> check;
    } cases[] = {
        {"schemaVersion extremes", [](Json& j) { j["schemaVersion"] = INT64_MIN; },
         [](const Profile& p, const Json&) { EXPECT_EQ(p.schemaVersion, INT64_MIN); }},
        {"credentials null disappears", [](Json& j) { j["proxies"][0]["credentials"] = nullptr; },
         [](const Profile& p, const Json& w) {
             EXPECT_FALSE(p.proxies[0].credentials);
             EXPECT_FALSE(w["proxies"][0].contains("credentials"));
         }},
        {"interface action ignores id",
         [](Json& j) {
             j["rules"][0]["action"]["kind"] = "interface";
             j["rules"][0]["action"]["name"] = "wg0";
         },
         [](const Profile& p, const Json& w) {
             EXPECT_EQ(p.rules[0].action, RuleAction::interface("wg0"));
             EXPECT_EQ(w["rules"][0]["action"], (Json{{"kind", "interface"}, {"name", "wg0"}}));
         }},
        {"unknown keys dropped",
         [](Json& j) {
             j["extra"] = 1;
             j["rules"][0]["comment"] = "x";
             j["dns"]["servers"] = Json::array({"1.1.1.1"});
             j["environments"][0]["kind"]["bssid"] = "x";
         },
         [](const Profile&, const Json& w) {
             EXPECT_FALSE(w.contains("extra"));
             EXPECT_FALSE(w["rules"][0].contains("comment"));
             EXPECT_FALSE(w["dns"].contains("servers"));
             EXPECT_EQ(w["environments"][0]["kind"].size(), 2u);
         }},
        {"whole-valued numbers, port 65535 as 6.5535e4",
         [](Json& j) {
             j["proxies"][0]["port"] = 65535.0;
             j["schemaVersion"] = 3.0;
         },
         [](const Profile& p, const Json& w) {
             EXPECT_EQ(p.proxies[0].port, 65535);
             EXPECT_EQ(p.schemaVersion, 3);
             EXPECT_TRUE(w["schemaVersion"].is_number_integer());
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.title);
        auto document = handWrittenJson();
        c.edit(document);
        std::optional<ProfileDecodingError> error;
        auto profile = decodeJson(document, &error);
        ASSERT_TRUE(profile) << error->localizedDescription();
        auto text = encodeProfile(*profile);
        c.check(*profile, Json::parse(text));
        EXPECT_EQ(decodeProfile(text), profile);
    }
}

// Every key of the hand-written document is required, except the optional
// ones; taking any of them away, or making it null, fails with its path.
TEST(ProfileCoding, EveryRequiredKeyMissingOrNullFails) {
    const std::vector<std::string> optionalKeys = {"credentials", "gatewayMAC", "subnet"};
    auto document = handWrittenJson();
    // Give every record kind and every action kind a place in the walk.
    document["environments"].push_back(
        {{"id", "0e8a4f1c-3b2d-4c5e-9f60-718293a4b5c7"},
         {"name", "D"},
         {"kind", {{"type", "wired"}, {"gatewayMAC", "m"}, {"subnet", "s"}}}});
    for (const auto& action :
         {Json{{"kind", "chain"}, {"id", "99999999-8888-7777-6666-555555555555"}},
          Json{{"kind", "interface"}, {"name", "utun4"}}, Json{{"kind", "block"}}}) {
        auto rule = document["rules"][0];
        rule["action"] = action;
        document["rules"].push_back(rule);
    }
    ASSERT_TRUE(decodeJson(document, nullptr));

    int checked = 0;
    std::function<void(const Json::json_pointer&, const std::string&)> walk;
    walk = [&](const Json::json_pointer& pointer, const std::string& path) {
        const Json& node = document[pointer];
        if (node.is_array()) {
            for (std::size_t i = 0; i < node.size(); ++i) {
                walk(pointer / i, path + "[" + std::to_string(i) + "]");
            }
            return;
        }
        if (!node.is_object()) {
            return;
        }
        for (const auto& [key, value] : node.items()) {
            const std::string keyPath = path.empty() ? key : path + "." + key;
            const bool isOptional =
                std::find(optionalKeys.begin(), optionalKeys.end(), key) != optionalKeys.end();
            for (bool makeNull : {false, true}) {
                SCOPED_TRACE(keyPath + (makeNull ? " null" : " missing"));
                auto edited = document;
                if (makeNull) {
                    edited[pointer][key] = nullptr;
                } else {
                    edited[pointer].erase(key);
                }
                std::optional<ProfileDecodingError> error;
                auto profile = decodeJson(edited, &error);
                if (isOptional) {
                    EXPECT_TRUE(profile);
                    continue;
                }
                ++checked;
                ASSERT_FALSE(profile);
                ASSERT_TRUE(error);
                EXPECT_EQ(error->kind(), makeNull ? Kind::valueNotFound : Kind::keyNotFound);
                EXPECT_EQ(error->path(), keyPath);
                EXPECT_NE(error->localizedDescription().find("\"" + key + "\""), std::string::npos);
            }
            walk(pointer / key, keyPath);
        }
    };
    walk(Json::json_pointer(), "");
    EXPECT_GT(checked, 100);
}

TEST(ProfileCoding, BadValuesFailWithKindAndPath) {
    struct {
        const char* path;
        std::function<void(Json&)> edit;
        Kind kind;
    } cases[] = {
        {"proxies[0].port", [](Json& j) { j["proxies"][0]["port"] = 65536; }, Kind::dataCorrupted},
        {"proxies[0].port", [](Json& j) { j["proxies"][0]["port"] = -1; }, Kind::dataCorrupted},
        {"proxies[0].port", [](Json& j) { j["proxies"][0]["port"] = 1.5; }, Kind::dataCorrupted},
        {"proxies[0].port", [](Json& j) { j["proxies"][0]["port"] = "80"; }, Kind::typeMismatch},
        {"schemaVersion", [](Json& j) { j["schemaVersion"] = 9223372036854775808ull; },
         Kind::dataCorrupted},
        {"schemaVersion", [](Json& j) { j["schemaVersion"] = 9.3e18; }, Kind::dataCorrupted},
        {"id", [](Json& j) { j["id"] = "12345678-9abc-def0-1234-56789abcdef"; },
         Kind::dataCorrupted},
        {"chains[0].proxyIDs[1]", [](Json& j) { j["chains"][0]["proxyIDs"].push_back("x"); },
         Kind::dataCorrupted},
        {"proxies[0].proto", [](Json& j) { j["proxies"][0]["proto"] = "HTTP"; },
         Kind::dataCorrupted},
        {"rules[0].action.kind", [](Json& j) { j["rules"][0]["action"]["kind"] = "reject"; },
         Kind::dataCorrupted},
        {"environments[0].kind.type", [](Json& j) { j["environments"][0]["kind"]["type"] = "lte"; },
         Kind::dataCorrupted},
        {"rules[0].enabled", [](Json& j) { j["rules"][0]["enabled"] = 1; }, Kind::typeMismatch},
        {"rules[0].apps[0]", [](Json& j) { j["rules"][0]["apps"][0] = 7; }, Kind::typeMismatch},
        {"rules[0].tags", [](Json& j) { j["rules"][0]["tags"] = "t"; }, Kind::typeMismatch},
        {"rules[0]", [](Json& j) { j["rules"][0] = "rule"; }, Kind::typeMismatch},
        {"proxies[0].credentials", [](Json& j) { j["proxies"][0]["credentials"] = "u:p"; },
         Kind::typeMismatch},
        {"dns.exclusions[0]", [](Json& j) { j["dns"]["exclusions"][0] = nullptr; },
         Kind::typeMismatch},
        {"", [](Json& j) { j = Json::array({j}); }, Kind::typeMismatch},
    };
    for (const auto& c : cases) {
        auto document = handWrittenJson();
        c.edit(document);
        SCOPED_TRACE(document.dump());
        std::optional<ProfileDecodingError> error;
        EXPECT_FALSE(decodeJson(document, &error));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->kind(), c.kind);
        EXPECT_EQ(error->path(), c.path);
        auto text = error->localizedDescription();
        EXPECT_EQ(text.find('\n'), std::string::npos);
        EXPECT_EQ(text.rfind(std::string(c.path).empty() ? "profile: " : c.path, 0), 0u) << text;
    }
}

TEST(ProfileCoding, MessagesNameTheRecord) {
    auto document = handWrittenJson();
    for (int i = 0; i < 2; ++i) {
        document["rules"].push_back(document["rules"][0]);
    }
    document["rules"][2].erase("tags");
    std::optional<ProfileDecodingError> error;
    ASSERT_FALSE(decodeJson(document, &error));
    EXPECT_EQ(error->path(), "rules[2].tags");
    EXPECT_EQ(error->localizedDescription(), "rules[2]: required key \"tags\" is missing");
    EXPECT_EQ(std::string(error->what()), error->localizedDescription());
    EXPECT_EQ(error->domain(), "ProfileDecodingError");

    document = handWrittenJson();
    document.erase("name");
    ASSERT_FALSE(decodeJson(document, &error));
    EXPECT_EQ(error->localizedDescription(), "profile: required key \"name\" is missing");

    document = handWrittenJson();
    document["proxies"][0]["port"] = 65536;
    ASSERT_FALSE(decodeJson(document, &error));
    EXPECT_EQ(error->localizedDescription(),
              "proxies[0].port: expected an integer from 0 to 65535, found 65536");
}

TEST(ProfileCoding, NonJSONFailsAsSyntax) {
    const std::string valid = handWrittenJson().dump();
    const std::string cases[] = {
        valid + " {}",
        "{\"name\":\"\xff\"}",
        "{\"name\":\"\xed\xa0\x80\"}", // a lone surrogate in UTF-8 form
        std::string("{\"name\":\"a\0b\"}", 14),
        "// comment\n" + valid,
        std::string(100000, '['),
    };
    for (const auto& text : cases) {
        std::optional<ProfileDecodingError> error;
        EXPECT_FALSE(decodeProfile(text, &error)) << text.substr(0, 40);
        ASSERT_TRUE(error);
        EXPECT_EQ(error->kind(), Kind::syntax) << text.substr(0, 40);
        // Safe to log anywhere: printable ASCII only.
        for (char ch : error->localizedDescription()) {
            EXPECT_TRUE(ch >= 0x20 && ch < 0x7F);
        }
    }
    // Leading UTF-8 byte-order mark and surrounding white space are fine.
    EXPECT_TRUE(decodeProfile("\xEF\xBB\xBF \n" + valid + "\n\t"));
}

TEST(ProfileCoding, InvalidUTF8InRecordsIsRepairedOnWrite) {
    auto profile = richProfile();
    profile.name = "bad \xff name";
    std::string text;
    ASSERT_NO_THROW(text = encodeProfile(profile));
    auto decoded = decodeProfile(text);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->name, "bad \xEF\xBF\xBD name");
}

TEST(ProfileCoding, TruncatedDocumentsNeverDecode) {
    const auto profile = richProfile();
    const auto text = encodeProfile(profile, true);
    const auto bytes = std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    for (std::size_t length = 0; length < text.size(); ++length) {
        std::optional<ProfileDecodingError> error;
        EXPECT_FALSE(decodeProfile(bytes.first(length), &error)) << "length " << length;
        EXPECT_TRUE(error) << "length " << length;
    }
    EXPECT_EQ(decodeProfile(bytes), profile);
}
