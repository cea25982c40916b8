// Pattern texts and candidates come straight from profiles and flows, so
// every matcher must take any bytes without crashing or running away.
#include "VeltraneKit/IPv4.hpp"
#include "VeltraneKit/Matchers.hpp"
#include "VeltraneKit/RuleEngine.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

using namespace veltrane::kit;

namespace {

// The input is a list of texts separated by NUL bytes; missing texts are
// empty.
std::vector<std::string> splitTexts(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> texts;
    std::string current;
    for (std::size_t i = 0; i < size; ++i) {
        if (data[i] == 0) {
            texts.push_back(std::move(current));
            current.clear();
        } else {
            current.push_back(char(data[i]));
        }
    }
    texts.push_back(std::move(current));
    while (texts.size() < 8) {
        texts.emplace_back();
    }
    return texts;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 4096) {
        return 0; // long texts only slow the search down; they add no new paths
    }
    const std::vector<std::string> t = splitTexts(data, size);
    const std::string& pattern = t[0];
    const std::string& candidate = t[1];

    const WildcardPattern wildcard(pattern);
    (void)wildcard.matches(candidate);
    const HostPattern host(pattern);
    (void)host.matches(candidate);
    (void)host.matches(HostCandidate(candidate));
    if (const auto port = PortPattern::parse(pattern)) {
        if (port->low > port->high) {
            __builtin_trap();
        }
    }
    if (const auto address = IPv4::parse(candidate)) {
        if (IPv4::parse(IPv4::format(*address)) != address) {
            __builtin_trap();
        }
    }

    AppIdentity app;
    app.bundleID = t[1];
    app.displayName = t[2];
    if (!t[3].empty()) {
        app.executableName = t[3];
    }
    const AppPattern appPattern{WildcardPattern(pattern)};
    (void)appPattern.matches(app);

    Profile profile;
    ProxyServer server;
    server.id = UUID::random();
    server.name = t[4];
    profile.proxies = {server};
    Rule rule;
    rule.name = t[4];
    rule.apps = {t[0], t[5]};
    rule.hosts = {t[0], t[6]};
    rule.ports = {t[0], t[7]};
    rule.action = (size % 2) ? RuleAction::proxy(server.id) : RuleAction::chain(server.id);
    rule.transport = FlowTransport(size % 3);
    profile.rules = {rule};
    const RuleEngine engine(profile);
    const std::uint16_t port = size >= 2 ? std::uint16_t(data[0] << 8 | data[size - 1]) : 0;
    const Verdict verdict = engine.match(app, candidate, port, FlowTransport((size / 3) % 3));
    if (verdict.trace.empty() || !verdict.trace.back().matched) {
        __builtin_trap();
    }
    (void)verdict.actionDescription();
    return 0;
}
