#include "VeltraneKit/RuleEngine.hpp"

#include "VeltraneKit/GlobMatcher.hpp"
#include "VeltraneKit/Localize.hpp"
#include "VeltraneKit/MatcherKernels.hpp"

#include <algorithm>

namespace veltrane::kit {

namespace {

template <class Record>
const Record* firstWithID(const std::vector<Record>& records, const UUID& id) {
    const auto it = std::find_if(records.begin(), records.end(),
                                 [&](const Record& record) { return record.id == id; });
    return it == records.end() ? nullptr : &*it;
}

// What one `match` call works from: the candidate forms of its arguments,
// built on first use, and the reason texts, each looked up and formatted at
// most once, since they are the same for every rule that fails the same step.
class MatchContext {
public:
    MatchContext(const AppIdentity& app, std::string_view host, std::uint16_t port)
        : app_(app), host_(host), port_(port) {}

    const AppCandidate& app() {
        if (!appCandidate_) {
            appCandidate_.emplace(app_);
        }
        return *appCandidate_;
    }
    const HostCandidate& host() {
        if (!hostCandidate_) {
            hostCandidate_.emplace(host_);
        }
        return *hostCandidate_;
    }

    const SharedText& disabledReason() {
        return once(disabled_, [] { return RL("规则已停用"); });
    }
    const SharedText& transportReason(FlowTransport ruleTransport) {
        auto& slot = ruleTransport == FlowTransport::udp ? transportUDP_ : transportTCP_;
        return once(slot, [&] {
            return RL("传输层不匹配（规则限 %@）", {std::string(rawValue(ruleTransport))});
        });
    }
    const SharedText& appReason() {
        return once(appReason_, [&] { return RL("应用不匹配（%@）", {app_.bestDescription()}); });
    }
    const SharedText& hostReason() {
        return once(hostReason_, [&] { return RL("目标主机不匹配（%@）", {std::string(host_)}); });
    }
    const SharedText& portReason() {
        return once(portReason_, [&] { return RL("端口不匹配（%lld）", {std::int64_t{port_}}); });
    }

private:
    template <class Make>
    static const SharedText& once(std::optional<SharedText>& slot, Make make) {
        if (!slot) {
            slot.emplace(make());
        }
        return *slot;
    }

    const AppIdentity& app_;
    std::string_view host_;
    std::uint16_t port_;
    std::optional<AppCandidate> appCandidate_;
    std::optional<HostCandidate> hostCandidate_;
    std::optional<SharedText> disabled_, transportTCP_, transportUDP_, appReason_, hostReason_,
        portReason_;
};

} // namespace

struct RuleEngine::Program {
    struct Head {
        std::uint32_t appsBegin, appsEnd;
        std::uint32_t hostsBegin, hostsEnd;
        std::uint32_t portsBegin, portsEnd;
        bool enabled;
        FlowTransport transport;
    };

    std::vector<Head> heads;
    std::vector<std::string> names;
    std::vector<kernels::TextTest> apps;
    std::vector<kernels::HostTest> hosts;
    std::vector<PortPattern> ports;
    // The folded literals that the tests point into, and the matchers they
    // point at, owned here so the program stands on its own.
    std::u32string literals;
    std::vector<std::shared_ptr<const GlobMatcher>> matchers;

    explicit Program(const std::vector<CompiledRule>& compiled);

