#include "VeltraneKit/AutomationProtocol/RuleDTO.hpp"

#include "VeltraneKit/AutomationProtocol/DTOFields.hpp"
#include "VeltraneKit/DTOCoding.hpp"
#include "VeltraneKit/Importers/ImportError.hpp"
#include "VeltraneKit/ProfileStore/ProfileStore.hpp"
#include "VeltraneKit/UnicodeText.hpp"

#include <nlohmann/json.hpp>

namespace veltrane::kit {

using nlohmann::json;

namespace {

char asciiLower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Whether `text` lower-cased starts with (or, `whole`, is) the ASCII keyword.
// Only ASCII letters lower to the letters of the keywords, except that the
// Kelvin sign lowers to "k".
bool keywordMatches(std::string_view text, std::string_view keyword, bool whole) {
    constexpr std::string_view kelvin = "\xE2\x84\xAA";
    std::size_t i = 0;
    for (char k : keyword) {
        if (k == 'k' && text.substr(i, kelvin.size()) == kelvin) {
            i += kelvin.size();
            continue;
        }
        if (i >= text.size() || asciiLower(text[i]) != k) {
            return false;
        }
        ++i;
    }
    return !whole || i == text.size();
}

std::string_view trimmedBlanks(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) {
        return {};
    }
    const auto last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

template <class Item>
const Item* firstNamed(const std::vector<Item>& items, std::string_view name) {
    for (const auto& item : items) {
        if (UnicodeText::equalsIgnoringCase(item.name, name)) {
            return &item;
        }
    }
    return nullptr;
}

} // namespace

RuleAction ruleActionFromText(std::string_view text, const Profile& profile) {
    if (keywordMatches(text, "direct", true)) {
        return RuleAction::direct();
    }
    if (keywordMatches(text, "block", true)) {
        return RuleAction::block();
    }
    if (keywordMatches(text, "proxy:", false)) {
        const std::string name(text.substr(6));
        if (const auto* proxy = firstNamed(profile.proxies, name)) {
            return RuleAction::proxy(proxy->id);
        }
        throw ProfileStore::StoreError::notFound("代理「" + name + "」");
    }
    if (keywordMatches(text, "chain:", false)) {
        const std::string name(text.substr(6));
        if (const auto* chain = firstNamed(profile.chains, name)) {
            return RuleAction::chain(chain->id);
        }
        throw ProfileStore::StoreError::notFound("代理链「" + name + "」");
    }
    if (keywordMatches(text, "interface:", false)) {
        const auto name = trimmedBlanks(text.substr(10));
        if (name.empty()) {
            throw ImportError::malformed("interface: 后面要跟网卡名，例如 interface:utun4");
        }
        return RuleAction::interface(std::string(name));
    }
    throw ImportError::malformed("未知 action「" + std::string(text) +
                                 "」，应为 direct / block / proxy:<名称> / interface:<网卡名>");
}

std::string ruleActionText(const RuleAction& action, const Profile& profile) {
    if (const auto* proxy = action.as<RuleAction::Proxy>()) {
        const auto found = profile.proxy(proxy->id);
        return "proxy:" + (found ? found->name : std::string("?"));
    }
    if (const auto* chain = action.as<RuleAction::Chain>()) {
        const auto found = profile.chain(chain->id);
        return "chain:" + (found ? found->name : std::string("?"));
    }
    if (const auto* interface = action.as<RuleAction::Interface>()) {
        return "interface:" + interface->name;
    }
    return action.is<RuleAction::Block>() ? "block" : "direct";
}

RuleDTO::RuleDTO(const Rule& rule, const Profile& profile)
    : name(rule.name), enabled(rule.enabled), apps(rule.apps), hosts(rule.hosts), ports(rule.ports),
      action(ruleActionText(rule.action, profile)), locked(rule.locked) {}

Rule RuleDTO::makeRule(const Profile& profile) const {
    Rule rule;
    rule.action = ruleActionFromText(action, profile);
    rule.id = UUID::random();
    rule.name = name;
    rule.enabled = enabled;
    rule.apps = apps;
    rule.hosts = hosts;
    rule.ports = ports;
    rule.transport = FlowTransport::any;
    rule.quicPolicy = QUICPolicy::fallback;
    rule.locked = false;
    return rule;
}

namespace DTOCoding {

json toJSON(const RuleDTO& rule) {
    return json{{"name", rule.name},    {"enabled", rule.enabled}, {"apps", rule.apps},
                {"hosts", rule.hosts},  {"ports", rule.ports},     {"action", rule.action},
                {"locked", rule.locked}};
}

std::optional<RuleDTO> ruleFromJSON(const json& value) {
    RuleDTO rule;
    if (!value.is_object() || !DTOFields::readString(value, "name", rule.name) ||
        !DTOFields::readBool(value, "enabled", rule.enabled) ||
        !DTOFields::readStrings(value, "apps", rule.apps) ||
        !DTOFields::readStrings(value, "hosts", rule.hosts) ||
        !DTOFields::readStrings(value, "ports", rule.ports) ||
        !DTOFields::readString(value, "action", rule.action) ||
        !DTOFields::readBool(value, "locked", rule.locked)) {
        return std::nullopt;
    }
    return rule;
}

std::string encode(const RuleDTO& rule) {
    return encode(toJSON(rule));
}

std::string encode(const std::vector<RuleDTO>& rules) {
    json array = json::array();
    for (const auto& rule : rules) {
        array.push_back(toJSON(rule));
    }
    return encode(array);
}

std::optional<RuleDTO> decodeRule(std::string_view text) {
    auto value = parse(text);
    return value ? ruleFromJSON(*value) : std::nullopt;
}

std::optional<std::vector<RuleDTO>> decodeRules(std::string_view text) {
    return DTOFields::decodeArray<RuleDTO>(text, &ruleFromJSON);
}

} // namespace DTOCoding

} // namespace veltrane::kit
