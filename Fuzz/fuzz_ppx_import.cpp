// Profiles of another tool come from wherever a user found them. Whatever
// imports must merge into a profile that survives a write and a read, with
// every imported proxy action naming an imported proxy.
#include "VeltraneKit/Importers/ImportError.hpp"
#include "VeltraneKit/Importers/PPXImportAdapter.hpp"
#include "VeltraneKit/Importers/ProfileMerging.hpp"
#include "VeltraneKit/ProfileCoding.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

using namespace veltrane::kit;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ImportedConfig config;
    try {
        config = PPXImportAdapter("").parse(std::span<const std::uint8_t>(data, size));
    } catch (const ImportError& error) {
        (void)error.localizedDescription();
        return 0;
    }
    for (const auto& rule : config.rules) {
        const auto* target = rule.action.as<RuleAction::Proxy>();
        bool known = target == nullptr;
        for (const auto& proxy : config.proxies) {
            known = known || proxy.id == target->id;
        }
        if (!known || rule.locked || rule.name == "Default" || rule.name == "Localhost") {
            std::abort();
        }
    }
    const Profile merged = merging(Profile::makeDefault("fuzz"), config);
    if (merged.rules.size() != config.rules.size() + 2 || !merged.rules.front().locked ||
        !merged.rules.back().locked) {
        std::abort();
    }
    auto again = decodeProfile(encodeProfile(merged, false));
    if (!again || !(*again == merged)) {
        std::abort();
    }
    return 0;
}
