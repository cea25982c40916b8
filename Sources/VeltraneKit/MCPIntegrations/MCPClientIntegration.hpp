#pragma once

#include <string>
#include <vector>

namespace veltrane::kit {

// One AI client that can be told about an MCP server: where its configuration
// file may be and how to recognise that the client is installed. Paths are
// read through MCPHome::resolve.
struct MCPClientIntegration {
    // The top-level key under which the client's JSON file keeps its servers.
    enum class Format {
        mcpServersObject, // "mcpServers"
        mcpServersSnake   // "mcp_servers"
    };

    std::string id;
    std::string displayName;
    std::vector<std::string> configPaths; // tried in order; never empty
    Format format = Format::mcpServersObject;
    std::vector<std::string> detectPaths;

    bool operator==(const MCPClientIntegration&) const = default;
};

// "mcpServers" or "mcp_servers".
const char* serversKey(MCPClientIntegration::Format format);

} // namespace veltrane::kit
