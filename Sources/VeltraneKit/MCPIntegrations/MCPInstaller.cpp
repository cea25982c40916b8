#include "VeltraneKit/MCPIntegrations/MCPInstaller.hpp"

#include "VeltraneKit/JSONText.hpp"
#include "VeltraneKit/MCPIntegrations/ConfigFile.hpp"
#include "VeltraneKit/MCPIntegrations/MCPInstallError.hpp"

#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

namespace veltrane::kit {

namespace {

using Json = nlohmann::json;
using Kind = MCPInstallError::Kind;
namespace fs = std::filesystem;

std::optional<fs::path> firstExistingConfig(const MCPClientIntegration& integration,
                                            const MCPHome& home) {
    for (const auto& path : integration.configPaths) {
        auto resolved = home.resolve(path);
        std::error_code ec;
        if (fs::exists(resolved, ec)) {
            return resolved;
        }
    }
    return std::nullopt;
}

// Drops the library's "[json.exception.parse_error.101] " tag.
std::string parseErrorDetail(const char* what) {
    std::string text = what;
    if (auto end = text.find("] "); !text.empty() && text.front() == '[' && end != text.npos) {
        text.erase(0, end + 2);
    }
    return text;
}

// The document in `file`, which must be a JSON object; throws MCPInstallError.
Json readObject(const fs::path& file) {
    std::error_code ec;
    auto text = configfile::read(file, ec);
    if (!text) {
        throw MCPInstallError(Kind::unreadable, file.string(), ec.message());
    }
    Json document;
    try {
        document = Json::parse(*text);
    } catch (const Json::parse_error& e) {
        throw MCPInstallError(Kind::notJSON, file.string(), parseErrorDetail(e.what()));
    }
    if (!document.is_object()) {
        throw MCPInstallError(Kind::notAnObject, file.string());
    }
    return document;
}

void writeDocument(const fs::path& file, const Json& document) {
    // Trailing newline: these files are edited by hand as well.
    const auto text = dumpEscapingSlashes(document, 2) + "\n";
    std::error_code ec;
    if (!configfile::writeAtomically(file, text, ec)) {
        throw MCPInstallError(Kind::unwritable, file.string(), ec.message());
    }
}

} // namespace

const std::vector<MCPClientIntegration>& MCPInstaller::knownClients() {
    using Format = MCPClientIntegration::Format;
    // Paths under ".config" follow XDG_CONFIG_HOME. Desktop apps are told
    // apart by their Electron profile directory, which exists as soon as the
    // app has run once, whether or not it has an MCP file yet.
    static const std::vector<MCPClientIntegration> clients = {
        {"claude-desktop",
         "Claude Desktop",
         {".config/Claude/claude_desktop_config.json"},
         Format::mcpServersObject,
         {".config/Claude"}},
        {"claude-code",
         "Claude Code",
         {".claude.json", ".config/claude/config.json"},
         Format::mcpServersObject,
         {".claude", ".claude.json"}},
        {"codex", "Codex CLI", {".codex/config.json"}, Format::mcpServersSnake, {".codex"}},
        {"opencode",
         "OpenCode",
         {".config/opencode/mcp.json", ".opencode/config.json"},
         Format::mcpServersObject,
         {".config/opencode", ".opencode"}},
        {"cursor",
         "Cursor",
         {".cursor/mcp.json"},
         Format::mcpServersObject,
         {".cursor", ".config/Cursor"}},
        {"windsurf",
         "Windsurf",
         {".codeium/windsurf/mcp_config.json"},
         Format::mcpServersObject,
         {".codeium/windsurf", ".config/Windsurf"}},
    };
    return clients;
}

MCPInstaller::MCPInstaller(std::string command, std::string serverName,
                           std::vector<std::string> args,
                           std::vector<MCPClientIntegration> integrations)
    : serverName(std::move(serverName)), command(std::move(command)), args(std::move(args)),
      integrations(std::move(integrations)) {}

std::vector<MCPClientIntegration> MCPInstaller::detected(const MCPHome& home) const {
    std::vector<MCPClientIntegration> present;
    for (const auto& integration : integrations) {
        for (const auto& path : integration.detectPaths) {
            std::error_code ec;
            if (fs::exists(home.resolve(path), ec)) {
                present.push_back(integration);
                break;
            }
        }
    }
    return present;
}

fs::path MCPInstaller::targetPath(const MCPClientIntegration& integration, const MCPHome& home) {
    if (auto existing = firstExistingConfig(integration, home)) {
        return *existing;
    }
    if (integration.configPaths.empty()) {
        return {};
    }
    return home.resolve(integration.configPaths.front());
}

MCPInstallResult MCPInstaller::install(const MCPClientIntegration& into,
                                       const MCPHome& home) const {
    MCPInstallResult result{into.id, into.displayName, false, {}};
    try {
        const auto target = targetPath(into, home);
        if (target.empty()) {
            throw MCPInstallError(Kind::noConfigPath, {});
        }
        std::error_code ec;
        fs::create_directories(target.parent_path(), ec);
        if (ec) {
            throw MCPInstallError(Kind::createDirectory, target.parent_path().string(),
                                  ec.message());
        }

        Json document = Json::object();
        if (fs::exists(target, ec)) {
            document = readObject(target);
        }
        const char* key = serversKey(into.format);
        auto servers = document.find(key);
        if (servers == document.end()) {
            servers = document.emplace(key, Json::object()).first;
        } else if (!servers->is_object()) {
            throw MCPInstallError(Kind::serversNotAnObject, target.string(), key);
        }
        (*servers)[serverName] = Json{{"command", command}, {"args", args}};

        writeDocument(target, document);
        result.installed = true;
        result.detail = target.filename().string();
    } catch (const Error& e) {
        result.detail = e.localizedDescription();
    } catch (const std::exception& e) {
        result.detail = e.what();
    }
    return result;
}

std::vector<MCPInstallResult> MCPInstaller::installIntoDetected(const MCPHome& home) const {
    std::vector<MCPInstallResult> results;
    for (const auto& integration : detected(home)) {
        results.push_back(install(integration, home));
    }
    return results;
}

void MCPInstaller::uninstall(const MCPClientIntegration& from, const MCPHome& home) const {
    try {
        const auto target = firstExistingConfig(from, home);
        if (!target) {
            return;
        }
        Json document = readObject(*target);
        auto servers = document.find(serversKey(from.format));
        if (servers == document.end() || !servers->is_object()) {
            return;
        }
        servers->erase(serverName);
        // Written even when nothing was removed, so the file always comes out
        // in one form.
        writeDocument(*target, document);
    } catch (const std::exception&) {
        // Uninstalling is best effort by design; the atomic write has left
        // the old file in place.
    }
}

bool MCPInstaller::isInstalled(const MCPClientIntegration& in, const MCPHome& home) const {
    try {
        const auto target = firstExistingConfig(in, home);
        if (!target) {
            return false;
        }
        const Json document = readObject(*target);
        const auto servers = document.find(serversKey(in.format));
        return servers != document.end() && servers->is_object() && servers->contains(serverName);
    } catch (const std::exception&) {
        return false;
    }
}

} // namespace veltrane::kit
