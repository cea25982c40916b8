#include "VeltraneKit/MCPIntegrations/MCPInstallError.hpp"

#include "VeltraneKit/Localize.hpp"

#include <utility>

namespace veltrane::kit {

MCPInstallError::MCPInstallError(Kind kind, std::string path, std::string detail)
    : kind_(kind), path_(std::move(path)), detail_(std::move(detail)) {}

std::string MCPInstallError::localizedDescription() const {
    switch (kind_) {
    case Kind::noConfigPath:
        return RL("this client has no configuration file to write");
    case Kind::createDirectory:
        return RL("could not create the directory %@: %@", {path_, detail_});
    case Kind::unreadable:
        return RL("could not read %@: %@", {path_, detail_});
    case Kind::notJSON:
        return RL("%@ is not valid JSON, left unchanged: %@", {path_, detail_});
    case Kind::notAnObject:
        return RL("%@ does not hold a JSON object, left unchanged", {path_});
    case Kind::serversNotAnObject:
        return RL("\"%@\" in %@ is not a JSON object, left unchanged", {detail_, path_});
    case Kind::unwritable:
        return RL("could not write %@: %@", {path_, detail_});
    }
    return RL("could not change %@", {path_});
}

} // namespace veltrane::kit
