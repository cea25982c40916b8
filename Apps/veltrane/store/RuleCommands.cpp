// "rule": the rules of the active profile, listed, added, changed, removed,
// switched on and off.
#include "../AutomationAccess.hpp"
#include "../Commands.hpp"
#include "VeltraneKit/AutomationProtocol/RuleDTO.hpp"
#include "VeltraneKit/Matchers.hpp"
#include "VeltraneKit/UnicodeText.hpp"
#include "VerbSupport.hpp"

#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

namespace veltrane::app {
namespace {

using store::finish;

struct RuleOptions {
    std::string name;   // the rule a verb acts on
    std::string search; // list
    std::string jsonInput;
    // The fields given as flags; unset ones are left as they are.
    std::optional<std::string> newName;
    std::optional<std::vector<std::string>> apps;
    std::optional<std::vector<std::string>> hosts;
    std::optional<std::vector<std::string>> ports;
    std::optional<std::string> action;
    bool disabled = false;
    bool enabled = false;
    bool json = false;
};

std::string describe(const kit::RuleDTO& rule) {
    std::string line = rule.name + "  → " + rule.action;
    if (!rule.apps.empty()) {
        line += "  apps: " + store::joined(rule.apps);
    }
    if (!rule.hosts.empty()) {
        line += "  hosts: " + store::joined(rule.hosts);
    }
    if (!rule.ports.empty()) {
        line += "  ports: " + store::joined(rule.ports);
    }
    return line;
}

void printRules(const nlohmann::json& data) {
    for (const auto& item : data) {
        if (const auto rule = kit::DTOCoding::ruleFromJSON(item)) {
            std::cout << (rule->enabled ? "on   " : "off  ") << (rule->locked ? "locked  " : "")
                      << describe(*rule) << "\n";
        }
    }
}

// The flags laid over `rule`.
void applyFlags(const RuleOptions& o, kit::RuleDTO& rule) {
    if (o.newName) {
        rule.name = *o.newName;
    }
    if (o.apps) {
        rule.apps = *o.apps;
    }
    if (o.hosts) {
        rule.hosts = *o.hosts;
    }
    if (o.ports) {
        rule.ports = *o.ports;
    }
    if (o.action) {
        rule.action = *o.action;
    }
    if (o.disabled) {
        rule.enabled = false;
    } else if (o.enabled) {
        rule.enabled = true;
    }
}

// The rule of --json-input, or nullopt after one line (bad input).
std::optional<kit::RuleDTO> ruleFromInput(const RuleOptions& o) {
    const auto text = store::readInput(o.jsonInput);
    if (!text) {
        return std::nullopt;
    }
    auto rule = kit::DTOCoding::decodeRule(*text);
    if (!rule) {
        store::fail(o.jsonInput +
                        ": not a rule (an object with name, enabled, apps, hosts, ports, action "
                        "and locked)",
                    o.json, exitBadInput);
    }
    return rule;
}

int list(const RuleOptions& o) {
    return store::withAutomation(o.json, [&](AutomationAccess& access) {
        return finish(access.operations().listRulesWithSearch(o.search), o.json, printRules);
    });
}

int add(const RuleOptions& o) {
    kit::RuleDTO rule;
    if (!o.jsonInput.empty()) {
        auto input = ruleFromInput(o);
        if (!input) {
            return exitBadInput;
        }
        rule = std::move(*input);
    } else {
        if (!o.newName || !o.action) {
            return store::fail("rule add needs --name and --action (or --json-input)", o.json,
                               exitBadInput);
        }
        applyFlags(o, rule);
    }
    return store::withAutomation(o.json, [&](AutomationAccess& access) {
        return finish(access.operations().addRuleWithJson(kit::DTOCoding::encode(rule)), o.json, {},
                      "added rule " + rule.name);
    });
}

int update(const RuleOptions& o) {
    std::optional<kit::RuleDTO> input;
    if (!o.jsonInput.empty()) {
        if (!(input = ruleFromInput(o))) {
            return exitBadInput;
        }
        if (!o.name.empty() && !kit::UnicodeText::equalsIgnoringCase(input->name, o.name)) {
            return store::fail("the document is the rule " + input->name + ", not " + o.name,
                               o.json, exitBadInput);
        }
    } else if (o.name.empty()) {
        return store::fail("rule update needs the rule's NAME (or --json-input)", o.json,
                           exitBadInput);
    }
    return store::withAutomation(o.json, [&](AutomationAccess& access) {
        kit::RuleDTO rule;
        if (input) {
            rule = std::move(*input);
        } else {
            // Flags change only what they name: start from the stored rule.
            const auto reply = access.operations().listRulesWithSearch(o.name);
            if (!reply.succeeded) {
                return finish(reply, o.json);
            }
            const auto rules = kit::DTOCoding::decodeRules(reply.data.value_or("[]"))
                                   .value_or(std::vector<kit::RuleDTO>{});
            const kit::RuleDTO* found = nullptr;
            for (const auto& candidate : rules) {
                if (kit::UnicodeText::equalsIgnoringCase(candidate.name, o.name)) {
                    found = &candidate;
                    break;
                }
            }
            if (!found) {
                return store::fail("no rule named " + o.name, o.json, exitUnavailable);
            }
            rule = *found;
            applyFlags(o, rule);
        }
        return finish(access.operations().updateRuleWithJson(kit::DTOCoding::encode(rule)), o.json,
                      {}, "updated rule " + rule.name);
    });
}

int remove(const RuleOptions& o) {
    return store::withAutomation(o.json, [&](AutomationAccess& access) {
        return finish(access.operations().removeRuleWithName(o.name), o.json, {},
                      "removed rule " + o.name);
    });
}

int enable(const RuleOptions& o) {
    return store::withAutomation(o.json, [&](AutomationAccess& access) {
        return finish(access.operations().setRuleEnabledWithName(o.name, true), o.json, {},
                      "enabled rule " + o.name);
    });
}

int disable(const RuleOptions& o) {
    return store::withAutomation(o.json, [&](AutomationAccess& access) {
        return finish(access.operations().setRuleEnabledWithName(o.name, false), o.json, {},
                      "disabled rule " + o.name);
    });
}

CLI::App* leaf(CLI::App& parent, const std::string& name, const std::string& description,
               const std::shared_ptr<RuleOptions>& options, CommandRunner& runner,
               int (*work)(const RuleOptions&)) {
    auto* command = parent.add_subcommand(name, description);
    command->add_flag("--json", options->json,
                      "Print the result as JSON (one line) instead of text");
    command->callback(
        [options, &runner, work] { runner = [options, work] { return work(*options); }; });
    return command;
}

// The flags that describe a rule, for add and update. An update names its
// rule by NAME and cannot rename it.
void addRuleFlags(CLI::App& command, RuleOptions& o, bool withName) {
    // An empty pattern is dropped, and a list left empty matches anything:
    // `--host "$UNSET"` would make the rule match every host. One of blanks
    // only matches nothing: a mistake as well.
    const CLI::Validator notBlank(
        [](const std::string& text) {
            return text.find_first_not_of(" \t") == std::string::npos
                       ? std::string("a pattern cannot be empty or blank")
                       : std::string();
        },
        "PATTERN");
    auto* input = command.add_option("--json-input", o.jsonInput,
                                     "Take the whole rule from a JSON file (- for standard "
                                     "input): name, enabled, apps, hosts, ports, action, locked");
    input->type_name("FILE|-");
    if (withName) {
        command.add_option("--name", o.newName, "Name of the rule")->excludes(input);
    }
    for (auto* flag : {
             command
                 .add_option("--app", o.apps,
                             "Application pattern (repeatable): bundle id, name or path, "
                             "* and ? as wildcards")
                 ->check(notBlank),
             command
                 .add_option("--host", o.hosts,
                             "Host pattern (repeatable): name with wildcards, IPv4 address, "
                             "range a-b or CIDR")
                 ->check(notBlank),
             command
                 .add_option("--port", o.ports,
                             "Port pattern (repeatable): a port or a range such as 8000-8100")
                 // The engine drops a port it cannot read, and a rule whose
                 // ports all went matches every port: a typo would widen it.
                 ->check(CLI::Validator(
                     [](const std::string& text) {
                         return kit::PortPattern::parse(text)
                                    ? std::string()
                                    : "\"" + text + "\" is not a port or a range of ports";
                     },
                     "PORT|LOW-HIGH")),
             command.add_option("--action", o.action,
                                "direct, block, proxy:NAME, chain:NAME or interface:NAME"),
             command.add_flag("--disabled", o.disabled, "Keep the rule switched off"),
         }) {
        flag->excludes(input);
    }
}

} // namespace

void addRuleCommands(CLI::App& app, CommandRunner& runner) {
    auto options = std::make_shared<RuleOptions>();
    auto* rule = app.add_subcommand("rule", "Manage the rules of the active profile");
    rule->require_subcommand(1);
    rule->footer("Rules are tried in order: the locked Localhost guard, your rules, then the "
                 "locked Default rule. While `veltrane run` runs, every change reaches the "
                 "running extension at once. Exit status: 0 done, 1 refused or failed, 2 bad "
                 "input.");

    leaf(*rule, "list", "List the rules in the order they are tried", options, runner, list)
        ->add_option("--search", options->search,
                     "Only rules whose name, patterns or action contain this text");
    auto* addVerb = leaf(*rule, "add",
                         "Add a rule before the Default rule: --name and --action, or "
                         "--json-input",
                         options, runner, add);
    addRuleFlags(*addVerb, *options, true);
    auto* updateVerb =
        leaf(*rule, "update",
             "Change a rule: the flags given replace those fields (--app, --host and --port "
             "replace the whole list; to empty one, use --json-input), or --json-input "
             "replaces all but its id, transport, QUIC policy and tags",
             options, runner, update);
    updateVerb->add_option("NAME", options->name,
                           "The rule to change (any case); with --json-input, the document's "
                           "name says which");
    addRuleFlags(*updateVerb, *options, false);
    updateVerb->add_flag("--enabled", options->enabled, "Switch the rule on")
        ->excludes("--disabled")
        ->excludes("--json-input");
    leaf(*rule, "remove", "Remove a rule (locked rules stay)", options, runner, remove)
        ->add_option("NAME", options->name, "The rule to remove")
        ->required();
    leaf(*rule, "enable", "Switch a rule on", options, runner, enable)
        ->add_option("NAME", options->name, "The rule to switch on")
        ->required();
    leaf(*rule, "disable", "Switch a rule off", options, runner, disable)
        ->add_option("NAME", options->name, "The rule to switch off")
        ->required();
}

} // namespace veltrane::app
