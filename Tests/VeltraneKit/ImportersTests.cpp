#include "Support/TempDir.hpp"
#include "VeltraneKit/Importers/ConfigImportScanner.hpp"
#include "VeltraneKit/Importers/ImportError.hpp"
#include "VeltraneKit/Importers/PPXImportAdapter.hpp"
#include "VeltraneKit/Importers/ProfileMerging.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <span>
#include <string>

using namespace veltrane::kit;
namespace fs = std::filesystem;
using namespace std::string_literals;

namespace {

std::span<const std::uint8_t> bytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::string joined(const std::vector<std::string>& items) {
    std::string out;
    for (const auto& item : items) {
        out += (out.empty() ? "" : "|") + item;
    }
    return "[" + out + "]";
}

// Proxies by position, so that whole results compare as one text.
std::string describe(const ImportedConfig& config) {
    std::string out;
    for (std::size_t i = 0; i < config.proxies.size(); ++i) {
        const auto& p = config.proxies[i];
        EXPECT_EQ(p.name, p.endpointDescription());
        EXPECT_FALSE(p.credentials);
        out += "P" + std::to_string(i) + " " + std::string(rawValue(p.proto)) + " " + p.name + "; ";
    }
    for (const auto& r : config.rules) {
        EXPECT_TRUE(r.transport == FlowTransport::any && r.quicPolicy == QUICPolicy::fallback &&
                    !r.locked && r.tags.empty());
        out += "'" + r.name + "'" + (r.enabled ? "" : " off");
        if (!r.apps.empty() || !r.hosts.empty() || !r.ports.empty()) {
            out += " " + joined(r.apps) + joined(r.hosts) + joined(r.ports);
        }
        if (const auto* proxy = r.action.as<RuleAction::Proxy>()) {
            out += " -> P?";
            for (std::size_t i = 0; i < config.proxies.size(); ++i) {
                if (config.proxies[i].id == proxy->id) {
                    out.back() = char('0' + i);
                }
            }
        } else {
            out += r.action.is<RuleAction::Block>() ? " -> block" : " -> direct";
        }
        out += "; ";
    }
    return out;
}

std::string outcome(std::string_view document) {
    try {
        return describe(PPXImportAdapter("").parse(bytesOf(document)));
    } catch (const ImportError& error) {
        return error.kind() == ImportError::Kind::malformed ? "malformed: " + error.detail()
                                                            : "unrecognized";
    }
}

const char* const kProxies = R"(<ProxifierProfile><ProxyList>
  <Proxy id="1"><Address>a</Address><Port>1</Port></Proxy>
  <Proxy type="socks4"><Address>b</Address><Port>+2</Port></Proxy>
  <Proxy type="HTTPS"><Address>c</Address><Port>65535</Port></Proxy>
  <Proxy type="SOCK"><Address>d</Address><Port>-0</Port></Proxy>
  <Proxy><Address>x</Address><Port>65536</Port></Proxy>
  <Proxy><Address>x</Address><Port> 1</Port></Proxy>
  <Proxy><Address>x</Address><Port>1a</Port></Proxy>
  <Proxy><Address>x</Address><Port>-1</Port></Proxy>
  <Proxy><Address>x</Address><Port></Port></Proxy>
  <Proxy><Address>x</Address></Proxy>
  <Proxy><Port>1</Port></Proxy>
  <Proxy type="ſocks5"><Address>e<b>f</b></Address><Port>7</Port><Address>no</Address></Proxy>
</ProxyList><ProxyList><Proxy type=""><Address>g</Address><Port>8</Port></Proxy></ProxyList>
</ProxifierProfile>)";

const char* const kRules = R"(<?xml version="1.0" encoding="UTF-8"?>
<ProxifierProfile version="102"><Options/><ProxyList>
  <Proxy id="100"><Address>a</Address><Port>1</Port></Proxy>
  <Proxy id="200"><Address>b</Address><Port>2</Port></Proxy>
  <Proxy id="300"><Address>bad</Address><Port>x</Port></Proxy>
  <Proxy id="200"><Address>c</Address><Port>3</Port></Proxy>
</ProxyList><ChainList/><RuleList>
  <Rule enabled="false"><Name>off</Name><Applications> a.exe ;; ;	b.exe;</Applications>
    <Targets>*.x, y;z</Targets><Ports>80; 443 </Ports><Action type="Proxy" proxy="200"/></Rule>
  <Rule enabled="FALSE"><Action type="Chain" proxy="999"/></Rule>
  <Rule><Name>skipped target</Name><Action type="proxy" proxy="300"/></Rule>
  <Rule><Name>blk</Name><Action type="Block"/></Rule>
  <Rule><Name>text</Name><Action>BLOCK</Action></Rule>
  <Rule><Name>attr wins</Name><Action type="Direct">Block</Action></Rule>
  <Rule><Name>empty</Name><Action/></Rule>
  <Rule><Name>none</Name></Rule>
  <Rule><Name>Default</Name></Rule>
  <Rule><Name>Localhost</Name><Action type="Block"/></Rule>
  <Rule><Name>default</Name><Action type="ProxyBlock" proxy="100"/></Rule>
  <Rule><Name>first</Name><Name>second</Name><Action type="Proxy" proxy="100"/></Rule>
