// "import" fuses another tool's configuration into a profile; "discover"
// finds such configurations on this machine.
#include "../AutomationAccess.hpp"
#include "../Commands.hpp"
#include "VeltraneKit/Importers/ConfigImportScanner.hpp"
#include "VeltraneKit/Importers/ImportError.hpp"
#include "VeltraneKit/Importers/ProfileMerging.hpp"
#include "VeltraneKit/ProfileStore/ProfileStore.hpp"
#include "VerbSupport.hpp"

#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

namespace veltrane::app {
namespace {

struct ImportOptions {
    std::string file;
    std::string into;
    bool json = false;
};

// Merging is no automation operation: the merged profile is saved to the
// store directly, and when it is the active one a running service is told to
// take it again, so that the extension routes by what is stored.
int importConfig(const ImportOptions& o) {
    kit::ImportedConfig imported;
    try {
        imported = kit::ConfigImportScanner().parse(std::filesystem::path(o.file));
    } catch (const kit::ImportError& error) {
        return store::fail(o.file + ": " + error.localizedDescription(), o.json, exitBadInput);
    } catch (const std::filesystem::filesystem_error& error) {
        return store::fail(o.file + ": " + error.code().message(), o.json, exitBadInput);
    }
    return store::withAutomation(o.json, [&](AutomationAccess& access) {
        auto& profiles = access.store();
        const auto target = o.into.empty() ? profiles.activeProfile() : profiles.find(o.into);
        const auto merged = kit::merging(target, imported);
        profiles.save(merged);
        bool isActive = false;
        try {
            isActive = profiles.activeID() == target.id;
        } catch (const kit::Error&) {
        }
        if (const auto taken = access.retakeActive(isActive); !taken.succeeded) {
            return store::finish(taken, o.json);
        }
        const auto proxiesAdded = merged.proxies.size() - target.proxies.size();
        const auto rulesAdded = imported.rules.size();
        if (o.json) {
            store::printJSON({{"profile", target.name},
                              {"proxiesAdded", proxiesAdded},
                              {"rulesAdded", rulesAdded}});
        } else {
            std::cout << "imported " << proxiesAdded << " new proxies and " << rulesAdded
                      << " rules into profile " << target.name << "\n";
        }
        return exitOK;
    });
}

int discover(bool json) {
    const auto found = kit::ConfigImportScanner().discover();
    if (json) {
        auto items = nlohmann::json::array();
        for (const auto& config : found) {
            items.push_back({{"adapterID", config.adapterID},
                             {"displayName", config.displayName},
                             {"id", config.id.uuidString()},
                             {"url", config.url.string()}});
        }
        store::printJSON(items);
        return exitOK;
    }
    if (found.empty()) {
        std::cout << "no importable configuration found\n";
    }
    for (const auto& config : found) {
        std::cout << config.url.string() << "  (" << config.adapterID << ")\n";
    }
    return exitOK;
}

} // namespace

void addImportCommands(CLI::App& app, CommandRunner& runner) {
    auto options = std::make_shared<ImportOptions>();
    auto* importVerb = app.add_subcommand(
        "import", "Merge another tool's configuration (a .ppx profile) into a profile");
    importVerb->add_option("FILE", options->file, "The configuration file, e.g. work.ppx")
        ->required();
    importVerb
        ->add_option("--into", options->into, "Profile to merge into (default: the active one)")
        ->type_name("PROFILE");
    importVerb->add_flag("--json", options->json, "Print what was added as JSON (one line)");
    importVerb->footer("Proxies with the address, port and protocol of one the profile has are "
                       "not added again; imported rules go after your own rules and before the "
                       "Default rule. Exit status: 0 done, 1 refused or failed, 2 a file that "
                       "does not read.");
    importVerb->callback(
        [options, &runner] { runner = [options] { return importConfig(*options); }; });

    auto json = std::make_shared<bool>(false);
    auto* discoverVerb = app.add_subcommand(
        "discover", "List other tools' configurations found in the usual places of your home "
                    "directory, for `veltrane import`");
    discoverVerb->add_flag("--json", *json, "Print the finds as a JSON array (one line)");
    discoverVerb->callback([json, &runner] { runner = [json] { return discover(*json); }; });
}

} // namespace veltrane::app
