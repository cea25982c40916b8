#include "VeltraneKit/TestRouteDTO.hpp"

#include "VeltraneKit/JSONText.hpp"

#include <nlohmann/json.hpp>

namespace veltrane::kit {

TestRouteDTO::TestRouteDTO(const Verdict& verdict) : action(verdict.actionDescription()) {
    if (verdict.matchedRule) {
        matchedRule = verdict.matchedRule->name;
    }
    trace.reserve(verdict.trace.size());
    for (const auto& entry : verdict.trace) {
        if (entry.matched) {
            trace.push_back("命中「" + entry.ruleName + "」");
        } else {
            trace.push_back("跳过「" + entry.ruleName + "」：" + entry.reason);
        }
    }
}

std::string TestRouteDTO::json() const {
    nlohmann::json object = {{"action", action}, {"trace", trace}};
    if (matchedRule) {
        object["matchedRule"] = *matchedRule;
    }
    return dumpEscapingSlashes(object, -1);
}

} // namespace veltrane::kit
