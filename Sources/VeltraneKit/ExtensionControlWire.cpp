#include "VeltraneKit/ExtensionControlWire.hpp"

#include "VeltraneKit/JSONText.hpp"

#include <nlohmann/json.hpp>

namespace veltrane::kit::ExtensionControlWire {

using nlohmann::json;

std::string requestLine(std::string_view selector, const json& arguments, const json* id) {
    json request{{"selector", std::string(selector)}, {"arguments", arguments}};
    if (id) {
        request["id"] = *id;
    }
    return dumpEscapingSlashes(request, -1);
}

std::string replyLine(std::string_view values, const json* id) {
    // Keys in sorted order, as every document of the service: "id", "reply".
    std::string line = "{";
    if (id) {
        line += "\"id\":";
        line += dumpEscapingSlashes(*id, -1);
        line += ',';
    }
    line += "\"reply\":";
    line += values;
    line += '}';
    return line;
}

std::string errorLine(std::string_view message, const json* id) {
    json reply{{"error", std::string(message)}};
    if (id) {
        reply["id"] = *id;
    }
    return dumpEscapingSlashes(reply, -1);
}

} // namespace veltrane::kit::ExtensionControlWire
