#include "../Commands.hpp"
#include "AutomationConnection.hpp"
#include "VeltraneKit/DTOCoding.hpp"
#include "VeltraneKit/MCPIntegrations/MCPInstaller.hpp"
#include "VeltraneKit/MCPIntegrations/MCPServer.hpp"

#include <cstdio>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace veltrane::app {
namespace {

using Json = nlohmann::json;
using kit::AutomationReply;
using kit::MCPClientIntegration;
using kit::MCPInstaller;

struct McpOptions {
    std::string name{MCPInstaller::defaultServerName};
    std::string command;
    std::vector<std::string> args;
    std::vector<std::string> clients;
    std::string socket;
    bool json = false;
};

MCPInstaller installerFor(const McpOptions& options) {
    const bool custom = !options.command.empty();
    return MCPInstaller(custom ? options.command : std::string(MCPInstaller::defaultCommand),
                        options.name, custom ? options.args : MCPInstaller::defaultArgs(),
                        MCPInstaller::knownClients());
}

std::string knownIDs() {
    std::string ids;
    for (const auto& client : MCPInstaller::knownClients()) {
        ids += (ids.empty() ? "" : ", ") + client.id;
    }
    return ids;
}

// The clients named with --client, or every detected one. nullopt after a
// line on stderr when a name is not one we know.
std::optional<std::vector<MCPClientIntegration>>
chosenClients(const McpOptions& options, const MCPInstaller& installer, const kit::MCPHome& home) {
    if (options.clients.empty()) {
        return installer.detected(home);
    }
    std::vector<MCPClientIntegration> chosen;
    for (const auto& id : options.clients) {
        const auto& known = MCPInstaller::knownClients();
        const auto found = std::find_if(known.begin(), known.end(),
                                        [&](const MCPClientIntegration& c) { return c.id == id; });
        if (found == known.end()) {
            std::cerr << "veltrane: unknown client \"" << id << "\"; known clients: " << knownIDs()
                      << "\n";
            return std::nullopt;
        }
        chosen.push_back(*found);
    }
    return chosen;
}

int runList(const McpOptions& options) {
    const auto home = kit::MCPHome::current();
    const auto installer = installerFor(options);
    const auto detected = installer.detected(home);
    Json rows = Json::array();
    for (const auto& client : MCPInstaller::knownClients()) {
        const bool isDetected =
            std::find(detected.begin(), detected.end(), client) != detected.end();
        rows.push_back({{"id", client.id},
                        {"displayName", client.displayName},
                        {"detected", isDetected},
                        {"installed", installer.isInstalled(client, home)},
                        {"configPath", MCPInstaller::targetPath(client, home).string()}});
    }
    if (options.json) {
        std::cout << kit::DTOCoding::encode(rows) << "\n";
        return exitOK;
    }
    std::printf("%-15s  %-15s  %-8s  %-9s  %s\n", "CLIENT", "NAME", "DETECTED", "INSTALLED",
                "CONFIGURATION FILE");
    for (const auto& row : rows) {
        std::printf("%-15s  %-15s  %-8s  %-9s  %s\n", row["id"].get<std::string>().c_str(),
                    row["displayName"].get<std::string>().c_str(),
                    row["detected"].get<bool>() ? "yes" : "no",
                    row["installed"].get<bool>() ? "yes" : "no",
                    row["configPath"].get<std::string>().c_str());
    }
    std::fflush(stdout);
    return exitOK;
}

int runInstall(const McpOptions& options) {
    const auto home = kit::MCPHome::current();
    const auto installer = installerFor(options);
    const auto clients = chosenClients(options, installer, home);
    if (!clients) {
        return exitBadInput;
    }
    if (clients->empty()) {
        std::cerr << "veltrane: no AI client found; name one with --client (" << knownIDs()
                  << ")\n";
        return exitUnavailable;
    }
    Json results = Json::array();
    bool allInstalled = true;
    for (const auto& client : *clients) {
        const auto path = MCPInstaller::targetPath(client, home).string();
        const auto result = installer.install(client, home);
        allInstalled = allInstalled && result.installed;
        if (options.json) {
            results.push_back({{"id", result.id},
                               {"displayName", result.displayName},
                               {"installed", result.installed},
                               {"detail", result.detail},
                               {"configPath", path}});
        } else {
            std::cout << result.displayName << ": "
                      << (result.installed ? "installed in " + path : "FAILED: " + result.detail)
                      << "\n";
        }
    }
    if (options.json) {
        std::cout << kit::DTOCoding::encode(results) << "\n";
    }
    return allInstalled ? exitOK : exitUnavailable;
}

int runUninstall(const McpOptions& options) {
    const auto home = kit::MCPHome::current();
    const auto installer = installerFor(options);
    const auto clients = chosenClients(options, installer, home);
    if (!clients) {
        return exitBadInput;
    }
    if (clients->empty() && !options.json) {
        std::cout << "No AI client found; nothing to remove.\n";
    }
    Json results = Json::array();
    bool allRemoved = true;
    for (const auto& client : *clients) {
        const auto path = MCPInstaller::targetPath(client, home).string();
        // The installer's uninstall is silent by design; what the file holds
        // afterwards tells the user how it went.
        const bool was = installer.isInstalled(client, home);
        installer.uninstall(client, home);
        const bool removed = was && !installer.isInstalled(client, home);
        allRemoved = allRemoved && (removed || !was);
        const std::string detail = !was      ? "not installed"
                                   : removed ? "removed from " + path
                                             : "FAILED: could not rewrite " + path;
        if (options.json) {
            results.push_back({{"id", client.id},
                               {"displayName", client.displayName},
                               {"removed", removed},
                               {"detail", detail},
                               {"configPath", path}});
        } else {
            std::cout << client.displayName << ": " << detail << "\n";
        }
    }
    if (options.json) {
        std::cout << kit::DTOCoding::encode(results) << "\n";
    }
    return allRemoved ? exitOK : exitUnavailable;
}

// The automation service as the MCP server sees it: found on first use and
// found again after it went away, so that a server that an AI client started
// before `veltrane run` (or across its restarts) works once the service runs.
// When nothing answers, each operation throws, and the server shows the
// reason as the tool's error.
class ServiceLink final : public kit::AutomationXPCProtocol {
public:
    explicit ServiceLink(std::string socketOption) : socketOption_(std::move(socketOption)) {}

