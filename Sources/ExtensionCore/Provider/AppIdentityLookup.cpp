#include "ExtensionCore/Provider/AppIdentityLookup.hpp"

#include <string_view>
#include <utility>

namespace veltrane::core {

namespace {

constexpr std::string_view bundleMarker = ".app/";

// The whole text when the separator does not occur.
std::string lastElement(std::string_view text, char separator) {
    return std::string(text.substr(text.rfind(separator) + 1));
}

std::string lastPathComponent(std::string_view path) {
    return lastElement(path, '/');
}

// The bundle's name without its extension, from the part of the path in
// front of the marker found at `match`.
std::optional<std::string> bundleName(std::string_view path, std::size_t match) {
    if (match == std::string_view::npos) {
        return std::nullopt;
    }
    return lastPathComponent(path.substr(0, match));
}

ProcessLookup::Responsible responsible(std::int32_t pid, const ProcessLookups& lookups) {
    auto responsiblePID = lookups.responsiblePID(pid);
    if (responsiblePID < 1 || responsiblePID == pid) {
        return {};
    }
    auto path = lookups.path(responsiblePID);
    if (!path) {
        return {};
    }
    // The innermost bundle answers: a helper app nested in another is its own
    // application here.
    return {
        .bundleID = ProcessLookup::bundleID(*path),
        .appName = bundleName(*path, path->rfind(bundleMarker)),
        .executable = lastPathComponent(*path),
    };
}

} // namespace

kit::AppIdentity identity(const platform::NEFlowMetaData& metaData) {
    static const ProcessLookups machine;
    return identity(metaData, machine);
}

kit::AppIdentity identity(const platform::NEFlowMetaData& metaData, const ProcessLookups& lookups) {
    const std::string& signingIdentifier = metaData.sourceAppSigningIdentifier;
    kit::AppIdentity result;
    std::optional<std::int32_t> pid;
    if (metaData.sourceAppAuditToken) {
        pid = ProcessLookup::pid(*metaData.sourceAppAuditToken);
    }
    if (pid) {
        // One look at the executable serves both its name and its bundle, so
        // the two agree even when the process execs or exits meanwhile.
        auto path = lookups.path(*pid);
        if (lookups.responsiblePID) {
            auto other = responsible(*pid, lookups);
            result.responsibleBundleID = std::move(other.bundleID);
            result.responsibleAppName = std::move(other.appName);
            result.responsibleExecutable = std::move(other.executable);
        }
        if (path) {
            result.executableName = lastPathComponent(*path);
            // The outermost bundle: the auxiliary apps inside one count as it.
            result.appBundleName = bundleName(*path, path->find(bundleMarker));
        }
    }
    if (!signingIdentifier.empty()) {
        result.bundleID = signingIdentifier;
    }
    // com.example.browser reads as "browser"; an empty identifier gives empty
    // text rather than nothing.
    result.displayName =
        result.executableName ? *result.executableName : lastElement(signingIdentifier, '.');
    return result;
}

} // namespace veltrane::core
