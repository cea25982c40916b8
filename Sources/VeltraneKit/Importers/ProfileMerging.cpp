#include "VeltraneKit/Importers/ProfileMerging.hpp"

#include <algorithm>
#include <map>

namespace veltrane::kit {

namespace {

bool isGuard(const Rule& rule, std::string_view name) {
    return rule.locked && rule.name == name;
}

bool sameEndpoint(const ProxyServer& a, const ProxyServer& b) {
    return a.address == b.address && a.port == b.port && a.proto == b.proto;
}

} // namespace

Profile merging(const Profile& profile, const ImportedConfig& imported) {
    std::vector<ProxyServer> proxies = profile.proxies;
    std::map<UUID, UUID> replacedBy;
    for (const auto& proxy : imported.proxies) {
        const auto existing = std::find_if(proxies.begin(), proxies.end(),
                                           [&](const auto& p) { return sameEndpoint(p, proxy); });
        if (existing != proxies.end()) {
            replacedBy[proxy.id] = existing->id;
        } else {
            proxies.push_back(proxy);
        }
    }

    std::vector<Rule> rules;
    rules.reserve(profile.rules.size() + imported.rules.size());
    for (const auto& rule : profile.rules) {
        if (isGuard(rule, "Localhost")) {
            rules.push_back(rule);
        }
    }
    for (const auto& rule : profile.rules) {
        if (!isGuard(rule, "Localhost") && !isGuard(rule, "Default")) {
            rules.push_back(rule);
        }
    }
    for (const auto& rule : imported.rules) {
        const auto* target = rule.action.as<RuleAction::Proxy>();
        const auto mapped = target ? replacedBy.find(target->id) : replacedBy.end();
        if (mapped != replacedBy.end()) {
            Rule::Changes changes;
            changes.action = RuleAction::proxy(mapped->second);
            rules.push_back(rule.with(changes));
        } else {
            rules.push_back(rule);
        }
    }
    for (const auto& rule : profile.rules) {
        if (isGuard(rule, "Default")) {
            rules.push_back(rule);
        }
    }

    Profile merged = profile;
    merged.proxies = std::move(proxies);
    merged.rules = std::move(rules);
    return merged;
}

} // namespace veltrane::kit