    // Within one condition list any one element is enough.
    bool anyApp(const Head& head, const AppCandidate& app) const {
        for (std::uint32_t i = head.appsBegin; i < head.appsEnd; ++i) {
            if (kernels::appMatches(apps[i], app)) {
                return true;
            }
        }
        return false;
    }
    bool anyHost(const Head& head, const HostCandidate& host) const {
        for (std::uint32_t i = head.hostsBegin; i < head.hostsEnd; ++i) {
            if (kernels::hostMatches(hosts[i], host)) {
                return true;
            }
        }
        return false;
    }
    bool anyPort(const Head& head, std::uint16_t port) const {
        for (std::uint32_t i = head.portsBegin; i < head.portsEnd; ++i) {
            if (ports[i].contains(port)) {
                return true;
            }
        }
        return false;
    }

private:
    kernels::TextTest own(kernels::TextTest test, const std::shared_ptr<const GlobMatcher>& glob) {
        if (glob) {
            matchers.push_back(glob);
        }
        const std::size_t offset = literals.size();
        if (test.literalLength > 0) {
            literals.append(test.literal, test.literalLength);
        }
        test.literal = literals.data() + offset;
        return test;
    }
};

RuleEngine::Program::Program(const std::vector<CompiledRule>& compiled) {
    // Sized up front so that the pointers into `literals` stay put.
    std::size_t literalSize = 0;
    for (const CompiledRule& rule : compiled) {
        for (const AppPattern& app : rule.apps) {
            literalSize += app.pattern.folded.size();
        }
        for (const HostPattern& host : rule.hosts) {
            if (const auto* exact = std::get_if<HostPattern::Exact>(&host.kind)) {
                literalSize += exact->folded.size();
            }
        }
    }
    literals.reserve(literalSize);
    heads.reserve(compiled.size());
    names.reserve(compiled.size());

    for (const CompiledRule& rule : compiled) {
        Head head{};
        head.enabled = rule.rule.enabled;
        head.transport = rule.rule.transport;
        head.appsBegin = std::uint32_t(apps.size());
        for (const AppPattern& app : rule.apps) {
            apps.push_back(own(kernels::TextTest::of(app.pattern), app.pattern.regex));
        }
        head.appsEnd = std::uint32_t(apps.size());
        head.hostsBegin = std::uint32_t(hosts.size());
        for (const HostPattern& host : rule.hosts) {
            kernels::HostTest test = kernels::HostTest::of(host);
            const auto* wildcard = std::get_if<HostPattern::Wildcard>(&host.kind);
            test.text = own(test.text, wildcard ? wildcard->pattern.regex : nullptr);
            hosts.push_back(test);
        }
        head.hostsEnd = std::uint32_t(hosts.size());
        head.portsBegin = std::uint32_t(ports.size());
        ports.insert(ports.end(), rule.ports.begin(), rule.ports.end());
        head.portsEnd = std::uint32_t(ports.size());
        heads.push_back(head);
        names.push_back(rule.rule.name);
    }
}

RuleEngine::RuleEngine(Profile profile) : profile_(std::move(profile)) {
    std::vector<Rule> ordered = profile_.orderedRules();
    compiled_.reserve(ordered.size());
    for (Rule& rule : ordered) {
        CompiledRule compiled;
        // Empty elements are dropped before trimming, so an element of blanks
        // alone survives as a pattern with an empty source.
        compiled.apps.reserve(rule.apps.size());
        for (const std::string& app : rule.apps) {
            if (!app.empty()) {
                compiled.apps.emplace_back(WildcardPattern(std::string(trimBlanks(app))));
            }
        }
        compiled.hosts.reserve(rule.hosts.size());
        for (const std::string& host : rule.hosts) {
            if (!host.empty()) {
                compiled.hosts.emplace_back(host);
            }
        }
        compiled.ports.reserve(rule.ports.size());
        for (const std::string& port : rule.ports) {
            if (port.empty()) {
                continue;
            }
            if (auto pattern = PortPattern::parse(port)) {
                compiled.ports.push_back(*pattern);
            }
        }
        compiled.rule = std::move(rule);
        compiled_.push_back(std::move(compiled));
    }
    program_ = std::make_shared<const Program>(compiled_);
}

Verdict RuleEngine::match(const AppIdentity& app, std::string_view host, std::uint16_t port,
                          FlowTransport transport) const {
    const Program& program = *program_;
    Verdict verdict;
    // Room for an entry per rule, a fallback entry and the end entry: the
    // buffer is only address space until written, and growing it step by
    // step would move every entry again.
    verdict.trace.reserve(program.heads.size() + 2);
    MatchContext context(app, host, port);
    for (std::size_t index = 0; index < program.heads.size(); ++index) {
        const Program::Head& head = program.heads[index];
        const SharedText* reason = nullptr;
        if (!head.enabled) {
            reason = &context.disabledReason();
        } else if (head.transport != FlowTransport::any && transport != FlowTransport::any &&
                   head.transport != transport) {
            reason = &context.transportReason(head.transport);
        } else if (head.appsBegin != head.appsEnd && !program.anyApp(head, context.app())) {
            reason = &context.appReason();
        } else if (head.hostsBegin != head.hostsEnd && !program.anyHost(head, context.host())) {
            reason = &context.hostReason();
        } else if (head.portsBegin != head.portsEnd && !program.anyPort(head, port)) {
            reason = &context.portReason();
        }
        if (reason) {
            // Filled in place: the trace is most of what a miss costs.
            Verdict::TraceEntry& entry = verdict.trace.emplace_back();
            entry.ruleName = program.names[index];
            entry.reason = *reason;
            continue;
        }
        const Rule& rule = compiled_[index].rule;
        verdict.resolved = resolve(rule.action, verdict.trace, rule.name);
        verdict.trace.push_back(Verdict::TraceEntry{rule.name, true, RL("命中")});
        verdict.matchedRule = rule;
        verdict.quicPolicy = rule.quicPolicy;
        return verdict;
    }

    verdict.trace.push_back(Verdict::TraceEntry{RL("(无兜底规则)"), true, RL("默认直连")});
    verdict.resolved = Verdict::Direct{};
    verdict.quicPolicy = QUICPolicy::direct;
    return verdict;
}

Verdict::Resolved RuleEngine::resolve(const RuleAction& action,
                                      std::vector<Verdict::TraceEntry>& trace,
                                      const std::string& ruleName) const {
    struct Visitor {
        const RuleEngine& engine;
        std::vector<Verdict::TraceEntry>& trace;
        const std::string& ruleName;

        Verdict::Resolved fallBack(std::string_view reason) const {
            trace.push_back(Verdict::TraceEntry{ruleName, false, RL(reason)});
            return Verdict::Direct{};
        }
        Verdict::Resolved operator()(const RuleAction::Proxy& a) const {
            if (const ProxyServer* server = firstWithID(engine.profile_.proxies, a.id)) {
                return Verdict::Proxy{{*server}};
            }
            return fallBack("规则指向的代理不存在，回退直连");
        }
        Verdict::Resolved operator()(const RuleAction::Chain& a) const {
            const ProxyChain* chain = firstWithID(engine.profile_.chains, a.id);
            if (!chain) {
                return fallBack("规则指向的代理链不存在，回退直连");
            }
            // Hops without a server are left out quietly; the route only
            // falls back when no hop at all is left.
            std::vector<ProxyServer> servers;
            servers.reserve(chain->proxyIDs.size());
            for (const UUID& id : chain->proxyIDs) {
                if (const ProxyServer* server = firstWithID(engine.profile_.proxies, id)) {
                    servers.push_back(*server);
                }
            }
            if (servers.empty()) {
                return fallBack("代理链为空，回退直连");
            }
            return Verdict::Proxy{std::move(servers)};
        }
        Verdict::Resolved operator()(const RuleAction::Interface& a) const {
            return Verdict::Interface{a.name};
        }
        Verdict::Resolved operator()(const RuleAction::Direct&) const { return Verdict::Direct{}; }
        Verdict::Resolved operator()(const RuleAction::Block&) const { return Verdict::Block{}; }
    };
    return std::visit(Visitor{*this, trace, ruleName}, action.value());
}

std::string Verdict::actionDescription() const {
    struct Visitor {
        std::string operator()(const Proxy& p) const {
            std::string out = "proxy ";
            for (std::size_t i = 0; i < p.servers.size(); ++i) {
                const ProxyServer& s = p.servers[i];
                if (i > 0) {
                    out += " \u2192 ";
                }
                out += s.name;
                out += " (";
                out += s.address;
                out += ':';
                out += std::to_string(s.port);
                out += ' ';
                out += rawValue(s.proto);
                out += ')';
            }
            return out;
        }
        std::string operator()(const Interface& i) const { return "interface " + i.name; }
        std::string operator()(const Direct&) const { return "direct"; }
        std::string operator()(const Block&) const { return "block"; }
    };
    return std::visit(Visitor{}, resolved);
}

} // namespace veltrane::kit
