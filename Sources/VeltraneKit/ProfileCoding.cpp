#include "VeltraneKit/ProfileCoding.hpp"

#include "VeltraneKit/JSONText.hpp"

#include <cmath>
#include <initializer_list>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

namespace veltrane::kit {

using Json = nlohmann::json;
using Kind = ProfileDecodingError::Kind;

ProfileDecodingError::ProfileDecodingError(Kind kind, std::string path, std::string detail)
    : kind_(kind), path_(std::move(path)), detail_(std::move(detail)) {}

std::string ProfileDecodingError::localizedDescription() const {
    if (kind_ == Kind::syntax) {
        return "profile is not valid JSON: " + detail_;
    }
    // A missing or null key is told from the record that should hold it; the
    // detail already names the key.
    std::string where = path_;
    if (kind_ == Kind::keyNotFound || kind_ == Kind::valueNotFound) {
        auto dot = where.rfind('.');
        where = dot == std::string::npos ? std::string() : where.substr(0, dot);
    }
    if (where.empty()) {
        where = "profile";
    }
    return where + ": " + detail_;
}

namespace {

// ---------------------------------------------------------------- reading

std::string child(const std::string& path, std::string_view key) {
    if (path.empty()) {
        return std::string(key);
    }
    return path + "." + std::string(key);
}

std::string element(const std::string& path, std::size_t index) {
    return path + "[" + std::to_string(index) + "]";
}

[[noreturn]] void fail(Kind kind, std::string path, std::string detail) {
    throw ProfileDecodingError(kind, std::move(path), std::move(detail));
}

std::string typeName(const Json& value) {
    if (value.is_boolean()) {
        return "a boolean";
    }
    if (value.is_number()) {
        return "a number";
    }
    if (value.is_string()) {
        return "a string";
    }
    if (value.is_array()) {
        return "an array";
    }
    if (value.is_object()) {
        return "an object";
    }
    return "null";
}

[[noreturn]] void mismatch(const Json& value, const std::string& path, std::string_view expected) {
    fail(Kind::typeMismatch, path,
         "expected " + std::string(expected) + ", found " + typeName(value));
}

// Quotes user text for a message, shortened so that one bad value cannot
// flood a log line.
std::string quotedText(const std::string& text) {
    constexpr std::size_t limit = 64;
    if (text.size() <= limit) {
        return "\"" + text + "\"";
    }
    std::size_t cut = limit;
    // Do not split a UTF-8 sequence.
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) {
        --cut;
    }
    return "\"" + text.substr(0, cut) + "...\"";
}

const Json& requireObject(const Json& value, const std::string& path) {
    if (!value.is_object()) {
        mismatch(value, path, "an object");
    }
    return value;
}

const Json& required(const Json& object, const std::string& path, std::string_view key) {
    auto it = object.find(key);
    if (it == object.end()) {
        fail(Kind::keyNotFound, child(path, key),
             "required key \"" + std::string(key) + "\" is missing");
    }
    if (it->is_null()) {
        fail(Kind::valueNotFound, child(path, key),
             "required key \"" + std::string(key) + "\" is null");
    }
    return *it;
}

// Missing and null both mean absent.
const Json* optional(const Json& object, std::string_view key) {
    auto it = object.find(key);
    if (it == object.end() || it->is_null()) {
        return nullptr;
    }
    return &*it;
}

std::string readString(const Json& value, const std::string& path) {
    if (!value.is_string()) {
        mismatch(value, path, "a string");
    }
    return value.get<std::string>();
}

bool readBool(const Json& value, const std::string& path) {
    if (!value.is_boolean()) {
        mismatch(value, path, "a boolean");
    }
    return value.get<bool>();
}

// A JSON number that holds a whole value in [low, high]. A number written
// with a fraction or exponent counts when its value is whole ("80.0", "1e2").
template <class Int>
Int readInteger(const Json& value, const std::string& path, Int low, Int high,
                std::string_view what) {
    if (!value.is_number()) {
        mismatch(value, path, "a number");
    }
    auto outOfRange = [&]() {
        fail(Kind::dataCorrupted, path,
             "expected " + std::string(what) + ", found " + value.dump());
    };
    if (value.is_number_unsigned()) {
        auto v = value.get<std::uint64_t>();
        if (low > 0 && v < static_cast<std::uint64_t>(low)) {
            outOfRange();
        }
        if (v > static_cast<std::uint64_t>(high)) {
            outOfRange();
        }
        return static_cast<Int>(v);
    }
    if (value.is_number_integer()) {
        auto v = value.get<std::int64_t>();
        if (v < static_cast<std::int64_t>(low) || v > static_cast<std::int64_t>(high)) {
            outOfRange();
        }
        return static_cast<Int>(v);
    }
    double v = value.get<double>();
    // high + 1 is exact in a double for both int64 and uint16 limits, so the
    // upper test is strict against it.
    const double upper = static_cast<double>(high) + 1.0;
    if (!std::isfinite(v) || std::trunc(v) != v || v < static_cast<double>(low) || v >= upper) {
        outOfRange();
    }
    return static_cast<Int>(v);
}

UUID readUUID(const Json& value, const std::string& path) {
    std::string text = readString(value, path);
    auto id = UUID::parse(text);
    if (!id) {
        fail(Kind::dataCorrupted, path, quotedText(text) + " is not a UUID");
    }
    return *id;
}

template <class Enum>
Enum readEnum(const Json& value, const std::string& path,
              std::optional<Enum> (*fromRaw)(std::string_view), std::initializer_list<Enum> all) {
    std::string text = readString(value, path);
    if (auto result = fromRaw(text)) {
        return *result;
    }
    std::string expected;
    for (auto item : all) {
        if (!expected.empty()) {
            expected += ", ";
        }
        expected += '"';
        expected.append(rawValue(item));
        expected += '"';
    }
    fail(Kind::dataCorrupted, path,
         "unknown value " + quotedText(text) + ", expected one of " + expected);
}

template <class T, class ReadOne>
std::vector<T> readArray(const Json& value, const std::string& path, ReadOne readOne) {
    if (!value.is_array()) {
        mismatch(value, path, "an array");
    }
    std::vector<T> result;
    result.reserve(value.size());
    for (std::size_t i = 0; i < value.size(); ++i) {
        result.push_back(readOne(value[i], element(path, i)));
    }
    return result;
}

std::vector<std::string> readStrings(const Json& value, const std::string& path) {
    return readArray<std::string>(value, path, readString);
}

std::string stringKey(const Json& object, const std::string& path, std::string_view key) {
    return readString(required(object, path, key), child(path, key));
}

bool boolKey(const Json& object, const std::string& path, std::string_view key) {
    return readBool(required(object, path, key), child(path, key));
}

UUID uuidKey(const Json& object, const std::string& path, std::string_view key) {
    return readUUID(required(object, path, key), child(path, key));
}

std::vector<std::string> stringsKey(const Json& object, const std::string& path,
                                    std::string_view key) {
    return readStrings(required(object, path, key), child(path, key));
}

ProxyCredentials readCredentials(const Json& value, const std::string& path) {
    requireObject(value, path);
    ProxyCredentials credentials;
    credentials.username = stringKey(value, path, "username");
    credentials.password = stringKey(value, path, "password");
    return credentials;
}

ProxyServer readProxy(const Json& value, const std::string& path) {
    requireObject(value, path);
    ProxyServer proxy;
    proxy.id = uuidKey(value, path, "id");
    proxy.name = stringKey(value, path, "name");
    proxy.address = stringKey(value, path, "address");
    proxy.port = readInteger<std::uint16_t>(required(value, path, "port"), child(path, "port"), 0,
                                            65535, "an integer from 0 to 65535");
    proxy.proto =
        readEnum<ProxyProtocol>(required(value, path, "proto"), child(path, "proto"),
                                proxyProtocolFromRaw, {ProxyProtocol::socks5, ProxyProtocol::http});
    if (const Json* credentials = optional(value, "credentials")) {
        proxy.credentials = readCredentials(*credentials, child(path, "credentials"));
    }
    return proxy;
}

ProxyChain readChain(const Json& value, const std::string& path) {
    requireObject(value, path);
    ProxyChain chain;
    chain.id = uuidKey(value, path, "id");
    chain.name = stringKey(value, path, "name");
    chain.proxyIDs =
        readArray<UUID>(required(value, path, "proxyIDs"), child(path, "proxyIDs"), readUUID);
    return chain;
}

// "kind" decides which further key is read; any other key is ignored.
RuleAction readAction(const Json& value, const std::string& path) {
    requireObject(value, path);
    const std::string kindPath = child(path, "kind");
    std::string kind = readString(required(value, path, "kind"), kindPath);
    if (kind == "proxy") {
        return RuleAction::proxy(uuidKey(value, path, "id"));
    }
    if (kind == "chain") {
        return RuleAction::chain(uuidKey(value, path, "id"));
    }
    if (kind == "interface") {
        return RuleAction::interface(stringKey(value, path, "name"));
    }
    if (kind == "direct") {
        return RuleAction::direct();
    }
    if (kind == "block") {
        return RuleAction::block();
    }
    fail(Kind::dataCorrupted, kindPath,
         "unknown value " + quotedText(kind) +
             ", expected one of \"proxy\", \"chain\", \"interface\", \"direct\", \"block\"");
}

Rule readRule(const Json& value, const std::string& path) {
    requireObject(value, path);
    Rule rule;
    rule.id = uuidKey(value, path, "id");
    rule.name = stringKey(value, path, "name");
    rule.enabled = boolKey(value, path, "enabled");
    rule.apps = stringsKey(value, path, "apps");
    rule.hosts = stringsKey(value, path, "hosts");
    rule.ports = stringsKey(value, path, "ports");
    rule.transport = readEnum<FlowTransport>(
        required(value, path, "transport"), child(path, "transport"), flowTransportFromRaw,
        {FlowTransport::tcp, FlowTransport::udp, FlowTransport::any});
    rule.action = readAction(required(value, path, "action"), child(path, "action"));
    rule.quicPolicy = readEnum<QUICPolicy>(
        required(value, path, "quicPolicy"), child(path, "quicPolicy"), quicPolicyFromRaw,
        {QUICPolicy::proxy, QUICPolicy::fallback, QUICPolicy::direct});
    rule.locked = boolKey(value, path, "locked");
    rule.tags = stringsKey(value, path, "tags");
    return rule;
}

DNSSettings readDNS(const Json& value, const std::string& path) {
    requireObject(value, path);
    DNSSettings dns;
    dns.resolveViaProxy = boolKey(value, path, "resolveViaProxy");
    dns.exclusions = stringsKey(value, path, "exclusions");
    return dns;
}

GeneralSettings readGeneral(const Json& value, const std::string& path) {
    requireObject(value, path);
    GeneralSettings general;
    general.loopDetection = boolKey(value, path, "loopDetection");
    general.failsafeOnCrash = boolKey(value, path, "failsafeOnCrash");
    return general;
}

NetworkEnvironment::Kind readEnvironmentKind(const Json& value, const std::string& path) {
    requireObject(value, path);
    const std::string typePath = child(path, "type");
    std::string type = readString(required(value, path, "type"), typePath);
    if (type == "wifi") {
        return NetworkEnvironment::Wifi{stringKey(value, path, "ssid")};
    }
    if (type == "wired") {
        NetworkEnvironment::Wired wired;
        if (const Json* mac = optional(value, "gatewayMAC")) {
            wired.gatewayMAC = readString(*mac, child(path, "gatewayMAC"));
        }
        if (const Json* subnet = optional(value, "subnet")) {
            wired.subnet = readString(*subnet, child(path, "subnet"));
        }
        return wired;
    }
    fail(Kind::dataCorrupted, typePath,
         "unknown value " + quotedText(type) + ", expected one of \"wifi\", \"wired\"");
}

NetworkEnvironment readEnvironment(const Json& value, const std::string& path) {
    requireObject(value, path);
    NetworkEnvironment environment;
    environment.id = uuidKey(value, path, "id");
    environment.name = stringKey(value, path, "name");
    environment.kind = readEnvironmentKind(required(value, path, "kind"), child(path, "kind"));
    return environment;
}

Profile readProfile(const Json& value) {
    const std::string path;
    requireObject(value, path);
    Profile profile;
    profile.schemaVersion = readInteger<std::int64_t>(
        required(value, path, "schemaVersion"), "schemaVersion",
        std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max(),
        "a 64-bit signed integer");
    profile.id = uuidKey(value, path, "id");
    profile.name = stringKey(value, path, "name");
    profile.proxies =
        readArray<ProxyServer>(required(value, path, "proxies"), "proxies", readProxy);
    profile.chains = readArray<ProxyChain>(required(value, path, "chains"), "chains", readChain);
    profile.rules = readArray<Rule>(required(value, path, "rules"), "rules", readRule);
    profile.dns = readDNS(required(value, path, "dns"), "dns");
    profile.general = readGeneral(required(value, path, "general"), "general");
    profile.environments = readArray<NetworkEnvironment>(required(value, path, "environments"),
                                                         "environments", readEnvironment);
    return profile;
}

// The parser's message may quote input bytes; keep only printable ASCII so the
// message is always safe to log or to put into another JSON document.
std::string syntaxDetail(const std::string& message) {
    std::string text = message;
    // Drop the library's "[json.exception.parse_error.101] " tag.
    if (!text.empty() && text.front() == '[') {
        auto close = text.find("] ");
        if (close != std::string::npos) {
            text.erase(0, close + 2);
        }
    }
    for (char& c : text) {
        auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte >= 0x7F) {
            c = '?';
        }
    }
    return text;
}

