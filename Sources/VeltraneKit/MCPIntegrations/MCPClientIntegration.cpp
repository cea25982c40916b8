#include "VeltraneKit/MCPIntegrations/MCPClientIntegration.hpp"

namespace veltrane::kit {

const char* serversKey(MCPClientIntegration::Format format) {
    switch (format) {
    case MCPClientIntegration::Format::mcpServersSnake:
        return "mcp_servers";
    case MCPClientIntegration::Format::mcpServersObject:
        break;
    }
    return "mcpServers";
}

} // namespace veltrane::kit
