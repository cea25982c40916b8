#include "VeltraneKit/Profile.hpp"

#include <algorithm>
#include <utility>

namespace veltrane::kit {

namespace {

constexpr std::string_view kLocalhostName = "Localhost";
constexpr std::string_view kDefaultName = "Default";

bool isLocalhostGuard(const Rule& rule) {
    return rule.locked && rule.name == kLocalhostName;
}

bool isDefaultGuard(const Rule& rule) {
    return rule.locked && rule.name == kDefaultName;
}

template <class T>
std::optional<T> firstWithID(const std::vector<T>& items, const UUID& id) {
    auto it =
        std::find_if(items.begin(), items.end(), [&](const T& item) { return item.id == id; });
    if (it == items.end()) {
        return std::nullopt;
    }
    return *it;
}

} // namespace

std::string_view rawValue(ProxyProtocol value) {
    switch (value) {
    case ProxyProtocol::socks5:
        return "socks5";
    case ProxyProtocol::http:
        return "http";
    }
    return "socks5";
}

std::string_view rawValue(FlowTransport value) {
    switch (value) {
    case FlowTransport::tcp:
        return "tcp";
    case FlowTransport::udp:
        return "udp";
    case FlowTransport::any:
        return "any";
    }
    return "any";
}

std::string_view rawValue(QUICPolicy value) {
    switch (value) {
    case QUICPolicy::proxy:
        return "proxy";
    case QUICPolicy::fallback:
        return "fallback";
    case QUICPolicy::direct:
        return "direct";
    }
    return "fallback";
}

std::optional<ProxyProtocol> proxyProtocolFromRaw(std::string_view text) {
    for (auto value : {ProxyProtocol::socks5, ProxyProtocol::http}) {
        if (rawValue(value) == text) {
            return value;
        }
    }
    return std::nullopt;
}

std::optional<FlowTransport> flowTransportFromRaw(std::string_view text) {
    for (auto value : {FlowTransport::tcp, FlowTransport::udp, FlowTransport::any}) {
        if (rawValue(value) == text) {
            return value;
        }
    }
    return std::nullopt;
}

std::optional<QUICPolicy> quicPolicyFromRaw(std::string_view text) {
    for (auto value : {QUICPolicy::proxy, QUICPolicy::fallback, QUICPolicy::direct}) {
        if (rawValue(value) == text) {
            return value;
        }
    }
    return std::nullopt;
}

std::string ProxyServer::endpointDescription() const {
    return address + ":" + std::to_string(port);
}

Rule Rule::with(const Changes& changes) const {
    Rule copy = *this;
    if (changes.name) {
        copy.name = *changes.name;
    }
    if (changes.enabled) {
        copy.enabled = *changes.enabled;
    }
    if (changes.apps) {
        copy.apps = *changes.apps;
    }
    if (changes.hosts) {
        copy.hosts = *changes.hosts;
    }
    if (changes.ports) {
        copy.ports = *changes.ports;
    }
    if (changes.transport) {
        copy.transport = *changes.transport;
    }
    if (changes.action) {
        copy.action = *changes.action;
    }
    if (changes.quicPolicy) {
        copy.quicPolicy = *changes.quicPolicy;
    }
    if (changes.tags) {
        copy.tags = *changes.tags;
    }
    return copy;
}

std::vector<std::string> DNSSettings::defaultExclusions() {
    return {"localhost", "*.local", "%ComputerName%"};
}

std::vector<Rule> Profile::orderedRules() const {
    std::vector<Rule> ordered;
    ordered.reserve(rules.size());
    for (const auto& rule : rules) {
        if (isLocalhostGuard(rule)) {
            ordered.push_back(rule);
        }
    }
    for (const auto& rule : rules) {
        if (!rule.locked) {
            ordered.push_back(rule);
        }
    }
    for (const auto& rule : rules) {
        if (isDefaultGuard(rule)) {
            ordered.push_back(rule);
        }
    }
    return ordered;
}

Profile Profile::makeDefault(std::string name) {
    Profile profile;
    profile.schemaVersion = currentSchemaVersion;
    profile.id = UUID::random();
    profile.name = std::move(name);
    profile.rules = {localhostGuardRule(), defaultFallbackRule()};
    profile.dns = DNSSettings{true, DNSSettings::defaultExclusions()};
    profile.general = GeneralSettings{true, true};
    return profile;
}

Rule Profile::localhostGuardRule() {
    Rule rule;
    rule.id = UUID::random();
    rule.name = std::string(kLocalhostName);
    rule.enabled = true;
    rule.hosts = {"localhost", "127.0.0.1", "::1", "%ComputerName%"};
    rule.transport = FlowTransport::any;
    rule.action = RuleAction::direct();
    rule.quicPolicy = QUICPolicy::fallback;
    rule.locked = true;
    return rule;
}

Rule Profile::defaultFallbackRule() {
    Rule rule;
    rule.id = UUID::random();
    rule.name = std::string(kDefaultName);
    rule.enabled = true;
    rule.transport = FlowTransport::any;
    rule.action = RuleAction::direct();
    rule.quicPolicy = QUICPolicy::fallback;
    rule.locked = true;
    return rule;
}

Profile Profile::settingRoute(std::string_view app, const RuleAction& action) const {
    const std::string ruleName = "App: " + std::string(app);

    // The middle group holds everything that is not a guard. A locked rule under
    // some other name (only a hand-edited file has one) stays there at its stored
    // place so that nothing is lost, but it is never the rule that gets reused:
    // only an unlocked rule can be edited this way.
    std::vector<Rule> middle;
    for (const auto& rule : rules) {
        if (!isLocalhostGuard(rule) && !isDefaultGuard(rule)) {
            middle.push_back(rule);
        }
    }

    auto existing = std::find_if(middle.begin(), middle.end(), [&](const Rule& rule) {
        return !rule.locked && rule.name == ruleName;
    });
    if (existing != middle.end()) {
        Rule::Changes changes;
        changes.action = action;
        *existing = existing->with(changes);
    } else {
        Rule rule;
        rule.id = UUID::random();
        rule.name = ruleName;
        rule.enabled = true;
        rule.apps = {std::string(app)};
        rule.transport = FlowTransport::any;
        rule.action = action;
        rule.quicPolicy = QUICPolicy::fallback;
        rule.locked = false;
        middle.push_back(std::move(rule));
    }

    std::vector<Rule> result;
    result.reserve(middle.size() + rules.size());
    for (const auto& rule : rules) {
        if (isLocalhostGuard(rule)) {
            result.push_back(rule);
        }
    }
    for (auto& rule : middle) {
        result.push_back(std::move(rule));
    }
    for (const auto& rule : rules) {
        if (isDefaultGuard(rule)) {
            result.push_back(rule);
        }
    }

    Profile copy = *this;
    copy.rules = std::move(result);
    return copy;
}

std::optional<ProxyServer> Profile::proxy(const UUID& id) const {
    return firstWithID(proxies, id);
}

std::optional<ProxyChain> Profile::chain(const UUID& id) const {
    return firstWithID(chains, id);
}

std::optional<Rule> Profile::rule(const UUID& id) const {
    return firstWithID(rules, id);
}

Profile Profile::with(const Changes& changes) const {
    Profile copy = *this;
    if (changes.name) {
        copy.name = *changes.name;
    }
    if (changes.proxies) {
        copy.proxies = *changes.proxies;
    }
    if (changes.chains) {
        copy.chains = *changes.chains;
    }
    if (changes.rules) {
        copy.rules = *changes.rules;
    }
    if (changes.dns) {
        copy.dns = *changes.dns;
    }
    if (changes.general) {
        copy.general = *changes.general;
    }
    if (changes.environments) {
        copy.environments = *changes.environments;
    }
    return copy;
}

} // namespace veltrane::kit
