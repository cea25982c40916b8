#pragma once

#include "../AutomationAccess.hpp"
#include "VeltraneKit/AutomationProtocol/AutomationXPCProtocol.hpp"

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

// What the store verbs share: how an operation's answer is shown and how
// their input files are read.
namespace veltrane::app::store {

// Shows a reply and gives the exit status. A failed reply is one line on
// stderr (and, with `json`, {"succeeded":false,"text":…} on stdout) and
// status 1. A reply with data prints the data as it came with `json`, else
// hands it, parsed, to `human`; data that does not parse is a failure too. A
// reply without data prints {"succeeded":true,"text":…} with `json`, else
// its text (or `fallback` when the text is empty).
int finish(const kit::AutomationReply& reply, bool json,
           const std::function<void(const nlohmann::json&)>& human = {},
           const std::string& fallback = "done");

// One line of JSON as every verb prints it: sorted keys, "/" as "\/".
void printJSON(const nlohmann::json& value);

// Reports a failure that is not an operation's: a line on stderr and, with
// `json`, the same JSON shape as a failed reply. Returns `status`.
int fail(const std::string& why, bool json, int status);

// The bytes of `path`, or of standard input for "-"; nullopt after one
// line on stderr.
std::optional<std::string> readInput(const std::string& path);

// Opens the automation access and runs `work` with it. Whatever the service
// or the store throws (a lost connection, a file that cannot be written)
// ends the verb with one line and status 1.
int withAutomation(bool json, const std::function<int(AutomationAccess&)>& work);

// Texts joined with ", ".
std::string joined(const std::vector<std::string>& items);

} // namespace veltrane::app::store
