#pragma once

#include "VeltraneKit/ProfileStore/ProfileStore.hpp"

#include <filesystem>
#include <string>
#include <string_view>

// The file operations of the profile store. Each throws
// ProfileStore::FileError naming the path and the errno.
namespace veltrane::kit::StoreFiles {

// Makes `directory` and every missing parent, each new one 0700. Existing
// directories keep their modes.
void makeDirectories(const std::filesystem::path& directory);

// The whole file. Files beyond a size no profile reaches are refused (EFBIG).
std::string readFile(const std::filesystem::path& path);

// Replaces `path` with `data` so that a reader sees the old or the new file
// whole and a failure leaves the old one: a 0600 temporary file beside it,
// synced, then renamed over it.
void replaceFile(const std::filesystem::path& path, std::string_view data);

// unlink(2).
void removeFile(const std::filesystem::path& path);

} // namespace veltrane::kit::StoreFiles
