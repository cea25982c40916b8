#pragma once

#include "VeltraneKit/Error.hpp"

#include <string>

namespace veltrane::kit {

// Why a client's configuration file was not changed. `path` is the file (or
// for createDirectory the directory); `detail` is what the system or the JSON
// reader said, or for serversNotAnObject the key that holds the servers.
class MCPInstallError final : public Error {
public:
    enum class Kind {
        noConfigPath,       // the integration names no file at all
        createDirectory,    // the file's directory could not be made
        unreadable,         // the file is there but could not be read
        notJSON,            // the file does not parse as JSON
        notAnObject,        // its top level is not a JSON object
        serversNotAnObject, // the servers' key holds something else
        unwritable          // the new text could not be put in place
    };

    MCPInstallError(Kind kind, std::string path, std::string detail = {});

    Kind kind() const { return kind_; }
    const std::string& path() const { return path_; }
    const std::string& detail() const { return detail_; }

    std::string domain() const override { return "MCPInstallError"; }
    int code() const override { return static_cast<int>(kind_); }
    std::string localizedDescription() const override;

private:
    Kind kind_;
    std::string path_;
    std::string detail_;
};

} // namespace veltrane::kit
