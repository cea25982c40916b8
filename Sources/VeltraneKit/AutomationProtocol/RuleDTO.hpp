#pragma once

#include "VeltraneKit/Profile.hpp"

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace veltrane::kit {

// A rule as automation clients see and send it: what a person edits, without
// the id, transport, QUIC policy and tags. `action` is text:
//   "direct", "block", "proxy:NAME", "chain:NAME", "interface:NAME".
struct RuleDTO {
    std::string name;
    bool enabled = true;
    std::vector<std::string> apps;
    std::vector<std::string> hosts;
    std::vector<std::string> ports;
    std::string action;
    bool locked = false;

    RuleDTO() = default;
    // Names the rule's proxy or chain from `profile`; "proxy:?" or "chain:?"
    // when the profile has no such id.
    RuleDTO(const Rule& rule, const Profile& profile);

    // A new rule for `profile`: fresh id, unlocked whatever `locked` says,
    // transport any, QUIC fallback, no tags. Throws ProfileStore::StoreError
    // (notFound) for a proxy or chain name the profile lacks, ImportError
    // (malformed) for an action outside the grammar.
    Rule makeRule(const Profile& profile) const;

    friend bool operator==(const RuleDTO&, const RuleDTO&) = default;
};

// The action grammar on its own, for the route of one application too.
// Case is ignored in the keywords; a proxy or chain name is matched ignoring
// case but not trimmed; an interface name is trimmed of blanks and tabs.
// Throws as RuleDTO::makeRule.
RuleAction ruleActionFromText(std::string_view text, const Profile& profile);
std::string ruleActionText(const RuleAction& action, const Profile& profile);

namespace DTOCoding {
// All seven keys are required when decoding, each of its own JSON type.
nlohmann::json toJSON(const RuleDTO& rule);
std::optional<RuleDTO> ruleFromJSON(const nlohmann::json& value);
std::string encode(const RuleDTO& rule);
std::string encode(const std::vector<RuleDTO>& rules);
std::optional<RuleDTO> decodeRule(std::string_view text);
std::optional<std::vector<RuleDTO>> decodeRules(std::string_view text);
} // namespace DTOCoding

} // namespace veltrane::kit
