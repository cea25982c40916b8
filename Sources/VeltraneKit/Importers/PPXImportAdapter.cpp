#include "VeltraneKit/Importers/PPXImportAdapter.hpp"

#include "VeltraneKit/Importers/ImportError.hpp"
#include "VeltraneKit/Localize.hpp"
#include "VeltraneKit/UnicodeText.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <pugixml.hpp>

namespace veltrane::kit {

namespace {

constexpr std::string_view kToolFolder = "proxifier";

bool isValidUTF8(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<unsigned char>(text[i]);
        if (lead < 0x80) {
            ++i;
            continue;
        }
        std::size_t trailing = 0;
        std::uint32_t codePoint = 0;
        if (lead >= 0xC2 && lead <= 0xDF) {
            trailing = 1;
            codePoint = lead & 0x1Fu;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            trailing = 2;
            codePoint = lead & 0x0Fu;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            trailing = 3;
            codePoint = lead & 0x07u;
        } else {
            return false;
        }
        if (text.size() - i <= trailing) {
            return false;
        }
        for (std::size_t k = 1; k <= trailing; ++k) {
            const auto byte = static_cast<unsigned char>(text[i + k]);
            if ((byte & 0xC0u) != 0x80u) {
                return false;
            }
            codePoint = (codePoint << 6) | (byte & 0x3Fu);
        }
        if ((trailing == 2 &&
             (codePoint < 0x800 || (codePoint >= 0xD800 && codePoint <= 0xDFFF))) ||
            (trailing == 3 && (codePoint < 0x10000 || codePoint > 0x10FFFF))) {
            return false;
        }
        i += trailing + 1;
    }
    return true;
}

// Pre-order walk below `top`, without recursion: a hostile document may nest
// deeper than the stack allows.
template <class Visit>
void forEachDescendant(pugi::xml_node top, Visit visit) {
    for (pugi::xml_node node = top.first_child(); node;) {
        visit(node);
        if (pugi::xml_node child = node.first_child()) {
            node = child;
            continue;
        }
        while (node != top && !node.next_sibling()) {
            node = node.parent();
        }
        if (node == top) {
            break;
        }
        node = node.next_sibling();
    }
}

// All the text inside an element, its descendants' included.
std::string textContent(pugi::xml_node element) {
    std::string text;
    forEachDescendant(element, [&](pugi::xml_node node) {
        if (node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata) {
            text += node.value();
        }
    });
    return text;
}

std::optional<std::string> childText(pugi::xml_node element, const char* name) {
    if (pugi::xml_node child = element.child(name)) {
        return textContent(child);
    }
    return std::nullopt;
}

std::optional<std::string> attributeText(pugi::xml_node element, const char* name) {
    if (pugi::xml_attribute attribute = element.attribute(name)) {
        return std::string(attribute.value());
    }
    return std::nullopt;
}

bool isXMLWhitespace(std::string_view text) {
    return text.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

// pugixml is lenient where the XML rules are not; what it lets through that
// the rules forbid is refused here, so that only well-formed documents import.
bool isWellFormed(const pugi::xml_document& document, const pugi::xml_parse_result& result,
                  std::span<const std::uint8_t> data) {
    if (!result) {
        return false;
    }
    // pugixml stops at a NUL in 8-bit text; XML has no such character.
    const bool eightBit =
        result.encoding == pugi::encoding_utf8 || result.encoding == pugi::encoding_latin1;
    if (eightBit && std::find(data.begin(), data.end(), std::uint8_t(0)) != data.end()) {
        return false;
    }
    int elements = 0;
    for (pugi::xml_node node : document.children()) {
        switch (node.type()) {
        case pugi::node_element:
            ++elements;
            break;
        case pugi::node_pcdata:
            if (!isXMLWhitespace(node.value())) {
                return false;
            }
            break;
        case pugi::node_cdata:
            return false;
        default:
            break;
        }
    }
    if (elements != 1) {
        return false;
    }
    bool valid = true;
    std::vector<std::string_view> names;
    forEachDescendant(document, [&](pugi::xml_node node) {
        if (!valid) {
            return;
        }
        if (!isValidUTF8(node.name()) || !isValidUTF8(node.value())) {
            valid = false;
            return;
        }
        names.clear();
        for (pugi::xml_attribute attribute : node.attributes()) {
            if (!isValidUTF8(attribute.name()) || !isValidUTF8(attribute.value())) {
                valid = false;
                return;
            }
            names.emplace_back(attribute.name());
        }
        std::sort(names.begin(), names.end());
        if (std::adjacent_find(names.begin(), names.end()) != names.end()) {
            valid = false;
        }
    });
    return valid;
}

// The source's ports are unsigned 16-bit decimals: an optional sign, digits
// only. A minus sign is allowed as long as the value is zero.
std::optional<std::uint16_t> parsePort(std::string_view text) {
    bool negative = false;
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    if (text.empty()) {
        return std::nullopt;
    }
    std::uint32_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        value = value * 10 + std::uint32_t(c - '0');
        if (value > 65535) {
            return std::nullopt;
        }
    }
    if (negative && value != 0) {
        return std::nullopt;
    }
    return std::uint16_t(value);
}

// Whether the text in upper case begins with "SOCKS". Besides ASCII only the
// long s (U+017F) upper-cases to one of those letters.
bool upperCaseBeginsWithSOCKS(std::string_view text) {
    constexpr std::string_view longS = "\xC5\xBF";
    for (char letter : std::string_view("SOCKS")) {
        if (!text.empty() && (text.front() == letter || text.front() == letter + ('a' - 'A'))) {
            text.remove_prefix(1);
        } else if (letter == 'S' && text.starts_with(longS)) {
            text.remove_prefix(longS.size());
        } else {
            return false;
        }
    }
    return true;
}

// Lower case as the full Unicode mapping has it: the simple mapping turns
// "İ" into a bare "i", the full one keeps its dot, so "CHAİN" is no "chain".
std::string lowerCased(std::string_view text) {
    constexpr std::string_view dottedCapitalI = "\xC4\xB0";
    std::string expanded;
    expanded.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        if (text.substr(i).starts_with(dottedCapitalI)) {
            expanded += "i\xCC\x87";
            i += dottedCapitalI.size();
        } else {
            expanded += text[i++];
        }
    }
    return UnicodeText::lowercased(expanded);
}

