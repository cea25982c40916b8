#include "Support/TempDir.hpp"
#include "VeltraneKit/MCPIntegrations/MCPInstaller.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace veltrane::kit;
using nlohmann::json;
using veltrane::test::TempDir;
namespace fs = std::filesystem;

namespace {

const MCPClientIntegration& client(const std::string& id) {
    for (const auto& c : MCPInstaller::knownClients()) {
        if (c.id == id) {
            return c;
        }
    }
    throw std::runtime_error("no client " + id);
}

MCPInstaller makeInstaller(std::string command = "veltrane") {
    return MCPInstaller(std::move(command), "veltrane", {"mcp", "serve"},
                        MCPInstaller::knownClients());
}

const json ourEntry = {{"command", "veltrane"}, {"args", {"mcp", "serve"}}};

} // namespace

TEST(MCPHome, ResolvesHomeConfigAndAbsolutePaths) {
    const MCPHome plain("/h");
    const MCPHome xdg("/h", "/x");
    EXPECT_EQ(plain.resolve(".config/Claude/a.json"), "/h/.config/Claude/a.json");
    EXPECT_EQ(xdg.resolve(".config/Claude/a.json"), "/x/Claude/a.json");
    EXPECT_EQ(xdg.resolve(".config"), "/x");
    EXPECT_EQ(xdg.resolve(".configx/a"), "/h/.configx/a");
    EXPECT_EQ(xdg.resolve("/opt/app"), "/opt/app");
}

TEST(MCPInstaller, InstallChoosesTheFileAndKeepsEverythingElse) {
    const json other = {{"command", "o"}, {"args", json::array()}};
    const json onlyOurs = {{"mcpServers", {{"veltrane", ourEntry}}}};
    struct {
        const char* client;
        std::vector<std::pair<std::string, std::string>> before;
        std::string target;      // the file that must end up with the entry
        json expected;           // its whole document afterwards
        std::string absent = {}; // a file that must not appear, or "" for none
        bool separateConfig = false;
    } cases[] = {
        {"claude-desktop", {}, "xdg/Claude/claude_desktop_config.json", onlyOurs, ".config", true},
        {"claude-code", {}, ".claude.json", onlyOurs, ".config/claude/config.json"},
        {"claude-code",
         {{".config/claude/config.json", R"({"mcpServers":{"o":{"command":"o","args":[]}}})"}},
         ".config/claude/config.json",
         {{"mcpServers", {{"o", other}, {"veltrane", ourEntry}}}},
         ".claude.json"},
        {"codex",
         {{".codex/config.json", R"({"model":"m","mcp_servers":{"o":{"command":"o","args":[]}}})"}},
         ".codex/config.json",
         {{"model", "m"}, {"mcp_servers", {{"o", other}, {"veltrane", ourEntry}}}}},
        {"cursor",
         {{".cursor/mcp.json",
           R"({"x":[1,{"b":null}],"mcpServers":{"veltrane":{"command":"old","env":{"K":"v"}}}})"}},
         ".cursor/mcp.json",
         {{"x", {1, {{"b", nullptr}}}}, {"mcpServers", {{"veltrane", ourEntry}}}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.client) + " -> " + c.target);
        TempDir home;
        for (const auto& [rel, text] : c.before) {
            home.write(rel, text);
        }
        const MCPHome where(home.path, c.separateConfig ? home / "xdg" : fs::path());
        const auto result = makeInstaller().install(client(c.client), where);
        EXPECT_TRUE(result.installed) << result.detail;
        EXPECT_EQ(result.id, c.client);
        EXPECT_EQ(result.detail, fs::path(c.target).filename().string());
        EXPECT_EQ(json::parse(home.read(c.target)), c.expected);
        if (!c.absent.empty()) {
            EXPECT_FALSE(fs::exists(home / c.absent));
        }
        EXPECT_TRUE(makeInstaller().isInstalled(client(c.client), where));
    }
}

TEST(MCPInstaller, WritesSortedIndentedTextInPlaceOfTheOldFile) {
    TempDir home;
    home.write("dotfiles/claude.json", R"({"z":1,"mcpServers":{"veltrane":{"command":"a"}},)"
                                       R"("a":{"y":"u/v","b":[1,2]}})");
    home.link(".claude.json", home / "dotfiles/claude.json");
    fs::permissions(home / "dotfiles/claude.json", fs::perms(0640));

    const auto result = makeInstaller("/bin/v").install(client("claude-code"), home.path);
    ASSERT_TRUE(result.installed) << result.detail;
    EXPECT_EQ(result.detail, ".claude.json");
    EXPECT_EQ(home.read(".claude.json"), R"({
  "a": {
    "b": [
      1,
      2
    ],
    "y": "u\/v"
  },
  "mcpServers": {
    "veltrane": {
      "args": [
        "mcp",
        "serve"
      ],
      "command": "\/bin\/v"
    }
  },
  "z": 1
}
)");
    // The link stays a link, the file behind it keeps its mode, and no
    // temporary file is left next to it.
    EXPECT_TRUE(fs::is_symlink(home / ".claude.json"));
    EXPECT_EQ(fs::status(home / "dotfiles/claude.json").permissions(), fs::perms(0640));
    EXPECT_EQ(std::distance(fs::directory_iterator(home / "dotfiles"), fs::directory_iterator()),
              1);

    // A new file is its owner's only: these files collect API keys.
    ASSERT_TRUE(makeInstaller().install(client("cursor"), home.path).installed);
    EXPECT_EQ(fs::status(home / ".cursor/mcp.json").permissions(), fs::perms(0600));
}

