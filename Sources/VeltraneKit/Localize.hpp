#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace veltrane::kit {

// One argument of a formatted message: text for %@ and %s, an integer for
// %d, %ld, %lld, %u, %hu and the like.
using RLArgument = std::variant<std::string, std::int64_t, std::uint64_t>;

// Message lookup: the quoted text is its own key. With no catalogue installed
// (the normal case) the key comes back unchanged; formatting comes after the
// lookup.
std::string RL(std::string_view key);
std::string RL(std::string_view key, const std::vector<RLArgument>& arguments);

// printf-style formatting of the subset above; "%%" is a percent sign, a
// placeholder without an argument is left as written.
std::string formatMessage(std::string_view format, const std::vector<RLArgument>& arguments);

// Replaces the process's catalogue (key -> translated format). Meant for a
// program's start-up; lookups after it see the new table.
void installMessageCatalogue(std::map<std::string, std::string, std::less<>> catalogue);

} // namespace veltrane::kit
