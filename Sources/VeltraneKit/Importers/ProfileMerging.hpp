#pragma once

#include "VeltraneKit/Importers/ImportedConfig.hpp"
#include "VeltraneKit/Profile.hpp"

namespace veltrane::kit {

// The profile with an import fused in; `profile` itself stays as it was.
//
// Proxies: an imported proxy whose address, port and protocol (address
// compared exactly, names and credentials not at all) equal those of a proxy
// already there, the profile's or one imported before it, is dropped and its
// rules point at that proxy instead; any other is added at the end with its
// own id and name.
//
// Rules: the profile's locked "Localhost" rules, then the profile's other
// rules (unlocked ones, and locked ones of any other name, which have no
// group of their own and must not be lost), then the imported rules, then the
// profile's locked "Default" rules; each group in its own order. Imported
// rules thus rank below everything the user already had, except the
// catch-all. Duplicate names are allowed.
//
// Everything else (schemaVersion, id, name, chains, dns, general,
// environments) is the profile's.
Profile merging(const Profile& profile, const ImportedConfig& imported);

} // namespace veltrane::kit