RuleAction readAction(pugi::xml_node rule, const std::map<std::string, UUID>& proxyIDs,
                      const std::vector<ProxyServer>& proxies) {
    pugi::xml_node action = rule.child("Action");
    if (!action) {
        return RuleAction::direct();
    }
    const std::string kind =
        lowerCased(attributeText(action, "type").value_or(textContent(action)));
    if (kind.find("block") != std::string::npos) {
        return RuleAction::block();
    }
    if (kind.find("proxy") != std::string::npos || kind.find("chain") != std::string::npos) {
        if (auto target = attributeText(action, "proxy")) {
            if (auto it = proxyIDs.find(*target); it != proxyIDs.end()) {
                return RuleAction::proxy(it->second);
            }
        }
        if (!proxies.empty()) {
            return RuleAction::proxy(proxies.front().id);
        }
    }
    return RuleAction::direct();
}

std::string configDirectory(std::string_view xdgConfigHome) {
    if (!xdgConfigHome.empty() && xdgConfigHome.front() == '/') {
        return std::string(xdgConfigHome);
    }
    return ".config";
}

} // namespace

PPXImportAdapter::PPXImportAdapter()
    : PPXImportAdapter([] {
          const char* value = std::getenv("XDG_CONFIG_HOME");
          return std::string_view(value ? value : "");
      }()) {}

PPXImportAdapter::PPXImportAdapter(std::string_view xdgConfigHome) {
    const std::string config = configDirectory(xdgConfigHome);
    searchPaths_ = {config + "/" + std::string(kToolFolder), config, "", "Documents", "Downloads"};
}

std::vector<std::string> PPXImportAdapter::splitList(std::optional<std::string_view> text) {
    std::vector<std::string> items;
    if (!text) {
        return items;
    }
    std::string_view rest = *text;
    while (true) {
        const std::size_t end = rest.find(';');
        std::string_view piece = rest.substr(0, end);
        const std::size_t first = piece.find_first_not_of(" \t");
        if (first != std::string_view::npos) {
            const std::size_t last = piece.find_last_not_of(" \t");
            items.emplace_back(piece.substr(first, last - first + 1));
        }
        if (end == std::string_view::npos) {
            break;
        }
        rest.remove_prefix(end + 1);
    }
    return items;
}

ImportedConfig PPXImportAdapter::parse(std::span<const std::uint8_t> data) const {
    pugi::xml_document document;
    // Fragment mode keeps text outside the root so that it can be refused;
    // white-space text is kept because the source's values may hold it.
    const auto result = document.load_buffer(
        data.data(), data.size(),
        pugi::parse_default | pugi::parse_ws_pcdata | pugi::parse_fragment, pugi::encoding_auto);
    if (!isWellFormed(document, result, data)) {
        throw ImportError::malformed(RL("不是有效的 XML"));
    }
    const pugi::xml_node root = document.document_element();
    if (!root || std::strcmp(root.name(), "ProxifierProfile") != 0) {
        throw ImportError::unrecognizedFormat();
    }

    ImportedConfig config;
    std::map<std::string, UUID> proxyIDs;
    for (pugi::xml_node list : root.children("ProxyList")) {
        for (pugi::xml_node element : list.children("Proxy")) {
            auto address = childText(element, "Address");
            if (!address || address->empty()) {
                continue;
            }
            const auto portText = childText(element, "Port");
            const auto port = portText ? parsePort(*portText) : std::nullopt;
            if (!port) {
                continue;
            }
            ProxyServer proxy;
            proxy.id = UUID::random();
            proxy.name = *address + ":" + std::to_string(*port);
            proxy.address = std::move(*address);
            proxy.port = *port;
            const auto type = attributeText(element, "type");
            proxy.proto = !type || upperCaseBeginsWithSOCKS(*type) ? ProxyProtocol::socks5
                                                                   : ProxyProtocol::http;
            if (auto key = attributeText(element, "id")) {
                proxyIDs[*key] = proxy.id;
            }
            config.proxies.push_back(std::move(proxy));
        }
    }

    for (pugi::xml_node list : root.children("RuleList")) {
        for (pugi::xml_node element : list.children("Rule")) {
            Rule rule;
            rule.name = childText(element, "Name").value_or("Imported");
            // The guards of the profile it lands in take these two names.
            if (rule.name == "Localhost" || rule.name == "Default") {
                continue;
            }
            rule.id = UUID::random();
            rule.enabled = attributeText(element, "enabled") != "false";
            rule.apps = splitList(childText(element, "Applications"));
            rule.hosts = splitList(childText(element, "Targets"));
            rule.ports = splitList(childText(element, "Ports"));
            rule.transport = FlowTransport::any;
            rule.action = readAction(element, proxyIDs, config.proxies);
            rule.quicPolicy = QUICPolicy::fallback;
            rule.locked = false;
            config.rules.push_back(std::move(rule));
        }
    }
    return config;
}

} // namespace veltrane::kit