</RuleList></ProxifierProfile>)";

TEST(PPXImportAdapterTest, ReadsDocuments) {
    struct {
        std::string document;
        std::string expected;
    } cases[] = {
        {"<!-- c --><ProxifierProfile><ProxyList/></ProxifierProfile>\n", ""},
        {"<proxifierprofile/>", "unrecognized"},
        {"<Other><ProxifierProfile/></Other>", "unrecognized"},
        {"", "malformed: 不是有效的 XML"},
        {"<ProxifierProfile>", "malformed: 不是有效的 XML"},
        {"<ProxifierProfile/><ProxifierProfile/>", "malformed: 不是有效的 XML"},
        {"junk<ProxifierProfile/>", "malformed: 不是有效的 XML"},
        {"<ProxifierProfile a='1' a='2'/>", "malformed: 不是有效的 XML"},
        {"<ProxifierProfile>\xff</ProxifierProfile>", "malformed: 不是有效的 XML"},
        {"<ProxifierProfile/>\0tail"s, "malformed: 不是有效的 XML"},
        {"\xff\xfe<\0P\0r\0o\0x\0i\0f\0i\0e\0r\0P\0r\0o\0f\0i\0l\0e\0/\0>\0"s, ""},
        {kProxies, "P0 socks5 a:1; P1 socks5 b:2; P2 http c:65535; P3 http d:0; P4 socks5 ef:7; "
                   "P5 http g:8; "},
        {kRules, "P0 socks5 a:1; P1 socks5 b:2; P2 socks5 c:3; "
                 "'off' off [a.exe|b.exe][*.x, y|z][80|443] -> P2; 'Imported' -> P0; "
                 "'skipped target' -> P0; 'blk' -> block; 'text' -> block; "
                 "'attr wins' -> direct; 'empty' -> direct; 'none' -> direct; "
                 "'default' -> block; 'first' -> P0; "},
        {"<ProxifierProfile><RuleList><Rule><Name>n</Name><Action type='Proxy' proxy='1'/>"
         "</Rule></RuleList></ProxifierProfile>",
         "'n' -> direct; "},
        {"<ProxifierProfile><RuleList><Rule><Name>n</Name><Action type='CHAİN'/>"
         "</Rule></RuleList><ProxyList><Proxy><Address>a</Address><Port>1</Port></Proxy>"
         "</ProxyList></ProxifierProfile>",
         "P0 socks5 a:1; 'n' -> direct; "},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(outcome(c.document), c.expected) << c.document;
    }

    // Cut anywhere, a document either imports or is refused with the typed error.
    const std::string whole = kRules;
    for (std::size_t length = 0; length < whole.size(); ++length) {
        (void)outcome(std::string_view(whole).substr(0, length));
    }
    EXPECT_EQ(ImportError::malformed("x").localizedDescription(), "配置文件内容异常：x");
    EXPECT_EQ(ImportError::unrecognizedFormat().localizedDescription(), "无法识别的配置格式");
}

