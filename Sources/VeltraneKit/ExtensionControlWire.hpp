#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

// The line protocol of the extension's read-only control service, shared by
// the service and its clients. A request is one JSON object on one line:
//   {"arguments":[5],"id":1,"selector":"fetchEventsSinceToken:reply:"}
// "arguments" may be left out when there are none, "id" is any JSON value and
// comes back unchanged. A reply is one JSON object on one line, either
//   {"id":1,"reply":[<values of the reply callback>]}
// or, for a request that could not be served,
//   {"error":"<why>","id":1}
// Data values of a reply are JSON documents embedded as they are, or null
// when there is no data.
namespace veltrane::kit::ExtensionControlWire {

inline constexpr std::string_view pingSelector = "pingWithReply:";
inline constexpr std::string_view fetchEventsSelector = "fetchEventsSinceToken:reply:";
inline constexpr std::string_view fetchStatsSelector = "fetchStatsWithReply:";

// One request line, without its line end.
std::string requestLine(std::string_view selector, const nlohmann::json& arguments,
                        const nlohmann::json* id = nullptr);

// Reply lines, without their line ends. `values` is the text of a JSON array
// (so that embedded documents go out byte for byte); `id` the request's id,
// if it had one.
std::string replyLine(std::string_view values, const nlohmann::json* id);
std::string errorLine(std::string_view message, const nlohmann::json* id);

} // namespace veltrane::kit::ExtensionControlWire
