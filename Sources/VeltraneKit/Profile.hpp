#pragma once

#include "VeltraneKit/UUID.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace veltrane::kit {

enum class ProxyProtocol { socks5, http };
enum class FlowTransport { tcp, udp, any };
enum class QUICPolicy { proxy, fallback, direct };

// The stored strings of the enumerations, and their inverse (nullopt for any
// other text).
std::string_view rawValue(ProxyProtocol value);
std::string_view rawValue(FlowTransport value);
std::string_view rawValue(QUICPolicy value);
std::optional<ProxyProtocol> proxyProtocolFromRaw(std::string_view text);
std::optional<FlowTransport> flowTransportFromRaw(std::string_view text);
std::optional<QUICPolicy> quicPolicyFromRaw(std::string_view text);

struct ProxyCredentials {
    std::string username;
    std::string password;

    friend bool operator==(const ProxyCredentials&, const ProxyCredentials&) = default;
};

struct ProxyServer {
    UUID id;
    std::string name;
    std::string address;
    std::uint16_t port = 0;
    ProxyProtocol proto = ProxyProtocol::socks5;
    std::optional<ProxyCredentials> credentials;

    // address ":" port, no brackets even for IPv6.
    std::string endpointDescription() const;

    friend bool operator==(const ProxyServer&, const ProxyServer&) = default;
};

struct ProxyChain {
    UUID id;
    std::string name;
    std::vector<UUID> proxyIDs;

    friend bool operator==(const ProxyChain&, const ProxyChain&) = default;
};

// What a rule does with a flow it matches. Cases in declared order:
// proxy(id), chain(id), interface(name), direct, block.
class RuleAction {
public:
    struct Proxy {
        UUID id;
        friend bool operator==(const Proxy&, const Proxy&) = default;
    };
    struct Chain {
        UUID id;
        friend bool operator==(const Chain&, const Chain&) = default;
    };
    struct Interface {
        std::string name;
        friend bool operator==(const Interface&, const Interface&) = default;
    };
    struct Direct {
        friend bool operator==(const Direct&, const Direct&) = default;
    };
    struct Block {
        friend bool operator==(const Block&, const Block&) = default;
    };
    using Value = std::variant<Proxy, Chain, Interface, Direct, Block>;

    RuleAction() : value_(Direct{}) {}
    RuleAction(Value value) : value_(std::move(value)) {}

    static RuleAction proxy(UUID id) { return RuleAction(Proxy{id}); }
    static RuleAction chain(UUID id) { return RuleAction(Chain{id}); }
    static RuleAction interface(std::string name) { return RuleAction(Interface{std::move(name)}); }
    static RuleAction direct() { return RuleAction(Direct{}); }
    static RuleAction block() { return RuleAction(Block{}); }

    const Value& value() const { return value_; }
    template <class T>
    const T* as() const {
        return std::get_if<T>(&value_);
    }
    template <class T>
    bool is() const {
        return std::holds_alternative<T>(value_);
    }

    friend bool operator==(const RuleAction&, const RuleAction&) = default;

private:
    Value value_;
};

struct Rule {
    UUID id;
    std::string name;
    bool enabled = true;
    std::vector<std::string> apps;
    std::vector<std::string> hosts;
    std::vector<std::string> ports;
    FlowTransport transport = FlowTransport::any;
    RuleAction action;
    QUICPolicy quicPolicy = QUICPolicy::fallback;
    bool locked = false;
    std::vector<std::string> tags;

    // Fields to replace in `with`; id and locked are deliberately absent so a
    // guard stays a guard and an ordinary rule cannot become one.
    struct Changes {
        std::optional<std::string> name{};
        std::optional<bool> enabled{};
        std::optional<std::vector<std::string>> apps{};
        std::optional<std::vector<std::string>> hosts{};
        std::optional<std::vector<std::string>> ports{};
        std::optional<FlowTransport> transport{};
        std::optional<RuleAction> action{};
        std::optional<QUICPolicy> quicPolicy{};
        std::optional<std::vector<std::string>> tags{};
    };
    Rule with(const Changes& changes) const;

    friend bool operator==(const Rule&, const Rule&) = default;
};

struct DNSSettings {
    bool resolveViaProxy = true;
    std::vector<std::string> exclusions;

    // "localhost", "*.local", "%ComputerName%".
    static std::vector<std::string> defaultExclusions();

    friend bool operator==(const DNSSettings&, const DNSSettings&) = default;
};

struct GeneralSettings {
    bool loopDetection = true;
    bool failsafeOnCrash = true;

    friend bool operator==(const GeneralSettings&, const GeneralSettings&) = default;
};

struct NetworkEnvironment {
    struct Wifi {
        std::string ssid;
        friend bool operator==(const Wifi&, const Wifi&) = default;
    };
    struct Wired {
        std::optional<std::string> gatewayMAC;
        std::optional<std::string> subnet;
        friend bool operator==(const Wired&, const Wired&) = default;
    };
    using Kind = std::variant<Wifi, Wired>;

    UUID id;
    std::string name;
    Kind kind;

    // The network the machine is on now, and the test of this environment
    // against it: VeltraneKit/ProfileStore/Fingerprint.hpp.
    struct Fingerprint;
    bool matches(const Fingerprint& fingerprint) const;

    friend bool operator==(const NetworkEnvironment&, const NetworkEnvironment&) = default;
};

struct Profile {
    static constexpr std::int64_t currentSchemaVersion = 1;

    std::int64_t schemaVersion = currentSchemaVersion;
    UUID id;
    std::string name;
    std::vector<ProxyServer> proxies;
    std::vector<ProxyChain> chains;
    std::vector<Rule> rules;
    DNSSettings dns;
    GeneralSettings general;
    std::vector<NetworkEnvironment> environments;

    // Evaluation order: locked "Localhost" rules, then unlocked rules, then
    // locked "Default" rules; each group in stored order. A locked rule of any
    // other name takes no part in matching.
    std::vector<Rule> orderedRules() const;

    static Profile makeDefault(std::string name);
    static Rule localhostGuardRule();
    static Rule defaultFallbackRule();

    // Routes one application through a rule named "App: " + app, reusing the
    // first unlocked rule of that name.
    Profile settingRoute(std::string_view app, const RuleAction& action) const;

    std::optional<ProxyServer> proxy(const UUID& id) const;
    std::optional<ProxyChain> chain(const UUID& id) const;
    std::optional<Rule> rule(const UUID& id) const;

    // schemaVersion and id cannot change this way.
    struct Changes {
        std::optional<std::string> name{};
        std::optional<std::vector<ProxyServer>> proxies{};
        std::optional<std::vector<ProxyChain>> chains{};
        std::optional<std::vector<Rule>> rules{};
        std::optional<DNSSettings> dns{};
        std::optional<GeneralSettings> general{};
        std::optional<std::vector<NetworkEnvironment>> environments{};
    };
    Profile with(const Changes& changes) const;

    friend bool operator==(const Profile&, const Profile&) = default;
};

} // namespace veltrane::kit
