#pragma once

#include "VeltraneKit/Importers/ImportedConfig.hpp"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace veltrane::kit {

// Reads the configuration files of one other tool. Adapters are stateless
// values; the scanner asks them in the order it was given them.
class ConfigImportAdapter {
public:
    virtual ~ConfigImportAdapter() = default;

    // Names the adapter; a DiscoveredConfig carries it back to the same one.
    virtual std::string adapterID() const = 0;
    // Lower-case file extensions, without the dot.
    virtual std::vector<std::string> fileExtensions() const = 0;
    // Directories to look in. A relative path is taken under the home directory
    // given to the scanner; an absolute one stands as it is.
    virtual std::vector<std::string> searchPaths() const = 0;
    // Reads one document from untrusted bytes. Throws ImportError and nothing
    // else on bad input; never reads outside `data`.
    virtual ImportedConfig parse(std::span<const std::uint8_t> data) const = 0;
};

} // namespace veltrane::kit
