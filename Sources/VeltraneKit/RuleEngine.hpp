#pragma once

#include "VeltraneKit/AppIdentity.hpp"
#include "VeltraneKit/Matchers.hpp"
#include "VeltraneKit/Profile.hpp"
#include "VeltraneKit/SharedText.hpp"

#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace veltrane::kit {

struct Verdict {
    struct Proxy {
        std::vector<ProxyServer> servers; // first hop first, never empty
        friend bool operator==(const Proxy&, const Proxy&) = default;
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
    using Resolved = std::variant<Proxy, Interface, Direct, Block>;

    struct TraceEntry {
        std::string ruleName;
        bool matched = false;
        SharedText reason;
        friend bool operator==(const TraceEntry&, const TraceEntry&) = default;
    };

    Resolved resolved = Direct{};
    std::optional<Rule> matchedRule;
    QUICPolicy quicPolicy = QUICPolicy::direct;
    std::vector<TraceEntry> trace;

    // "proxy NAME (ADDR:PORT PROTO) → ...", "interface NAME", "direct", "block".
    std::string actionDescription() const;

    friend bool operator==(const Verdict&, const Verdict&) = default;
};

// Built once per profile; immutable afterwards, so `match` may run on any
// number of threads at once without a lock.
class RuleEngine {
public:
    explicit RuleEngine(Profile profile);

    Verdict match(const AppIdentity& app, std::string_view host, std::uint16_t port,
                  FlowTransport transport) const;

    const Profile& profile() const { return profile_; }

private:
    struct CompiledRule {
        Rule rule;
        std::vector<AppPattern> apps;
        std::vector<HostPattern> hosts;
        std::vector<PortPattern> ports;
    };

    Verdict::Resolved resolve(const RuleAction& action, std::vector<Verdict::TraceEntry>& trace,
                              const std::string& ruleName) const;

    // The compiled rules packed into flat arrays for the scan in `match`.
    // Immutable, and shared by copies of the engine.
    struct Program;

    std::vector<CompiledRule> compiled_;
    Profile profile_;
    std::shared_ptr<const Program> program_;
};

} // namespace veltrane::kit
