// "proxy": the proxies of the active profile, listed and added.
#include "../AutomationAccess.hpp"
#include "../Commands.hpp"
#include "VeltraneKit/JSONText.hpp"
#include "VerbSupport.hpp"

#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

namespace veltrane::app {
namespace {

struct ProxyOptions {
    std::string name;
    std::string address;
    std::uint16_t port = 0;
    std::string proto;
    std::optional<std::string> user;
    std::optional<std::string> password;
    bool json = false;
};

// The proxies as the profile document writes them. Passwords stay out of
// the text; --json shows the document as it is.
void printProxies(const nlohmann::json& data) {
    for (const auto& proxy : data) {
        if (!proxy.is_object()) {
            continue;
        }
        std::cout << proxy.value("name", "?") << "  " << proxy.value("proto", "?") << " "
                  << proxy.value("address", "?") << ":" << proxy.value("port", 0);
        if (const auto credentials = proxy.find("credentials");
            credentials != proxy.end() && credentials->is_object()) {
            std::cout << "  user " << credentials->value("username", "");
        }
        std::cout << "\n";
    }
}

int list(const ProxyOptions& o) {
    return store::withAutomation(o.json, [&](AutomationAccess& access) {
        return store::finish(access.operations().listProxiesWithReply(), o.json, printProxies);
    });
}

int add(const ProxyOptions& o) {
    if (o.password && !o.user) {
        return store::fail("--password needs --user", o.json, exitBadInput);
    }
    // The proxy as the profile document has it; the service gives it an id.
    nlohmann::json proxy = {
        {"name", o.name}, {"address", o.address}, {"port", o.port}, {"proto", o.proto}};
    if (o.user) {
        proxy["credentials"] = {{"username", *o.user}, {"password", o.password.value_or("")}};
    }
    return store::withAutomation(o.json, [&](AutomationAccess& access) {
        return store::finish(
            access.operations().addProxyWithJson(kit::dumpEscapingSlashes(proxy, -1)), o.json, {},
            "added proxy " + o.name);
    });
}

} // namespace

void addProxyCommands(CLI::App& app, CommandRunner& runner) {
    auto options = std::make_shared<ProxyOptions>();
    auto* proxy = app.add_subcommand("proxy", "Manage the proxies of the active profile");
    proxy->require_subcommand(1);
    proxy->footer("Rules reach a proxy by its name: --action proxy:NAME. Exit status: 0 done, "
                  "1 refused or failed, 2 bad input.");

    auto* listVerb = proxy->add_subcommand("list", "List the proxies of the active profile");
    listVerb->add_flag("--json", options->json,
                       "Print the proxies as the profile document has them (one line)");
    listVerb->callback([options, &runner] { runner = [options] { return list(*options); }; });

    auto* addVerb = proxy->add_subcommand("add", "Add a proxy to the active profile");
    addVerb->add_option("--name", options->name, "Name of the proxy, unique in the profile")
        ->required();
    addVerb->add_option("--address", options->address, "Host name or IP address")->required();
    addVerb->add_option("--port", options->port, "Port (1-65535)")
        ->required()
        ->check(CLI::Range(1, 65535));
    addVerb->add_option("--proto", options->proto, "Protocol: socks5 or http")
        ->required()
        ->check(CLI::IsMember({"socks5", "http"}));
    addVerb->add_option("--user", options->user, "User name for the proxy's authentication");
    addVerb->add_option("--password", options->password, "Password for that user");
    addVerb->add_flag("--json", options->json, "Print the result as JSON (one line)");
    addVerb->callback([options, &runner] { runner = [options] { return add(*options); }; });
}

} // namespace veltrane::app
