#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace veltrane::kit::configfile {

// The whole content of a file; nullopt with `error` set when it cannot be
// read (a directory reads as EISDIR).
std::optional<std::string> read(const std::filesystem::path& file, std::error_code& error);

// Replaces `file` with `text` so that readers see the old content or the new,
// never a mix: a temporary file in the same directory, flushed to disk, then
// renamed over it. A symbolic link is followed, so the file it points to gets
// the new text and the link stays. The file keeps its permission bits; a new
// file is private to its owner, as these files tend to collect API keys.
// Returns false with `error` set, leaving the old file as it was.
bool writeAtomically(const std::filesystem::path& file, std::string_view text,
                     std::error_code& error);

} // namespace veltrane::kit::configfile
