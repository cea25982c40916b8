#pragma once

#include "VeltraneKit/AutomationProtocol/AutomationXPCProtocol.hpp"
#include "VeltraneKit/ConnectionEvent.hpp"
#include "VeltraneKit/Error.hpp"
#include "VeltraneKit/Profile.hpp"
#include "VeltraneKit/ProfileStore/Fingerprint.hpp"
#include "VeltraneKit/StatsSnapshot.hpp"

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace veltrane::kit {

class ProfileStore;

// Why the automation service turned an operation down, besides the errors of
// the store (ProfileStore::StoreError and its file and decoding errors) and
// of the rule action grammar (RuleDTO.hpp), whose texts pass through as they
// are. Each refusal changes nothing.
class AutomationError final : public Error {
public:
    enum class Kind {
        readOnly,            // "automation is read-only here (...)"
        extensionNotRunning, // "the extension is not running or did not answer"
        badDocument,         // "<what> does not read: <detail>"
        missingName,         // "<what> needs a name"
        ruleNotFound,        // "no rule named "<name>""
        ruleExists,          // "a rule named "<name>" exists already"
        ruleLocked,          // "the rule "<name>" is locked: ..."
        proxyExists,         // "a proxy named "<name>" exists already"
        proxyIDExists,       // "a proxy with the id <id> exists already"
        noNetwork,           // "there is no network connection to bind"
        networkNotBindable   // "this network cannot be bound: ..."
    };

    AutomationError(Kind kind, std::string value = {}, std::string detail = {});

    Kind kind() const { return kind_; }
    const std::string& value() const { return value_; }

    std::string domain() const override { return "AutomationError"; }
    int code() const override { return static_cast<int>(kind_); }
    std::string localizedDescription() const override;

private:
    Kind kind_;
    std::string value_;
    std::string detail_;
};

// The automation service itself: the nineteen operations over the profile
// store, and over the running extension through the hooks. `veltrane run`
// serves it on the automation socket (handleAutomationLine); tests call it
// directly.
//
// What the operations work on:
//   - rules, proxies, routes and route tests: the ACTIVE profile; rules are
//     named by `name`, compared ignoring case, the first of equals winning.
//     Locked (guard) rules are listed but never changed or removed here.
//   - listRulesWithSearch: rules whose name, an app or a host holds the
//     search text ignoring case; empty lists all. Data: array of RuleDTO.
//   - addRuleWithJson: a RuleDTO; a new rule after the other unlocked rules.
//     updateRuleWithJson: a RuleDTO replacing the rule of that name: name
//     (its case may change), enabled, apps, hosts, ports and action; id,
//     transport, QUIC policy and tags stay.
//   - setRouteWithApp: `target` in the action grammar ("direct", "block",
//     "proxy:NAME", "chain:NAME", "interface:NAME"), through the profile's
//     rule "App: <app>".
//   - testRouteWithApp: the app name stands for its id, display name and
//     executable; TCP. Data: TestRouteDTO.
//   - queryConnectionsWithFilterJSON: a ConnectionQueryDTO over the running
//     extension's events (app or bundle id, host: substrings ignoring case;
//     sinceMinutes back from now; the newest `limit`, 500 by default). Data:
//     array of ConnectionEvent, oldest first.
//   - listProxiesWithReply: data: the active profile's proxies as in the
//     profile document. addProxyWithJson: one proxy in that form; a missing
//     or null "id" gets a fresh one; a name (ignoring case) or id the profile
//     has already is refused.
//   - createProfileWithName: a new default profile, which becomes active.
//   - switchProfileWithName: makes the profile of that name active.
//   - bindCurrentEnvironmentWithProfileName: binds the named profile to the
//     network the machine is on (a Wi-Fi by its name, a wired network by its
//     gateway's hardware address and subnet); no change when one of the
//     profile's environments matches it already. The text warns when another
//     profile still wins this network.
//   - listEnvironmentsWithReply: data:
//       {"current": <fingerprint>, "matchingProfile": "<name>",
//        "profiles": [{"name": "<name>", "environments": [<environment>...]}]}
//     "current" and "matchingProfile" are left out when there is no network
//     or no profile bound to it; every profile is listed, by name, with its
//     environments as in the profile document.
//   - exportProfileWithName: data: the profile document (one line) of the
//     profile of that name; an empty name exports the active profile (or
//     the one the extension routes by instead, see Hooks::routedProfile).
//   - importProfileWithJson: a profile document saved as a new profile, not
//     made active; a name taken already (ignoring case) fails with the
//     store's duplicate-name error, an id taken already is replaced by a
//     fresh one.
//   - setEnabled: turns redirection on or off through the hook.
//
// Reply texts on success (failures carry the error's description):
//   getStatus         "active profile "<name>", extension running|not running"
//   setEnabled        "redirection on" | "redirection off"
//   listProfiles      "<n> profile(s)"
//   switchProfile     "switched to profile "<name>"" | "profile "<name>" is already active"
//   createProfile     "created profile "<name>" and made it active"
//   listEnvironments  "this network belongs to profile "<name>"" |
//                     "no profile is bound to this network" | "no network connection"
//   bindCurrentEnv.   "bound profile "<name>" to this network (<environment>)" |
//                     "profile "<name>" is bound to this network already",
//                     + "; profile "<other>" comes first on it" when another wins
//   listRules         "<n> rule(s)"
//   addRule           "added rule "<name>""       updateRule "updated rule "<name>""
//   removeRule        "removed rule "<name>""     setRuleEnabled "enabled|disabled rule "<name>""
//   listProxies       "<n> prox(y|ies)"           addProxy "added proxy "<name>""
//   setRoute          "routed "<app>" to <target>"
//   testRoute         the route's description, e.g. "direct"
//   queryConnections  "<n> event(s)"
//   exportProfile     "profile "<name>""          importProfile "imported profile "<name>""
// A change to the active profile that the running extension did not take
// adds " (saved; the extension is not running or did not take it)".
//
// Thread safety: any thread may call any operation. Every read-modify-write
// of the store runs under one lock; the hooks run outside it and may be
// called from several threads at once, except applyToExtension, whose calls
// are strictly one after the other and always carry the active profile as
// stored at that moment, so that the extension ends with the latest one.
// No hook may call back into this object.
class StoreAutomation final : public AutomationXPCProtocol {
public:
    struct Hooks {
        // The running extension's counters and events (through its control
        // service); nullopt or an empty function when it is not running.
        std::function<std::optional<StatsSnapshot>()> stats;
        std::function<std::optional<std::vector<ConnectionEvent>>()> events;
        // Hands the active profile to the running extension whenever the
        // active profile changes: a switch, a create (which switches), and
        // every edit of the active profile (rules, proxies, routes, bound
        // environments). Returns whether the extension took it. Empty when
        // the store is worked on alone, with no extension to tell.
        std::function<bool(const Profile&)> applyToExtension;
        // The profile the extension routes by when that is not the store's
        // active one (a run given a profile file); empty or nullopt: the
        // active one. The status names it, and a route test and the export
        // of "the active profile" go by it, so that they tell what the
        // connections meet.
        std::function<std::optional<Profile>()> routedProfile;
        // The network the machine is on now; nullopt when there is none.
        std::function<std::optional<NetworkEnvironment::Fingerprint>()> currentFingerprint;
        // Turns redirection on or off; returns whether the extension did.
        std::function<bool(bool)> setEnabled;
        // Whether redirection is on, while the extension runs; an empty
        // function counts it on whenever the extension answers.
        std::function<bool()> isEnabled;
        // Whether the extension is installed; an empty function says yes.
        std::function<bool()> extensionInstalled;
        // The clock of the connection query's "sinceMinutes"; the system
        // clock when empty.
        std::function<Timestamp()> now;
        // False refuses every changing operation (setEnabled, switch, create,
        // bind, add/update/remove/enable rule, addProxy, setRoute, import)
        // with AutomationError::readOnly; reads always work. Set by the
        // caller: `veltrane run --automation-read-only` serves with false.
        bool writesAllowed = true;
    };

    StoreAutomation(ProfileStore& store, Hooks hooks);

    AutomationReply getStatusWithReply() override;
    AutomationReply setEnabled(bool enabled) override;
    AutomationReply listProfilesWithReply() override;
    AutomationReply switchProfileWithName(const std::string& name) override;
    AutomationReply createProfileWithName(const std::string& name) override;
    AutomationReply listEnvironmentsWithReply() override;
    AutomationReply bindCurrentEnvironmentWithProfileName(const std::string& name) override;
    AutomationReply listRulesWithSearch(const std::string& search) override;
    AutomationReply addRuleWithJson(const std::string& ruleJSON) override;
    AutomationReply updateRuleWithJson(const std::string& ruleJSON) override;
    AutomationReply removeRuleWithName(const std::string& name) override;
    AutomationReply setRuleEnabledWithName(const std::string& name, bool enabled) override;
    AutomationReply listProxiesWithReply() override;
    AutomationReply addProxyWithJson(const std::string& proxyJSON) override;
    AutomationReply setRouteWithApp(const std::string& app, const std::string& target) override;
    AutomationReply testRouteWithApp(const std::string& app, const std::string& host,
                                     std::uint16_t port) override;
    AutomationReply queryConnectionsWithFilterJSON(const std::string& filterJSON) override;
    AutomationReply exportProfileWithName(const std::string& name) override;
    AutomationReply importProfileWithJson(const std::string& profileJSON) override;

private:
    // A change of the active profile: the new profile and the reply text.
    struct Edit {
        Profile profile;
        std::string text;
    };
    using EditFunction = std::function<Edit(const Profile& active)>;

    void requireWrites() const;
    // Runs `edit` on the active profile under the lock, saves a profile
    // that differs, and hands it to the extension.
    AutomationReply editActive(const EditFunction& edit);
    // The text to add after the active profile changed.
    std::string applyActive();
    std::optional<NetworkEnvironment::Fingerprint> fingerprint() const;
    // The profile in effect: routedProfile's, else the store's active one.
    Profile effectiveProfile() const;

    ProfileStore& store_;
    const Hooks hooks_;
    std::mutex lock_;      // store read-modify-write sequences
    std::mutex applyLock_; // orders applyToExtension calls; held across it
};

} // namespace veltrane::kit
