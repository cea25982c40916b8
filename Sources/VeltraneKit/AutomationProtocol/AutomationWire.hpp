#pragma once

#include "VeltraneKit/AutomationProtocol/AutomationXPCProtocol.hpp"

#include <cstddef>
#include <string>
#include <string_view>

// The automation service on its Unix socket speaks the line protocol of the
// extension's control service (ExtensionControlWire.hpp): one JSON request
// per line,
//   {"arguments":["Work"],"id":7,"selector":"switchProfileWithName:reply:"}
// and one reply per line. Arguments come in the operation's order: text as a
// JSON string, a boolean as a JSON boolean, the port as a JSON integer from 0
// to 65535, and a data argument as the JSON document itself, embedded (not as
// a string holding it). A reply carries the values of the reply callback:
//   {"id":7,"reply":[<data or null>,"<text>"]}   data and text
//   {"id":7,"reply":["<text>"]}                  text
// An operation that could not be done (AutomationReply::succeeded false), a
// request that does not read, an unknown selector, or arguments of the wrong
// number or type come back as the error line with the text:
//   {"error":"<text>","id":7}
namespace veltrane::kit {

namespace AutomationWire {
// Requests longer than this are refused by the server; it leaves room for an
// imported profile with thousands of rules.
inline constexpr std::size_t maxRequestLength = 8u << 20;

// Whether the operation's reply has a data value; false for text-only ones
// and for unknown selectors.
bool replyHasData(std::string_view selector);
} // namespace AutomationWire

// Serves one request line (without its line end) with `service` and returns
// the reply line (without its line end). Never throws: whatever goes wrong,
// in the request or in the service, becomes an error line.
std::string handleAutomationLine(AutomationXPCProtocol& service, std::string_view line);

} // namespace veltrane::kit
