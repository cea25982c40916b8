#pragma once

#include "VeltraneKit/ConnectionEvent.hpp"

#include <cstdint>
#include <optional>
#include <string>

namespace veltrane::kit {

// The filter of a connection query. An absent field is no filter.
struct ConnectionQueryDTO {
    static constexpr std::int64_t defaultLimit = 500;

    std::optional<std::string> app;  // substring of the app name or bundle id
    std::optional<std::string> host; // substring of the destination host
    std::optional<std::int64_t> sinceMinutes;
    // At most so many of the newest matching events. Zero or a negative
    // value gives none.
    std::optional<std::int64_t> limit;

    // `now` minus `sinceMinutes` minutes, computed in floating point; a
    // negative count lies in the future and so matches nothing.
    std::optional<Timestamp> since(Timestamp now) const;
    std::int64_t effectiveLimit() const { return limit.value_or(defaultLimit); }

    friend bool operator==(const ConnectionQueryDTO&, const ConnectionQueryDTO&) = default;
};

} // namespace veltrane::kit