    AutomationReply getStatusWithReply() override {
        return with([&](auto& c) { return c.getStatusWithReply(); });
    }
    AutomationReply setEnabled(bool enabled) override {
        return with([&](auto& c) { return c.setEnabled(enabled); });
    }
    AutomationReply listProfilesWithReply() override {
        return with([&](auto& c) { return c.listProfilesWithReply(); });
    }
    AutomationReply switchProfileWithName(const std::string& name) override {
        return with([&](auto& c) { return c.switchProfileWithName(name); });
    }
    AutomationReply createProfileWithName(const std::string& name) override {
        return with([&](auto& c) { return c.createProfileWithName(name); });
    }
    AutomationReply listEnvironmentsWithReply() override {
        return with([&](auto& c) { return c.listEnvironmentsWithReply(); });
    }
    AutomationReply bindCurrentEnvironmentWithProfileName(const std::string& name) override {
        return with([&](auto& c) { return c.bindCurrentEnvironmentWithProfileName(name); });
    }
    AutomationReply listRulesWithSearch(const std::string& search) override {
        return with([&](auto& c) { return c.listRulesWithSearch(search); });
    }
    AutomationReply addRuleWithJson(const std::string& rule) override {
        return with([&](auto& c) { return c.addRuleWithJson(rule); });
    }
    AutomationReply updateRuleWithJson(const std::string& rule) override {
        return with([&](auto& c) { return c.updateRuleWithJson(rule); });
    }
    AutomationReply removeRuleWithName(const std::string& name) override {
        return with([&](auto& c) { return c.removeRuleWithName(name); });
    }
    AutomationReply setRuleEnabledWithName(const std::string& name, bool enabled) override {
        return with([&](auto& c) { return c.setRuleEnabledWithName(name, enabled); });
    }
    AutomationReply listProxiesWithReply() override {
        return with([&](auto& c) { return c.listProxiesWithReply(); });
    }
    AutomationReply addProxyWithJson(const std::string& proxy) override {
        return with([&](auto& c) { return c.addProxyWithJson(proxy); });
    }
    AutomationReply setRouteWithApp(const std::string& app, const std::string& target) override {
        return with([&](auto& c) { return c.setRouteWithApp(app, target); });
    }
    AutomationReply testRouteWithApp(const std::string& app, const std::string& host,
                                     std::uint16_t port) override {
        return with([&](auto& c) { return c.testRouteWithApp(app, host, port); });
    }
    AutomationReply queryConnectionsWithFilterJSON(const std::string& filter) override {
        return with([&](auto& c) { return c.queryConnectionsWithFilterJSON(filter); });
    }
    AutomationReply exportProfileWithName(const std::string& name) override {
        return with([&](auto& c) { return c.exportProfileWithName(name); });
    }
    AutomationReply importProfileWithJson(const std::string& profile) override {
        return with([&](auto& c) { return c.importProfileWithJson(profile); });
    }

private:
    template <class Operation>
    AutomationReply with(Operation operation) {
        if (!client_) {
            client_ = connectAutomation(socketOption_);
        }
        try {
            return operation(*client_);
        } catch (const kit::AutomationClientError& error) {
            // The service may come back elsewhere (a user's run replaced by
            // the system's): look for it afresh next time.
            if (error.kind() == kit::AutomationClientError::Kind::notRunning) {
                client_.reset();
            }
            throw;
        }
    }

