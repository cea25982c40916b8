#include "ExtensionCore/Provider/LoopGuard.hpp"

#include "VeltraneKit/UnicodeText.hpp"

#include <algorithm>
#include <array>

namespace veltrane::core {

namespace {

constexpr std::array<std::string_view, 4> loopbackNames{"127.0.0.1", "localhost", "::1", "0.0.0.0"};

bool isLoopbackName(std::string_view host) {
    const std::string lower = kit::UnicodeText::lowercased(host);
    return std::find(loopbackNames.begin(), loopbackNames.end(), lower) != loopbackNames.end();
}

} // namespace

LoopGuard LoopGuard::forProfile(const kit::Profile& profile) {
    LoopGuard guard;
    guard.enabled = profile.general.loopDetection;
    guard.proxyEndpoints.reserve(profile.proxies.size());
    for (const auto& proxy : profile.proxies) {
        guard.proxyEndpoints.push_back(Endpoint{proxy.address, proxy.port});
    }
    return guard;
}

bool LoopGuard::shouldBypass(const kit::AppIdentity& app, std::string_view host,
                             std::uint16_t port) const {
    if (!enabled) {
        return false;
    }
    // Case-sensitive on purpose: only the product's own identifiers.
    if (app.bundleID && app.bundleID->starts_with("com.veltrane")) {
        return true;
    }
    for (const auto& endpoint : proxyEndpoints) {
        if (endpoint.port != port) {
            continue;
        }
        if (kit::UnicodeText::equalsIgnoringCase(host, endpoint.host)) {
            return true;
        }
        // A proxy set up as "localhost" also listens on 127.0.0.1 and ::1.
        if (isLoopbackName(endpoint.host) && isLoopbackName(host)) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> LoopGuard::exemptionDescriptions() const {
    std::vector<std::string> out;
    out.reserve(proxyEndpoints.size());
    for (const auto& endpoint : proxyEndpoints) {
        out.push_back(endpoint.host + ":" + std::to_string(endpoint.port));
    }
    return out;
}

} // namespace veltrane::core
