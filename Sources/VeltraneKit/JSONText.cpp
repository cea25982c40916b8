#include "VeltraneKit/JSONText.hpp"

#include <nlohmann/json.hpp>

namespace veltrane::kit {

std::string dumpEscapingSlashes(const nlohmann::json& value, int indent) {
    const std::string text =
        value.dump(indent, ' ', false, nlohmann::json::error_handler_t::replace);
    // Outside strings the serializer never writes "/", so every slash in the
    // text belongs to a string value or key and can be escaped in place.
    std::string out;
    out.reserve(text.size() + 8);
    for (char c : text) {
        if (c == '/') {
            out += "\\/";
        } else {
            out += c;
        }
    }
    return out;
}

} // namespace veltrane::kit