// ---------------------------------------------------------------- writing

template <class... Ts>
struct Overloaded : Ts... {
    using Ts::operator()...;
};
template <class... Ts>
Overloaded(Ts...) -> Overloaded<Ts...>;

Json stringArray(const std::vector<std::string>& items) {
    Json array = Json::array();
    for (const auto& item : items) {
        array.push_back(item);
    }
    return array;
}

Json encodeAction(const RuleAction& action) {
    return std::visit(Overloaded{
                          [](const RuleAction::Proxy& p) {
                              return Json{{"kind", "proxy"}, {"id", p.id.uuidString()}};
                          },
                          [](const RuleAction::Chain& c) {
                              return Json{{"kind", "chain"}, {"id", c.id.uuidString()}};
                          },
                          [](const RuleAction::Interface& i) {
                              return Json{{"kind", "interface"}, {"name", i.name}};
                          },
                          [](const RuleAction::Direct&) {
                              return Json{{"kind", "direct"}};
                          },
                          [](const RuleAction::Block&) {
                              return Json{{"kind", "block"}};
                          },
                      },
                      action.value());
}

Json encodeEnvironmentKind(const NetworkEnvironment::Kind& kind) {
    return std::visit(Overloaded{
                          [](const NetworkEnvironment::Wifi& w) {
                              return Json{{"type", "wifi"}, {"ssid", w.ssid}};
                          },
                          [](const NetworkEnvironment::Wired& w) {
                              Json object = {{"type", "wired"}};
                              if (w.gatewayMAC) {
                                  object["gatewayMAC"] = *w.gatewayMAC;
                              }
                              if (w.subnet) {
                                  object["subnet"] = *w.subnet;
                              }
                              return object;
                          },
                      },
                      kind);
}

