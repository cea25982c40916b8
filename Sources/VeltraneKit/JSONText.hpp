#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace veltrane::kit {

// The text of a JSON value as every document of the system is written: keys
// sorted (nlohmann's objects keep them so), "/" escaped as "\/", UTF-8 kept,
// invalid UTF-8 replaced rather than refused. indent < 0 gives one line.
std::string dumpEscapingSlashes(const nlohmann::json& value, int indent);

} // namespace veltrane::kit
