#pragma once

#include "VeltraneKit/RuleEngine.hpp"

#include <optional>
#include <string>
#include <vector>

namespace veltrane::kit {

// A route test as the automation contract and `veltrane test-route --json`
// report it: the route, the matched rule's name and one line per trace entry.
struct TestRouteDTO {
    std::string action;
    std::optional<std::string> matchedRule;
    std::vector<std::string> trace;

    TestRouteDTO() = default;
    explicit TestRouteDTO(const Verdict& verdict);

    // Sorted keys, "matchedRule" left out when no rule matched.
    std::string json() const;

    friend bool operator==(const TestRouteDTO&, const TestRouteDTO&) = default;
};

} // namespace veltrane::kit