Json encodeEnvironment(const NetworkEnvironment& environment) {
    return {{"id", environment.id.uuidString()},
            {"name", environment.name},
            {"kind", encodeEnvironmentKind(environment.kind)}};
}

Json encodeProxy(const ProxyServer& proxy) {
    Json object = {
        {"id", proxy.id.uuidString()},    {"name", proxy.name},
        {"address", proxy.address},       {"port", proxy.port},
        {"proto", rawValue(proxy.proto)},
    };
    if (proxy.credentials) {
        object["credentials"] = {{"username", proxy.credentials->username},
                                 {"password", proxy.credentials->password}};
    }
    return object;
}

Json encodeChain(const ProxyChain& chain) {
    Json ids = Json::array();
    for (const auto& id : chain.proxyIDs) {
        ids.push_back(id.uuidString());
    }
    return {{"id", chain.id.uuidString()}, {"name", chain.name}, {"proxyIDs", std::move(ids)}};
}

Json encodeRule(const Rule& rule) {
    return {
        {"id", rule.id.uuidString()},
        {"name", rule.name},
        {"enabled", rule.enabled},
        {"apps", stringArray(rule.apps)},
        {"hosts", stringArray(rule.hosts)},
        {"ports", stringArray(rule.ports)},
        {"transport", rawValue(rule.transport)},
        {"action", encodeAction(rule.action)},
        {"quicPolicy", rawValue(rule.quicPolicy)},
        {"locked", rule.locked},
        {"tags", stringArray(rule.tags)},
    };
}