TEST(MCPInstaller, FilesThatDoNotReadAsObjectsAreLeftByteForByte) {
    struct {
        const char* name;
        std::string text;
        bool directory = false;
    } cases[] = {
        {"comments", "// mine\n{\"mcpServers\":{\"veltrane\":{}}}"},
        {"array", "[1, 2]"},
        {"servers not an object", R"({"mcpServers": ["veltrane"], "k": 1})"},
        {"a directory", "", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir home;
        if (c.directory) {
            fs::create_directories(home / ".cursor/mcp.json");
        } else {
            home.write(".cursor/mcp.json", c.text);
        }
        const auto result = makeInstaller().install(client("cursor"), home.path);
        EXPECT_FALSE(result.installed);
        EXPECT_NE(result.detail.find("mcp.json"), std::string::npos) << result.detail;
        makeInstaller().uninstall(client("cursor"), home.path);
        if (c.directory) {
            EXPECT_TRUE(fs::is_directory(home / ".cursor/mcp.json"));
        } else {
            EXPECT_EQ(home.read(".cursor/mcp.json"), c.text);
        }
        EXPECT_EQ(std::distance(fs::directory_iterator(home / ".cursor"), fs::directory_iterator()),
                  1);
    }
}

TEST(MCPInstaller, UninstallRemovesOnlyOurEntry) {
    struct {
        const char* name;
        const char* client;
        std::string file;
        std::string before; // "" for no file
        std::string after;  // exact text, or "" when no file must appear
    } cases[] = {
        {"last server", "codex", ".codex/config.json",
         R"({"mcp_servers":{"veltrane":{"command":"v","args":[]}},"k":true})",
         "{\n  \"k\": true,\n  \"mcp_servers\": {}\n}\n"},
        {"other server stays", "cursor", ".cursor/mcp.json",
         R"({"mcpServers":{"veltrane":{},"o":{"command":"o"}}})",
         "{\n  \"mcpServers\": {\n    \"o\": {\n      \"command\": \"o\"\n    }\n  }\n}\n"},
        {"no entry still reformats", "cursor", ".cursor/mcp.json", R"({"mcpServers":{},"a":1})",
         "{\n  \"a\": 1,\n  \"mcpServers\": {}\n}\n"},
        {"wrong key is not ours", "codex", ".codex/config.json",
         R"({"mcpServers":{"veltrane":{}}})", R"({"mcpServers":{"veltrane":{}}})"},
        {"no file", "windsurf", ".codeium/windsurf/mcp_config.json", "", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir home;
        if (!c.before.empty()) {
            home.write(c.file, c.before);
        }
        makeInstaller().uninstall(client(c.client), home.path);
        if (c.after.empty()) {
            EXPECT_FALSE(fs::exists(home / *fs::path(c.file).begin()));
        } else {
            EXPECT_EQ(home.read(c.file), c.after);
        }
    }

    // Of two files only the first that exists is touched.
    TempDir home;
    const std::string second = R"({"mcpServers":{"veltrane":{}}})";
    home.write(".claude.json", second);
    home.write(".config/claude/config.json", second);
    makeInstaller().uninstall(client("claude-code"), home.path);
    EXPECT_EQ(json::parse(home.read(".claude.json")), json::parse(R"({"mcpServers":{}})"));
    EXPECT_EQ(home.read(".config/claude/config.json"), second);
}

TEST(MCPInstaller, InstallsIntoDetectedClientsAndGoesOnAfterAFailure) {
    TempDir home;
    home.write(".claude.json", "{}");                  // detected by its config file
    home.write(".codex/config.json", "not json");      // detected, then fails
    fs::create_directories(home / ".config/Windsurf"); // app seen, no config yet
    fs::create_directories(home / "opt/Tool");
    auto clients = MCPInstaller::knownClients();
    clients.push_back({"tool",
                       "Tool",
                       {".tool/mcp.json"},
                       MCPClientIntegration::Format::mcpServersObject,
                       {(home / "opt/Tool").string()}});
    const MCPInstaller installer("veltrane", "veltrane", {"mcp", "serve"}, clients);

    std::vector<std::string> ids;
    for (const auto& c : installer.detected(home.path)) {
        ids.push_back(c.id);
    }
    EXPECT_EQ(ids, (std::vector<std::string>{"claude-code", "codex", "windsurf", "tool"}));

    const auto results = installer.installIntoDetected(home.path);
    ASSERT_EQ(results.size(), 4u);
    EXPECT_EQ(results[0], (MCPInstallResult{"claude-code", "Claude Code", true, ".claude.json"}));
    EXPECT_FALSE(results[1].installed);
    EXPECT_EQ(results[1].displayName, "Codex CLI");
    EXPECT_EQ(results[2], (MCPInstallResult{"windsurf", "Windsurf", true, "mcp_config.json"}));
    EXPECT_TRUE(results[3].installed);
    EXPECT_EQ(json::parse(home.read(".codeium/windsurf/mcp_config.json")),
              (json{{"mcpServers", {{"veltrane", ourEntry}}}}));
    EXPECT_EQ(home.read(".codex/config.json"), "not json");
}
