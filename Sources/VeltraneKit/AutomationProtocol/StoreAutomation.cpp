#include "VeltraneKit/AutomationProtocol/StoreAutomation.hpp"

#include "VeltraneKit/AutomationProtocol/ProfileSummaryDTO.hpp"
#include "VeltraneKit/AutomationProtocol/RuleDTO.hpp"
#include "VeltraneKit/AutomationProtocol/StatusDTO.hpp"
#include "VeltraneKit/DTOCoding.hpp"
#include "VeltraneKit/EventRingBuffer.hpp"
#include "VeltraneKit/Localize.hpp"
#include "VeltraneKit/ProfileCoding.hpp"
#include "VeltraneKit/ProfileStore/ProfileStore.hpp"
#include "VeltraneKit/RuleEngine.hpp"
#include "VeltraneKit/TestRouteDTO.hpp"
#include "VeltraneKit/UnicodeText.hpp"

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <type_traits>

namespace veltrane::kit {

using nlohmann::json;
using Kind = AutomationError::Kind;

AutomationError::AutomationError(Kind kind, std::string value, std::string detail)
    : kind_(kind), value_(std::move(value)), detail_(std::move(detail)) {}

std::string AutomationError::localizedDescription() const {
    switch (kind_) {
    case Kind::readOnly:
        return RL("automation is read-only here (the service runs with "
                  "--automation-read-only): nothing was changed");
    case Kind::extensionNotRunning:
        return RL("the extension is not running or did not answer");
    case Kind::badDocument:
        return RL("%@ does not read: %@", {value_, detail_});
    case Kind::missingName:
        return RL("%@ needs a name", {value_});
    case Kind::ruleNotFound:
        return RL("no rule named \"%@\"", {value_});
    case Kind::ruleExists:
        return RL("a rule named \"%@\" exists already", {value_});
    case Kind::ruleLocked:
        return RL("the rule \"%@\" is locked: it guards the profile and cannot be changed here",
                  {value_});
    case Kind::proxyExists:
        return RL("a proxy named \"%@\" exists already", {value_});
    case Kind::proxyIDExists:
        return RL("a proxy with the id %@ exists already", {value_});
    case Kind::noNetwork:
        return RL("there is no network connection to bind");
    case Kind::networkNotBindable:
        return RL("this network cannot be bound: only a Wi-Fi with a known name or a wired "
                  "network with a known gateway or subnet can");
    }
    return value_;
}

namespace {

AutomationReply failure(const std::exception& error) {
    if (const auto* typed = dynamic_cast<const Error*>(&error)) {
        return AutomationReply::failed(typed->localizedDescription());
    }
    return AutomationReply::failed(error.what());
}

// Runs `body`, turning whatever it throws into a failed reply.
template <class Body>
AutomationReply guarded(Body body) {
    try {
        return body();
    } catch (const std::exception& error) {
        return failure(error);
    }
}

std::string inQuotes(const std::string& name) {
    return "\"" + name + "\"";
}

std::string counted(std::size_t n, std::string_view one, std::string_view many) {
    return RL("%lld %@", {static_cast<std::int64_t>(n), std::string(n == 1 ? one : many)});
}

template <class T, class Hook>
std::optional<T> ask(const Hook& hook) {
    if constexpr (std::is_constructible_v<bool, const Hook&>) {
        if (!hook) {
            return std::nullopt;
        }
    }
    try {
        return hook();
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

// The parts of the profile document, for the records that have no coding of
// their own.
json documentPart(const Profile& profile, const char* key) {
    return json::parse(encodeProfile(profile, false)).at(key);
}

std::optional<std::size_t> ruleIndex(const Profile& profile, std::string_view name) {
    for (std::size_t i = 0; i < profile.rules.size(); ++i) {
        if (UnicodeText::equalsIgnoringCase(profile.rules[i].name, name)) {
            return i;
        }
    }
    return std::nullopt;
}

// The index of a changeable rule; throws for a missing or locked one.
std::size_t editableRule(const Profile& profile, std::string_view name) {
    const auto index = ruleIndex(profile, name);
    if (!index) {
        throw AutomationError(Kind::ruleNotFound, std::string(name));
    }
    if (profile.rules[*index].locked) {
        throw AutomationError(Kind::ruleLocked, profile.rules[*index].name);
    }
    return *index;
}

bool ruleMatchesSearch(const Rule& rule, std::string_view search) {
    if (search.empty() || UnicodeText::containsIgnoringCase(rule.name, search)) {
        return true;
    }
    auto holds = [&](const std::vector<std::string>& items) {
        return std::any_of(items.begin(), items.end(), [&](const std::string& item) {
            return UnicodeText::containsIgnoringCase(item, search);
        });
    };
    return holds(rule.apps) || holds(rule.hosts);
}

RuleDTO decodeRuleArgument(const std::string& text) {
    auto rule = DTOCoding::decodeRule(text);
    if (!rule) {
        throw AutomationError(Kind::badDocument, RL("the rule"),
                              RL("it needs the keys name, enabled, apps, hosts, ports, action "
                                 "and locked, each of its own type"));
    }
    if (rule->name.empty()) {
        throw AutomationError(Kind::missingName, RL("a rule"));
    }
    return *rule;
}

ProxyServer decodeProxyArgument(const std::string& text) {
    auto value = DTOCoding::parse(text);
    if (!value || !value->is_object()) {
        throw AutomationError(Kind::badDocument, RL("the proxy"), RL("not a JSON object"));
    }
    if (auto id = value->find("id"); id == value->end() || id->is_null()) {
        (*value)["id"] = UUID::random().uuidString();
    }
    // The proxy is read as the profile document reads it, so that both
    // forms stay one.
    json document = json::parse(encodeProfile(Profile::makeDefault("proxy"), false));
    document["proxies"] = json::array({std::move(*value)});
    std::optional<ProfileDecodingError> error;
    auto holder = decodeProfile(document.dump(), &error);
    if (!holder) {
        std::string detail = error ? error->localizedDescription() : std::string();
        if (detail.rfind("proxies[0]", 0) == 0) {
            detail = RL("proxy") + detail.substr(10);
        }
        throw AutomationError(Kind::badDocument, RL("the proxy"), detail);
    }
    const ProxyServer& proxy = holder->proxies.front();
    if (proxy.name.empty()) {
        throw AutomationError(Kind::missingName, RL("a proxy"));
    }
    // The document form lets any text stand; a proxy without a host or port
    // would only fail every flow routed to it, long after it was added.
    if (proxy.address.find_first_not_of(" \t") == std::string::npos) {
        throw AutomationError(Kind::badDocument, RL("the proxy"),
                              RL("proxy.address: a host name or IP address is needed"));
    }
    if (proxy.port == 0) {
        throw AutomationError(Kind::badDocument, RL("the proxy"),
                              RL("proxy.port: 0 is no port to connect to"));
    }
    return proxy;
}

std::optional<NetworkEnvironment::Kind>
bindableKind(const NetworkEnvironment::Fingerprint& fingerprint, std::string& name) {
    using Type = NetworkEnvironment::Fingerprint::InterfaceType;
    if (fingerprint.interfaceType == Type::wifi && fingerprint.ssid && !fingerprint.ssid->empty()) {
        name = "Wi-Fi " + *fingerprint.ssid;
        return NetworkEnvironment::Wifi{*fingerprint.ssid};
    }
    if (fingerprint.interfaceType == Type::wired &&
        (fingerprint.gatewayMAC || fingerprint.subnet)) {
        name = RL("Wired %@", {fingerprint.subnet.value_or(fingerprint.gatewayMAC.value_or(""))});
        return NetworkEnvironment::Wired{fingerprint.gatewayMAC, fingerprint.subnet};
    }
    return std::nullopt;
}

} // namespace

StoreAutomation::StoreAutomation(ProfileStore& store, Hooks hooks)
    : store_(store), hooks_(std::move(hooks)) {}

void StoreAutomation::requireWrites() const {
    if (!hooks_.writesAllowed) {
        throw AutomationError(Kind::readOnly);
    }
}

std::optional<NetworkEnvironment::Fingerprint> StoreAutomation::fingerprint() const {
    return ask<NetworkEnvironment::Fingerprint>(hooks_.currentFingerprint);
}

Profile StoreAutomation::effectiveProfile() const {
    if (auto routed = ask<Profile>(hooks_.routedProfile)) {
        return std::move(*routed);
    }
    return store_.activeProfile();
}

std::string StoreAutomation::applyActive() {
    if (!hooks_.applyToExtension) {
        return {}; // working on the store alone: nothing runs to be told
    }
    std::lock_guard order(applyLock_);
    bool took = false;
    try {
        // The profile as stored now, not as this caller saved it: a later
        // change may have been saved in between, and it must be the last.
        const Profile latest = store_.activeProfile();
        took = hooks_.applyToExtension && hooks_.applyToExtension(latest);
    } catch (const std::exception&) {
        took = false;
    }
    return took ? std::string() : RL(" (saved; the extension is not running or did not take it)");
}

AutomationReply StoreAutomation::editActive(const EditFunction& edit) {
    return guarded([&] {
        requireWrites();
        std::string text;
        bool changed = false;
        {
            std::lock_guard guard(lock_);
            const Profile active = store_.activeProfile();
            Edit result = edit(active);
            changed = !(result.profile == active);
            if (changed) {
                store_.save(result.profile);
            }
            text = std::move(result.text);
        }
        if (changed) {
            text += applyActive();
        }
        return AutomationReply::done(std::move(text));
    });
}

AutomationReply StoreAutomation::getStatusWithReply() {
    return guarded([&] {
        const auto stats = ask<StatsSnapshot>(hooks_.stats);
        StatusDTO status;
        status.enabled =
            stats.has_value() && (!hooks_.isEnabled || ask<bool>(hooks_.isEnabled).value_or(false));
        status.extensionInstalled =
            !hooks_.extensionInstalled || ask<bool>(hooks_.extensionInstalled).value_or(false);
        status.stats = stats.value_or(StatsSnapshot::empty());
        status.automationWritesAllowed = hooks_.writesAllowed;
        std::string problem;
        try {
            status.activeProfile = effectiveProfile().name;
        } catch (const Error& error) {
            problem = error.localizedDescription();
        }
        if (const auto current = fingerprint()) {
            if (const auto winner = store_.profileMatching(*current)) {
                for (const auto& environment : winner->environments) {
                    if (environment.matches(*current)) {
                        status.currentEnvironment = environment.name;
                        break;
                    }
                }
            }
        }
        std::string text =
            problem.empty()
                ? RL("active profile %@, extension %@",
                     {inQuotes(status.activeProfile), stats ? RL("running") : RL("not running")})
                : problem;
        return AutomationReply::done(std::move(text), DTOCoding::encode(status));
    });
}

AutomationReply StoreAutomation::setEnabled(bool enabled) {
    return guarded([&] {
        requireWrites();
        const bool done = hooks_.setEnabled &&
                          ask<bool>([&] { return hooks_.setEnabled(enabled); }).value_or(false);
        if (!done) {
            throw AutomationError(Kind::extensionNotRunning);
        }
        return AutomationReply::done(enabled ? RL("redirection on") : RL("redirection off"));
    });
}

AutomationReply StoreAutomation::listProfilesWithReply() {
    return guarded([&] {
        std::optional<UUID> active;
        try {
            active = store_.activeID();
        } catch (const Error&) {
            // No readable "active": none is marked.
        }
        std::vector<ProfileSummaryDTO> summaries;
        for (const auto& profile : store_.list()) {
            summaries.emplace_back(profile, active == profile.id);
        }
        return AutomationReply::done(counted(summaries.size(), "profile", "profiles"),
                                     DTOCoding::encode(summaries));
    });
}

AutomationReply StoreAutomation::switchProfileWithName(const std::string& name) {
    return guarded([&] {
        requireWrites();
        Profile target;
        bool already = false;
        {
            std::lock_guard guard(lock_);
            target = store_.find(name);
            std::optional<UUID> active;
            try {
                active = store_.activeID();
            } catch (const Error&) {
            }
            if (active != target.id) {
                store_.setActive(target.id);
            } else {
                already = true;
            }
        }
        // Switching to the active profile hands it over again: the way a
        // change saved to the store by other means reaches the extension.
        if (already) {
            return AutomationReply::done(
                RL("profile %@ is already active", {inQuotes(target.name)}) + applyActive());
        }
        return AutomationReply::done(RL("switched to profile %@", {inQuotes(target.name)}) +
                                     applyActive());
    });
}

AutomationReply StoreAutomation::createProfileWithName(const std::string& name) {
    return guarded([&] {
        requireWrites();
        if (name.empty()) {
            throw AutomationError(Kind::missingName, RL("a profile"));
        }
        Profile created;
        {
            std::lock_guard guard(lock_);
            created = store_.create(name);
            store_.setActive(created.id);
        }
        return AutomationReply::done(
            RL("created profile %@ and made it active", {inQuotes(created.name)}) + applyActive());
    });
}

AutomationReply StoreAutomation::listEnvironmentsWithReply() {
    return guarded([&] {
        json document{{"profiles", json::array()}};
        std::string text = RL("no network connection");
        if (const auto current = fingerprint()) {
            document["current"] = toJSON(*current);
            text = RL("no profile is bound to this network");
            if (const auto winner = store_.profileMatching(*current)) {
                document["matchingProfile"] = winner->name;
                text = RL("this network belongs to profile %@", {inQuotes(winner->name)});
            }
        }
        for (const auto& profile : store_.list()) {
            document["profiles"].push_back(
                {{"name", profile.name}, {"environments", documentPart(profile, "environments")}});
        }
        return AutomationReply::done(std::move(text), DTOCoding::encode(document));
    });
}

AutomationReply StoreAutomation::bindCurrentEnvironmentWithProfileName(const std::string& name) {
    return guarded([&] {
        requireWrites();
        const auto current = fingerprint();
        if (!current) {
            throw AutomationError(Kind::noNetwork);
        }
        std::string environmentName;
        const auto kind = bindableKind(*current, environmentName);
        if (!kind) {
            throw AutomationError(Kind::networkNotBindable);
        }
        Profile profile;
        bool changed = false;
        bool isActive = false;
        {
            std::lock_guard guard(lock_);
            profile = store_.find(name);
            const bool bound =
                std::any_of(profile.environments.begin(), profile.environments.end(),
                            [&](const NetworkEnvironment& e) { return e.matches(*current); });
            if (!bound) {
                auto environments = profile.environments;
                environments.push_back(NetworkEnvironment{UUID::random(), environmentName, *kind});
                profile = profile.with({.environments = std::move(environments)});
                store_.save(profile);
                changed = true;
            }
            try {
                isActive = store_.activeID() == profile.id;
            } catch (const Error&) {
            }
        }
        std::string text =
            changed ? RL("bound profile %@ to this network (%@)",
                         {inQuotes(profile.name), environmentName})
                    : RL("profile %@ is bound to this network already", {inQuotes(profile.name)});
        if (const auto winner = store_.profileMatching(*current);
            winner && winner->id != profile.id) {
            text += RL("; profile %@ comes first on it", {inQuotes(winner->name)});
        }
        if (changed && isActive) {
            text += applyActive();
        }
        return AutomationReply::done(std::move(text));
    });
}

AutomationReply StoreAutomation::listRulesWithSearch(const std::string& search) {
    return guarded([&] {
        const Profile active = store_.activeProfile();
        std::vector<RuleDTO> rules;
        for (const auto& rule : active.rules) {
            if (ruleMatchesSearch(rule, search)) {
                rules.emplace_back(rule, active);
            }
        }
        return AutomationReply::done(counted(rules.size(), "rule", "rules"),
                                     DTOCoding::encode(rules));
    });
}

AutomationReply StoreAutomation::addRuleWithJson(const std::string& ruleJSON) {
    return editActive([&](const Profile& active) {
        const RuleDTO dto = decodeRuleArgument(ruleJSON);
        if (const auto index = ruleIndex(active, dto.name)) {
            throw AutomationError(Kind::ruleExists, active.rules[*index].name);
        }
        auto rules = active.rules;
        // After the other unlocked rules, where the guard "Default" would
        // stand anyway: the stored order then reads as the evaluated one.
        auto at = std::find_if(rules.begin(), rules.end(),
                               [](const Rule& r) { return r.locked && r.name == "Default"; });
        rules.insert(at, dto.makeRule(active));
        return Edit{active.with({.rules = std::move(rules)}),
                    RL("added rule %@", {inQuotes(dto.name)})};
    });
}

AutomationReply StoreAutomation::updateRuleWithJson(const std::string& ruleJSON) {
    return editActive([&](const Profile& active) {
        const RuleDTO dto = decodeRuleArgument(ruleJSON);
        const std::size_t index = editableRule(active, dto.name);
        const Rule made = dto.makeRule(active);
        auto rules = active.rules;
        rules[index] = rules[index].with({.name = dto.name,
                                          .enabled = dto.enabled,
                                          .apps = dto.apps,
                                          .hosts = dto.hosts,
                                          .ports = dto.ports,
                                          .action = made.action});
        return Edit{active.with({.rules = std::move(rules)}),
                    RL("updated rule %@", {inQuotes(dto.name)})};
    });
}

AutomationReply StoreAutomation::removeRuleWithName(const std::string& name) {
    return editActive([&](const Profile& active) {
        const std::size_t index = editableRule(active, name);
        auto rules = active.rules;
        const std::string removed = rules[index].name;
        rules.erase(rules.begin() + static_cast<std::ptrdiff_t>(index));
        return Edit{active.with({.rules = std::move(rules)}),
                    RL("removed rule %@", {inQuotes(removed)})};
    });
}

AutomationReply StoreAutomation::setRuleEnabledWithName(const std::string& name, bool enabled) {
    return editActive([&](const Profile& active) {
        const std::size_t index = editableRule(active, name);
        auto rules = active.rules;
        rules[index] = rules[index].with({.enabled = enabled});
        const std::string text = enabled ? RL("enabled rule %@", {inQuotes(rules[index].name)})
                                         : RL("disabled rule %@", {inQuotes(rules[index].name)});
        return Edit{active.with({.rules = std::move(rules)}), text};
    });
}

AutomationReply StoreAutomation::listProxiesWithReply() {
    return guarded([&] {
        const Profile active = store_.activeProfile();
        return AutomationReply::done(counted(active.proxies.size(), "proxy", "proxies"),
                                     DTOCoding::encode(documentPart(active, "proxies")));
    });
}

AutomationReply StoreAutomation::addProxyWithJson(const std::string& proxyJSON) {
    return editActive([&](const Profile& active) {
        const ProxyServer proxy = decodeProxyArgument(proxyJSON);
        for (const auto& existing : active.proxies) {
            if (UnicodeText::equalsIgnoringCase(existing.name, proxy.name)) {
                throw AutomationError(Kind::proxyExists, existing.name);
            }
            if (existing.id == proxy.id) {
                throw AutomationError(Kind::proxyIDExists, proxy.id.uuidString());
            }
        }
        auto proxies = active.proxies;
        proxies.push_back(proxy);
        return Edit{active.with({.proxies = std::move(proxies)}),
                    RL("added proxy %@", {inQuotes(proxy.name)})};
    });
}

AutomationReply StoreAutomation::setRouteWithApp(const std::string& app,
                                                 const std::string& target) {
    return editActive([&](const Profile& active) {
        if (app.empty()) {
            throw AutomationError(Kind::missingName, RL("the application"));
        }
        const RuleAction action = ruleActionFromText(target, active);
        return Edit{active.settingRoute(app, action),
                    RL("routed %@ to %@", {inQuotes(app), ruleActionText(action, active)})};
    });
}

AutomationReply StoreAutomation::testRouteWithApp(const std::string& app, const std::string& host,
                                                  std::uint16_t port) {
    return guarded([&] {
        AppIdentity identity;
        identity.bundleID = app;
        identity.displayName = app;
        identity.executableName = app;
        const RuleEngine engine(effectiveProfile());
        const TestRouteDTO dto(engine.match(identity, host, port, FlowTransport::tcp));
        return AutomationReply::done(dto.action, dto.json());
    });
}

AutomationReply StoreAutomation::queryConnectionsWithFilterJSON(const std::string& filterJSON) {
    return guarded([&] {
        const auto query = DTOCoding::decodeQuery(filterJSON);
        if (!query) {
            throw AutomationError(Kind::badDocument, RL("the connection query"),
                                  RL("it takes the optional keys app, host (text), sinceMinutes "
                                     "and limit (whole numbers)"));
        }
        auto events = ask<std::vector<ConnectionEvent>>(hooks_.events);
        if (!events) {
            throw AutomationError(Kind::extensionNotRunning);
        }
        const Timestamp now = hooks_.now ? hooks_.now() : std::chrono::system_clock::now();
        auto selected = EventRingBuffer::filter(std::move(*events), query->app, query->host,
                                                query->since(now), query->effectiveLimit());
        auto data = DTOCoding::encode(selected);
        if (!data) {
            throw AutomationError(Kind::badDocument, RL("an event"), RL("it has no JSON form"));
        }
        return AutomationReply::done(counted(selected.size(), "event", "events"), std::move(data));
    });
}

AutomationReply StoreAutomation::exportProfileWithName(const std::string& name) {
    return guarded([&] {
        const Profile profile = name.empty() ? effectiveProfile() : store_.find(name);
        return AutomationReply::done(RL("profile %@", {inQuotes(profile.name)}),
                                     encodeProfile(profile, false));
    });
}

AutomationReply StoreAutomation::importProfileWithJson(const std::string& profileJSON) {
    return guarded([&] {
        requireWrites();
        std::optional<ProfileDecodingError> error;
        auto profile = decodeProfile(std::string_view(profileJSON), &error);
        if (!profile) {
            throw AutomationError(Kind::badDocument, RL("the profile"),
                                  error ? error->localizedDescription() : std::string());
        }
        if (profile->name.empty()) {
            throw AutomationError(Kind::missingName, RL("a profile"));
        }
        std::lock_guard guard(lock_);
        bool taken = true;
        try {
            store_.find(profile->name);
        } catch (const ProfileStore::StoreError&) {
            taken = false;
        }
        if (taken) {
            throw ProfileStore::StoreError::duplicateName(profile->name);
        }
        std::error_code ignored;
        if (std::filesystem::exists(store_.profilePath(profile->id), ignored)) {
            profile->id = UUID::random();
        }
        store_.save(*profile);
        return AutomationReply::done(RL("imported profile %@", {inQuotes(profile->name)}));
    });
}

} // namespace veltrane::kit