template <class T, class Encode>
Json encodeArray(const std::vector<T>& items, Encode encode) {
    Json array = Json::array();
    for (const auto& item : items) {
        array.push_back(encode(item));
    }
    return array;
}

} // namespace

std::optional<Profile> decodeProfile(std::string_view text,
                                     std::optional<ProfileDecodingError>* error) {
    auto report = [&](ProfileDecodingError e) {
        if (error) {
            *error = std::move(e);
        }
    };
    try {
        Json document;
        try {
            // The parser rejects invalid UTF-8 inside strings, so a decoded
            // profile always holds valid UTF-8.
            document = Json::parse(text.begin(), text.end());
        } catch (const Json::parse_error& e) {
            report(ProfileDecodingError(Kind::syntax, "", syntaxDetail(e.what())));
            return std::nullopt;
        }
        Profile profile = readProfile(document);
        if (error) {
            error->reset();
        }
        return profile;
    } catch (const ProfileDecodingError& e) {
        report(e);
    } catch (const std::exception& e) {
        report(ProfileDecodingError(Kind::syntax, "", syntaxDetail(e.what())));
    } catch (...) {
        report(ProfileDecodingError(Kind::syntax, "", "the profile could not be read"));
    }
    return std::nullopt;
}

std::optional<Profile> decodeProfile(std::span<const std::uint8_t> bytes,
                                     std::optional<ProfileDecodingError>* error) {
    return decodeProfile(
        std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()), error);
}

std::string encodeProfile(const Profile& profile, bool pretty) {
    Json document = {
        {"schemaVersion", profile.schemaVersion},
        {"id", profile.id.uuidString()},
        {"name", profile.name},
        {"proxies", encodeArray(profile.proxies, encodeProxy)},
        {"chains", encodeArray(profile.chains, encodeChain)},
        {"rules", encodeArray(profile.rules, encodeRule)},
        {"dns",
         {{"resolveViaProxy", profile.dns.resolveViaProxy},
          {"exclusions", stringArray(profile.dns.exclusions)}}},
        {"general",
         {{"loopDetection", profile.general.loopDetection},
          {"failsafeOnCrash", profile.general.failsafeOnCrash}}},
        {"environments", encodeArray(profile.environments, encodeEnvironment)},
    };
    // Strings built in code (an import, a user's entry) may hold bytes that
    // are not UTF-8; they are written as U+FFFD rather than failing the write.
    return dumpEscapingSlashes(document, pretty ? 2 : -1);
}

} // namespace veltrane::kit
