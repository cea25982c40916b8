#pragma once

#include "VeltraneKit/ConnectionEvent.hpp"
#include "VeltraneKit/ConnectionQueryDTO.hpp"
#include "VeltraneKit/StatsSnapshot.hpp"

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The JSON of events, counters and queries, shared by the extension and the
// programs that read it. Keys sorted, one line, "/" written as "\/", dates as
// ISO 8601 in UTC with whole seconds and a trailing "Z". Optional fields are
// left out when absent and read back as absent from a missing key or null.
// Decoding is all or nothing: a missing required key, an enumeration text
// outside its table or a date in another form fails the whole document.
// Stateless, so any thread may use it at any time.
namespace veltrane::kit::DTOCoding {

// "2024-05-01T10:00:00Z"; the fraction of a second is dropped.
std::string formatDate(Timestamp date);
// The internet date-time form with whole seconds: "Z" or a "+HH:MM"/"-HH:MM"
// offset. Anything else gives nullopt.
std::optional<Timestamp> parseDate(std::string_view text);

// Values, for embedding in larger documents. An event whose lifetime is not
// a finite number has no JSON form.
std::optional<nlohmann::json> toJSON(const ConnectionEvent& event);
nlohmann::json toJSON(const AppStats& stats);
nlohmann::json toJSON(const StatsSnapshot& snapshot);
nlohmann::json toJSON(const ConnectionQueryDTO& query);

std::optional<ConnectionEvent> eventFromJSON(const nlohmann::json& value);
std::optional<AppStats> appStatsFromJSON(const nlohmann::json& value);
std::optional<StatsSnapshot> statsFromJSON(const nlohmann::json& value);
std::optional<ConnectionQueryDTO> queryFromJSON(const nlohmann::json& value);

// Documents. Encoding fails (nullopt) only for an event without a JSON form.
std::optional<std::string> encode(const ConnectionEvent& event);
std::optional<std::string> encode(const std::vector<ConnectionEvent>& events);
std::string encode(const StatsSnapshot& snapshot);
std::string encode(const ConnectionQueryDTO& query);
std::string encode(const nlohmann::json& value);

std::optional<ConnectionEvent> decodeEvent(std::string_view text);
std::optional<std::vector<ConnectionEvent>> decodeEvents(std::string_view text);
std::optional<StatsSnapshot> decodeStats(std::string_view text);
std::optional<ConnectionQueryDTO> decodeQuery(std::string_view text);
// Any JSON text; never throws.
std::optional<nlohmann::json> parse(std::string_view text);

} // namespace veltrane::kit::DTOCoding