TEST(ConfigImportScannerTest, DiscoversAndParses) {
    const veltrane::test::TempDir root;
    const fs::path home = root / "home";
    const auto write = [&](const fs::path& path, std::string_view text = "<ProxifierProfile/>") {
        root.write(path, text);
    };
    const ConfigImportScanner scanner(
        {std::make_shared<PPXImportAdapter>((root / "xdg").string())});
    EXPECT_TRUE(scanner.discover(home).empty());

    write(root / "xdg/proxifier/x.ppx");
    write(home / "top.ppx", kProxies);
    write(home / "Documents/A.PPX", kRules);
    write(home / "Documents/notes.txt");
    write(home / "Documents/deep/hidden.ppx");
    fs::create_directories(home / "Downloads/folder.ppx");
    write(home / ".config/proxifier/unused.ppx"); // $XDG_CONFIG_HOME points elsewhere

    const auto found = scanner.discover(home);
    std::vector<std::string> names;
    std::set<UUID> ids;
    for (const auto& config : found) {
        names.push_back(config.url.filename().string());
        ids.insert(config.id);
        EXPECT_EQ(config.adapterID, "ppx");
        EXPECT_EQ(config.displayName, "同类工具配置 · " + names.back());
    }
    EXPECT_EQ(names, (std::vector<std::string>{"x.ppx", "top.ppx", "A.PPX"}));
    EXPECT_EQ(ids.size(), 3u);

    const auto byDefault = ConfigImportScanner({std::make_shared<PPXImportAdapter>("")});
    ASSERT_EQ(byDefault.discover(home).size(), 3u);
    EXPECT_EQ(byDefault.discover(home).front().url, home / ".config/proxifier/unused.ppx");

    EXPECT_EQ(scanner.parse(found[2]).rules.size(), 10u);
    EXPECT_EQ(scanner.parse(home / "top.ppx").proxies.size(), 6u);

    auto failure = [&](auto&& call) -> std::string {
        try {
            call();
        } catch (const ImportError& error) {
            return error.kind() == ImportError::Kind::malformed ? "malformed" : "unrecognized";
        } catch (const fs::filesystem_error& error) {
            return error.code() == std::errc::no_such_file_or_directory ? "ENOENT" : error.what();
        }
        return "none";
    };
    EXPECT_EQ(failure([&] {
                  scanner.parse(DiscoveredConfig{UUID::random(), home / "no", "", "x"});
              }),
              "unrecognized");
    EXPECT_EQ(failure([&] {
                  scanner.parse(DiscoveredConfig{UUID::random(), home / "no", "", "ppx"});
              }),
              "ENOENT");
    EXPECT_EQ(failure([&] { scanner.parse(home / "missing.txt"); }), "ENOENT");
    EXPECT_EQ(failure([&] { scanner.parse(home / "Documents/notes.txt"); }), "unrecognized");
    write(home / "bad.ppx", "<ProxifierProfile>");
    EXPECT_EQ(failure([&] { scanner.parse(home / "bad.ppx"); }), "malformed");
}

ProxyServer proxy(std::string name, std::string address, ProxyProtocol proto) {
    return ProxyServer{UUID::random(), std::move(name), std::move(address), 1080, proto, {}};
}

Rule rule(std::string name, RuleAction action, bool locked = false) {
    Rule r;
    r.id = UUID::random();
    r.name = std::move(name);
    r.action = std::move(action);
    r.locked = locked;
    return r;
}

TEST(ProfileMergingTest, FusesProxiesAndOrdersRules) {
    Profile base = Profile::makeDefault("P");
    const ProxyServer mine = proxy("mine", "10.0.0.1", ProxyProtocol::socks5);
    base.proxies = {mine};
    const Rule guardLocal = base.rules[0], guardDefault = base.rules[1];
    base.rules = {guardDefault, rule("own", RuleAction::proxy(mine.id)), guardLocal,
                  rule("Pinned", RuleAction::block(), true)};

    ImportedConfig imported;
    imported.proxies = {proxy("renamed", "10.0.0.1", ProxyProtocol::socks5),
                        proxy("web", "10.0.0.1", ProxyProtocol::http),
                        proxy("web again", "10.0.0.1", ProxyProtocol::http),
                        proxy("upper", "Host.example", ProxyProtocol::socks5),
                        proxy("lower", "host.example", ProxyProtocol::socks5)};
    const UUID unknown = UUID::random();
    for (std::size_t i = 0; i < imported.proxies.size(); ++i) {
        imported.rules.push_back(
            rule("r" + std::to_string(i), RuleAction::proxy(imported.proxies[i].id)));
    }
    imported.rules.push_back(rule("Default", RuleAction::proxy(unknown)));
    imported.rules.push_back(rule("r", RuleAction::block()));

    auto describeProfile = [](const Profile& p) {
        std::string out;
        for (const auto& s : p.proxies) {
            out += s.name + "/" + std::string(rawValue(s.proto)) + "; ";
        }
        for (const auto& r : p.rules) {
            const auto* target = r.action.as<RuleAction::Proxy>();
            const auto server = target ? p.proxy(target->id) : std::nullopt;
            out += r.name + (r.locked ? "#" : "") +
                   (target ? "->" + (server ? server->name : "?") : "") + "; ";
        }
        return out;
    };
    const Profile before = base;
    const Profile merged = merging(base, imported);
    EXPECT_EQ(base, before);
    EXPECT_EQ(describeProfile(merged),
              "mine/socks5; web/http; upper/socks5; lower/socks5; Localhost#; own->mine; "
              "Pinned#; r0->mine; r1->web; r2->web; r3->upper; r4->lower; Default->?; r; "
              "Default#; ");
    EXPECT_EQ(merged.with({.proxies = base.proxies, .rules = base.rules}), base);
    EXPECT_EQ(merged.rules.front().id, guardLocal.id);
    EXPECT_EQ(merged.rules.back().id, guardDefault.id);
}

} // namespace
