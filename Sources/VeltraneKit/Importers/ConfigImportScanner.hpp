#pragma once

#include "VeltraneKit/Importers/ConfigImportAdapter.hpp"
#include "VeltraneKit/Importers/ImportedConfig.hpp"
#include "VeltraneKit/UUID.hpp"

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace veltrane::kit {

// One file that looks like another tool's configuration. `id` is fresh for
// each find: it names the find, not the file.
struct DiscoveredConfig {
    UUID id;
    std::filesystem::path url;
    std::string displayName; // "同类工具配置 · " and the file name
    std::string adapterID;

    friend bool operator==(const DiscoveredConfig&, const DiscoveredConfig&) = default;
};

// Finds other tools' configuration files and reads them through the adapter
// that knows their format. Stateless; nothing here writes anything.
class ConfigImportScanner {
public:
    // Every adapter this system has (today the one for ".ppx" profiles).
    ConfigImportScanner();
    // The adapters in lookup order.
    explicit ConfigImportScanner(std::vector<std::shared_ptr<const ConfigImportAdapter>> adapters);

    const std::vector<std::shared_ptr<const ConfigImportAdapter>>& adapters() const {
        return adapters_;
    }

    // Lists each adapter's search paths under `home`, in adapter and path
    // order, and keeps the entries whose extension (in lower case) the adapter
    // takes. Subfolders are not entered, nothing is read, and a folder that
    // can't be listed adds nothing. Never fails.
    std::vector<DiscoveredConfig> discover(const std::filesystem::path& home = defaultHome()) const;

    // Reads a find with the adapter that found it. Throws
    // ImportError::unrecognizedFormat, without touching the file, when no
    // adapter has its adapterID; std::filesystem::filesystem_error when the
    // file can't be read; else whatever ImportError the adapter throws.
    ImportedConfig parse(const DiscoveredConfig& config) const;

    // Reads any file, choosing the adapter by its extension (in lower case).
    // The file is read first, so a missing file is a filesystem_error whatever
    // its extension; an extension no adapter takes is
    // ImportError::unrecognizedFormat.
    ImportedConfig parse(const std::filesystem::path& url) const;

    // $HOME, else the home directory of the user database; empty when neither
    // is known (discover then finds nothing).
    static std::filesystem::path defaultHome();

private:
    std::vector<std::shared_ptr<const ConfigImportAdapter>> adapters_;
};

} // namespace veltrane::kit
