#pragma once

#include "VeltraneKit/Importers/ConfigImportAdapter.hpp"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace veltrane::kit {

// Imports a Proxifier profile (XML, extension "ppx"): its proxies and its
// rules. Whatever a Profile has no place for (authentication, options, chain
// lists) is dropped without a word, so any well-formed document whose root is
// <ProxifierProfile> imports. A chain action lands on one proxy; no
// ProxyChain is ever made.
//
// Where users keep such files on Linux, in lookup order:
//   $XDG_CONFIG_HOME/proxifier, $XDG_CONFIG_HOME, the home directory itself,
//   ~/Documents, ~/Downloads
// $XDG_CONFIG_HOME is ~/.config when it is unset, empty or not absolute (as
// the XDG base directory rules say). Only these folders are listed, not their
// subfolders.
class PPXImportAdapter final : public ConfigImportAdapter {
public:
    // The config directory comes from $XDG_CONFIG_HOME.
    PPXImportAdapter();
    // The config directory as given; empty or relative means ~/.config.
    explicit PPXImportAdapter(std::string_view xdgConfigHome);

    std::string adapterID() const override { return "ppx"; }
    std::vector<std::string> fileExtensions() const override { return {"ppx"}; }
    std::vector<std::string> searchPaths() const override { return searchPaths_; }

    // A proxy without an address (or with an empty one) or without an unsigned
    // 16-bit decimal port is skipped, and rules aimed at it take the first
    // proxy; rules named "Localhost" or "Default" are dropped.
    // Throws ImportError::malformed("不是有效的 XML") for bytes that are not
    // well-formed XML (invalid UTF-8 and more than one top-level element
    // included), ImportError::unrecognizedFormat for another root element.
    ImportedConfig parse(std::span<const std::uint8_t> data) const override;

    // A list field of the source: split on ";" only, blanks and tabs cut from
    // both ends of each piece, empty pieces dropped. No text gives no items.
    static std::vector<std::string> splitList(std::optional<std::string_view> text);

private:
    std::vector<std::string> searchPaths_;
};

} // namespace veltrane::kit
