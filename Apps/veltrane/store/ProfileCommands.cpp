// "profile": the stored profiles, listed, made, copied, removed, switched,
// exported and imported.
#include "../AutomationAccess.hpp"
#include "../Commands.hpp"
#include "VeltraneKit/AutomationProtocol/ProfileSummaryDTO.hpp"
#include "VeltraneKit/JSONText.hpp"
#include "VeltraneKit/ProfileCoding.hpp"
#include "VeltraneKit/ProfileStore/ProfileStore.hpp"
#include "VerbSupport.hpp"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

namespace veltrane::app {
namespace {

using store::finish;

struct ProfileOptions {
    std::string name;
    std::string newName;
    std::string file;
    bool json = false;
};

void printSummaries(const nlohmann::json& data) {
    for (const auto& item : data) {
        const auto summary = kit::DTOCoding::profileSummaryFromJSON(item);
        if (!summary) {
            continue;
        }
        std::cout << (summary->isActive ? "* " : "  ") << summary->name << "  ("
                  << summary->ruleCount << (summary->ruleCount == 1 ? " rule, " : " rules, ")
                  << summary->proxyCount << (summary->proxyCount == 1 ? " proxy" : " proxies");
        if (!summary->boundEnvironments.empty()) {
            std::cout << "; bound to " << store::joined(summary->boundEnvironments);
        }
        std::cout << ")\n";
    }
}

int list(const ProfileOptions& o) {
    return store::withAutomation(o.json, [&](AutomationAccess& access) {
        return finish(access.operations().listProfilesWithReply(), o.json, printSummaries);
    });
}

int create(const ProfileOptions& o) {
    return store::withAutomation(o.json, [&](AutomationAccess& access) {
        return finish(access.operations().createProfileWithName(o.name), o.json, {},
                      "created profile " + o.name);
    });
}

int switchTo(const ProfileOptions& o) {
    return store::withAutomation(o.json, [&](AutomationAccess& access) {
        return finish(access.operations().switchProfileWithName(o.name), o.json, {},
                      "switched to " + o.name);
    });
}

// Copying and removing a profile are not automation operations: they work on
// the store itself. Neither changes the profile that is routed by: a copy is
// never active, and a removal hands the active role on beforehand.
int duplicate(const ProfileOptions& o) {
    return store::withAutomation(o.json, [&](AutomationAccess& access) {
        auto& profiles = access.store();
        const auto source = profiles.find(o.name);
        const auto copy = profiles.duplicate(source.id, o.newName);
        const std::string text = "duplicated " + source.name + " as " + copy.name;
        return finish(kit::AutomationReply::done(text), o.json);
    });
}

int remove(const ProfileOptions& o) {
    return store::withAutomation(o.json, [&](AutomationAccess& access) {
        auto& profiles = access.store();
        const auto victim = profiles.find(o.name);
        const auto all = profiles.list();
        const bool wasActive = [&] {
            try {
                return profiles.activeID() == victim.id;
            } catch (const kit::Error&) {
                return false; // no active profile: none to hand on
            }
        }();
        std::string text = "deleted profile " + victim.name;
        // The active profile is handed on first, through the operations, so
        // that a running extension never routes by a profile that is gone.
        if (wasActive && all.size() >= 2) {
            const auto& successor = all.front().id == victim.id ? all[1] : all.front();
            const auto reply = access.operations().switchProfileWithName(successor.name);
            if (!reply.succeeded) {
                return finish(reply, o.json);
            }
            text += "; active now: " + successor.name;
        }
        profiles.deleteProfile(victim.id); // refuses the last profile
        return finish(kit::AutomationReply::done(text), o.json);
    });
}

int exportProfile(const ProfileOptions& o) {
    return store::withAutomation(o.json, [&](AutomationAccess& access) {
        const auto reply = access.operations().exportProfileWithName(o.name);
        if (o.file.empty() || !reply.succeeded || !reply.data) {
            // To standard output: the document itself, as the store keeps it.
            return finish(reply, o.json, [](const nlohmann::json& data) {
                std::cout << kit::dumpEscapingSlashes(data, 2) << "\n";
            });
        }
        const auto data = nlohmann::json::parse(*reply.data, nullptr, false);
        std::ofstream out(o.file, std::ios::binary | std::ios::trunc);
        out << kit::dumpEscapingSlashes(data, 2) << "\n";
        out.close();
        if (!out) {
            return store::fail(o.file + ": " + std::strerror(errno), o.json, exitUnavailable);
        }
        return finish(kit::AutomationReply::done("exported " + o.name + " to " + o.file), o.json);
    });
}

int importProfile(const ProfileOptions& o) {
    const auto text = store::readInput(o.file);
    if (!text) {
        return exitBadInput;
    }
    // A document that is no profile is refused here, with the place that is
    // wrong, before anything is asked of the service.
    std::optional<kit::ProfileDecodingError> error;
    if (!kit::decodeProfile(std::string_view(*text), &error)) {
        return store::fail(
            o.file + ": " + (error ? error->localizedDescription() : std::string("not a profile")),
            o.json, exitBadInput);
    }
    return store::withAutomation(o.json, [&](AutomationAccess& access) {
        return finish(access.operations().importProfileWithJson(*text), o.json, {},
                      "imported " + o.file);
    });
}

CLI::App* leaf(CLI::App& parent, const std::string& name, const std::string& description,
               const std::shared_ptr<ProfileOptions>& options, CommandRunner& runner,
               int (*work)(const ProfileOptions&)) {
    auto* command = parent.add_subcommand(name, description);
    command->add_flag("--json", options->json,
                      "Print the result as JSON (one line) instead of text");
    command->callback(
        [options, &runner, work] { runner = [options, work] { return work(*options); }; });
    return command;
}

} // namespace

void addProfileCommands(CLI::App& app, CommandRunner& runner) {
    auto options = std::make_shared<ProfileOptions>();
    auto* profile = app.add_subcommand("profile", "Manage the stored profiles");
    profile->require_subcommand(1);
    profile->footer("While `veltrane run` runs, every change goes through it, so that a change "
                    "to the active profile reaches the running extension at once; otherwise "
                    "the profile store is changed directly. Exit status: 0 done, 1 refused or "
                    "failed, 2 bad input.");

    leaf(*profile, "list", "List the profiles; the active one is marked with *", options, runner,
         list);
    leaf(*profile, "create", "Create a default profile and make it the active one", options, runner,
         create)
        ->add_option("NAME", options->name, "Name of the new profile")
        ->required();
    auto* duplicateVerb =
        leaf(*profile, "duplicate", "Copy a profile under a new name, without its environments",
             options, runner, duplicate);
    duplicateVerb->add_option("NAME", options->name, "Profile to copy")->required();
    duplicateVerb->add_option("NEW_NAME", options->newName, "Name of the copy")->required();
    leaf(*profile, "delete",
         "Delete a profile; the last one is kept. Deleting the active one activates another",
         options, runner, remove)
        ->add_option("NAME", options->name, "Profile to delete")
        ->required();
    leaf(*profile, "switch", "Make a profile the active one, and route by it", options, runner,
         switchTo)
        ->add_option("NAME", options->name, "Profile to activate")
        ->required();
    auto* exportVerb =
        leaf(*profile, "export", "Print a profile's JSON document, or write it to a file", options,
             runner, exportProfile);
    exportVerb->add_option("NAME", options->name, "Profile to export (default: the active one)");
    exportVerb->add_option("-o,--output", options->file, "Write the document to this file")
        ->type_name("FILE");
    leaf(*profile, "import",
         "Store a profile JSON document as a new profile (not made active); its name "
         "must be free",
         options, runner, importProfile)
        ->add_option("FILE", options->file, "The profile document; - for standard input")
        ->required();
}

} // namespace veltrane::app
