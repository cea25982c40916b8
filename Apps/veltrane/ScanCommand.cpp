#include "Commands.hpp"
#include "VeltraneKit/DTOCoding.hpp"
#include "VeltraneKit/Discovery/LocalProxyScanner.hpp"
#include "VeltraneKit/Discovery/TunnelInterfaceScanner.hpp"
#include "VeltraneKit/MCPIntegrations/MCPServer.hpp"
#include "mcp/AutomationConnection.hpp"

#include <cstdio>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

namespace veltrane::app {
namespace {

using Json = nlohmann::json;

struct ScanOptions {
    bool json = false;
    bool add = false;
    std::string socket;
};

// Where the active profile already has a proxy: "address:port".
std::set<std::string> knownEndpoints(kit::AutomationClient& client) {
    std::set<std::string> endpoints;
    const auto reply = client.listProxiesWithReply();
    const auto list = reply.data ? kit::DTOCoding::parse(*reply.data) : std::nullopt;
    if (!reply.succeeded || !list || !list->is_array()) {
        return endpoints;
    }
    for (const auto& proxy : *list) {
        if (proxy.is_object() && proxy.value("address", Json()).is_string() &&
            proxy.value("port", Json()).is_number_integer()) {
            endpoints.insert(proxy["address"].get<std::string>() + ":" +
                             std::to_string(proxy["port"].get<long long>()));
        }
    }
    return endpoints;
}

// Adds what the scan found through the running service, so that the store
// and the running extension agree; proxies the profile already has at the
// same address and port are left alone.
int scanAndAdd(const ScanOptions& options) {
    std::unique_ptr<kit::AutomationClient> client;
    std::set<std::string> existing;
    try {
        client = connectAutomation(options.socket);
        existing = knownEndpoints(*client);
    } catch (const kit::AutomationClientError& error) {
        std::cerr << "veltrane: " << error.localizedDescription() << "\n";
        return exitUnavailable;
    }

    const auto proxies = kit::LocalProxyScanner().discoverProxies();
    Json results = Json::array();
    bool allAdded = true;
    for (const auto& proxy : proxies) {
        const auto endpoint = proxy.endpointDescription();
        kit::AutomationReply reply;
        if (existing.count(endpoint)) {
            reply = kit::AutomationReply::done("already in the profile");
        } else {
            try {
                reply = client->addProxyWithJson(kit::encodeProxyServer(proxy));
            } catch (const kit::AutomationClientError& error) {
                reply = kit::AutomationReply::failed(error.localizedDescription());
            }
        }
        allAdded = allAdded && reply.succeeded;
        if (options.json) {
            results.push_back({{"name", proxy.name},
                               {"address", proxy.address},
                               {"port", proxy.port},
                               {"proto", kit::rawValue(proxy.proto)},
                               {"added", reply.succeeded},
                               {"detail", reply.text}});
        } else {
            std::cout << (reply.succeeded ? "added   " : "FAILED  ") << proxy.name << " ("
                      << endpoint << " " << kit::rawValue(proxy.proto) << ")"
                      << (reply.text.empty() ? "" : ": " + reply.text) << "\n";
        }
    }
    if (options.json) {
        std::cout << kit::DTOCoding::encode(results) << "\n";
    } else if (proxies.empty()) {
        std::cout << "No proxy listens on this machine's loopback; nothing to add.\n";
    }
    return allAdded ? exitOK : exitUnavailable;
}

int scanProxies(const ScanOptions& options) {
    if (options.add) {
        return scanAndAdd(options);
    }
    const auto found = kit::LocalProxyScanner().scan();
    if (options.json) {
        Json array = Json::array();
        for (const auto& candidate : found) {
            array.push_back(kit::toJSON(candidate));
        }
        std::cout << kit::DTOCoding::encode(array) << "\n";
        return exitOK;
    }
    if (found.empty()) {
        std::cout << "No proxy listens on this machine's loopback.\n";
        return exitOK;
    }
    std::printf("%-5s  %-8s  %-24s  %s\n", "PORT", "PROTOCOL", "NAME", "PROCESS");
    for (const auto& c : found) {
        std::printf("%-5u  %-8s  %-24s  %s\n", static_cast<unsigned>(c.port),
                    std::string(kit::rawValue(c.proto)).c_str(), c.name.c_str(), c.source.c_str());
    }
    std::fflush(stdout);
    return exitOK;
}

int scanTunnels(const ScanOptions& options) {
    const auto found = kit::TunnelInterfaceScanner().scan();
    if (options.json) {
        Json array = Json::array();
        for (const auto& tunnel : found) {
            array.push_back(kit::toJSON(tunnel));
        }
        std::cout << kit::DTOCoding::encode(array) << "\n";
        return exitOK;
    }
    if (found.empty()) {
        std::cout << "No tunnel interface is up.\n";
        return exitOK;
    }
    std::printf("%-16s  %-15s  %s\n", "INTERFACE", "IPV4", "OWNER");
    for (const auto& t : found) {
        std::string owner = t.ownerName.value_or("-");
        if (t.ownerPath) {
            owner += " (" + *t.ownerPath + (t.isSystemOwned ? ", system)" : ")");
        }
        std::printf("%-16s  %-15s  %s\n", t.name.c_str(), t.ipv4.value_or("-").c_str(),
                    owner.c_str());
    }
    std::fflush(stdout);
    return exitOK;
}

} // namespace

void addScanCommand(CLI::App& app, CommandRunner& runner) {
    auto* scan = app.add_subcommand(
        "scan", "Find what this machine already runs: local proxies and tunnel interfaces");
    scan->require_subcommand(1);

    auto proxyOptions = std::make_shared<ScanOptions>();
    auto* proxies = scan->add_subcommand(
        "proxies", "Find the SOCKS5 and HTTP proxies that listen on loopback, by asking each "
                   "listening port");
    proxies->add_flag("--add", proxyOptions->add,
                      "Add what was found to the active profile, through the running "
                      "`veltrane run` (proxies it already has are skipped)");
    proxies
        ->add_option("--socket", proxyOptions->socket,
                     "Automation socket of `veltrane run` (default: the runtime directory's, "
                     "then the system one)")
        ->type_name("PATH");
    proxies->add_flag("--json", proxyOptions->json, "Print the result as a JSON array");
    proxies->footer("With --add, exits with status 1 when no `veltrane run` serves automation "
                    "or a proxy could not be added.");
    proxies->callback([proxyOptions, &runner] {
        runner = [proxyOptions] { return scanProxies(*proxyOptions); };
    });

    auto tunnelOptions = std::make_shared<ScanOptions>();
    auto* tunnels = scan->add_subcommand(
        "tunnels", "List the tunnel interfaces that are up (VPN, WireGuard, tun/tap) and the "
                   "process holding each, for rules with interface:NAME");
    tunnels->add_flag("--json", tunnelOptions->json, "Print the interfaces as a JSON array");
    tunnels->callback([tunnelOptions, &runner] {
        runner = [tunnelOptions] { return scanTunnels(*tunnelOptions); };
    });
}

} // namespace veltrane::app