    std::string socketOption_;
    std::unique_ptr<kit::AutomationClient> client_;
};

// stdin and stdout carry the protocol and nothing else; whatever goes wrong
// becomes a JSON-RPC answer, so only the end of stdin ends the server.
int runServe(const McpOptions& options) {
    ServiceLink service(options.socket);
    kit::MCPServer server(service);
    std::string line;
    while (std::getline(std::cin, line)) {
        if (const auto reply = server.handleLine(line)) {
            std::cout << *reply << '\n' << std::flush;
        }
    }
    return exitOK;
}

CLI::App* addClientOptions(CLI::App* command, McpOptions& options, const char* what) {
    command->add_option("--name", options.name, "Name of the server entry (default: veltrane)")
        ->type_name("NAME")
        ->check([](const std::string& name) {
            return name.empty() ? std::string("the name must not be empty") : std::string();
        });
    command
        ->add_option("--client", options.clients,
                     std::string(what) + "; may be repeated. One of: " + knownIDs() +
                         " (default: every client found on this machine)")
        ->type_name("ID");
    command->add_flag("--json", options.json, "Print one JSON array, one object per client");
    return command;
}

} // namespace

void addMcpCommand(CLI::App& app, CommandRunner& runner) {
    auto* mcp = app.add_subcommand(
        "mcp", "Register veltrane's MCP server with AI clients (Claude, Codex, Cursor...), or "
               "run it");
    mcp->require_subcommand(1);

    auto listOptions = std::make_shared<McpOptions>();
    auto* list = mcp->add_subcommand(
        "list", "The AI clients veltrane knows: whether each is on this machine, whether its "
                "configuration holds our server, and which file that is");
    list->add_option("--name", listOptions->name, "Server entry to look for (default: veltrane)")
        ->type_name("NAME");
    list->add_flag("--json", listOptions->json, "Print one JSON array, one object per client");
    list->callback(
        [listOptions, &runner] { runner = [listOptions] { return runList(*listOptions); }; });

    auto installOptions = std::make_shared<McpOptions>();
    auto* install = addClientOptions(
        mcp->add_subcommand("install",
                            "Add the server to AI clients' configuration files, leaving the "
                            "rest of each file as it was; one line per client tells how it went"),
        *installOptions, "Client to register with");
    auto* commandOption =
        install
            ->add_option("--command", installOptions->command,
                         "Program the client starts (default: veltrane, with the arguments "
                         "mcp serve)")
            ->type_name("CMD");
    install
        ->add_option("--arg", installOptions->args,
                     "An argument of --command, in order; repeat for each")
        ->type_name("A")
        ->allow_extra_args(false)
        ->needs(commandOption);
    install->footer("Exits with status 1 when no client was found or one could not be "
                    "registered, 2 for an unknown client.");
    install->callback([installOptions, &runner] {
        runner = [installOptions] { return runInstall(*installOptions); };
    });

    auto uninstallOptions = std::make_shared<McpOptions>();
    auto* uninstall = addClientOptions(
        mcp->add_subcommand("uninstall", "Remove the server entry from AI clients' "
                                         "configuration files, leaving all else in them"),
        *uninstallOptions, "Client to remove it from");
    uninstall->footer("Exits with status 1 when a file could not be rewritten, 2 for an unknown "
                      "client.");
    uninstall->callback([uninstallOptions, &runner] {
        runner = [uninstallOptions] { return runUninstall(*uninstallOptions); };
    });

    auto serveOptions = std::make_shared<McpOptions>();
    auto* serve = mcp->add_subcommand(
        "serve", "Speak the Model Context Protocol on stdin and stdout (what AI clients start): "
                 "the automation service of `veltrane run` and the scanners as tools");
    serve
        ->add_option("--socket", serveOptions->socket,
                     "Automation socket of `veltrane run` (default: the runtime directory's, "
                     "then the system one)")
        ->type_name("PATH");
    serve->footer("Changing tools are offered only while `veltrane run` allows automation to "
                  "change things.");
    serve->callback(
        [serveOptions, &runner] { runner = [serveOptions] { return runServe(*serveOptions); }; });
}

} // namespace veltrane::app
