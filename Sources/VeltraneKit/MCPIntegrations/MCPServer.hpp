#pragma once

#include "VeltraneKit/AutomationProtocol/AutomationXPCProtocol.hpp"
#include "VeltraneKit/Discovery/LocalProxyScanner.hpp"
#include "VeltraneKit/Discovery/TunnelInterface.hpp"
#include "VeltraneKit/Profile.hpp"

#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace veltrane::kit {

// The Model Context Protocol server that the installer registers in AI
// clients: JSON-RPC 2.0, one message per line, offering the automation
// service's operations and the two scanners as tools. This is the protocol
// core without I/O; `veltrane mcp serve` feeds it lines from stdin and writes
// its answers to stdout.
//
// Changing tools follow the service's own `automationWritesAllowed`, asked
// afresh for every tools/list and every changing call: when the service does
// not grant writes (or cannot be asked), they are neither listed nor run.
//
// One thread at a time: the server keeps no state between lines but the
// automation object it was given, which need not be thread-safe.
class MCPServer {
public:
    // The discovery that the scan tools run. Tests give their own; the
    // defaults scan this machine.
    struct Scanners {
        std::function<std::vector<LocalProxyScanner::Candidate>()> proxies;
        std::function<std::vector<TunnelInterface>()> tunnels;

        static Scanners system();
    };

    static constexpr std::string_view serverName = "veltrane";
    static constexpr std::string_view serverVersion = "0.1.0";

    // The protocol revisions this server speaks, oldest first. A client that
    // asks for another gets the last one, and decides itself whether to go on.
    static const std::vector<std::string>& supportedProtocolVersions();

    explicit MCPServer(AutomationXPCProtocol& automation, Scanners scanners = Scanners::system());
    ~MCPServer();
    MCPServer(const MCPServer&) = delete;
    MCPServer& operator=(const MCPServer&) = delete;

    // One incoming message, as read from the wire without its line feed. The
    // answer is one line of JSON without a line feed; notifications, replies
    // from the client and blank lines get none. Never throws: whatever the
    // automation object or the bytes do ends in a JSON-RPC error or a tool
    // result with isError.
    std::optional<std::string> handleLine(std::string_view line);

private:
    struct Tool;
    AutomationXPCProtocol& automation_;
    Scanners scanners_;
    std::vector<Tool> tools_;

    nlohmann::json dispatch(const std::string& method, const nlohmann::json& params);
    nlohmann::json callTool(const nlohmann::json& params);
    nlohmann::json listTools();
    // nullopt when writes are granted; else why not, for the user.
    std::optional<std::string> writesRefused();
};

// The JSON that the scan tools answer and `veltrane scan --json` prints:
// field names as keys, absent optionals left out.
nlohmann::json toJSON(const LocalProxyScanner::Candidate& candidate);
nlohmann::json toJSON(const TunnelInterface& tunnel);

// A proxy in the form the profile stores it, which is what the automation
// service's addProxyWithJson takes.
std::string encodeProxyServer(const ProxyServer& proxy);

} // namespace veltrane::kit
