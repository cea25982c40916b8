#include "VeltraneKit/DTOCoding.hpp"

#include "VeltraneKit/JSONText.hpp"

#include <cmath>
#include <cstdio>
#include <limits>
#include <nlohmann/json.hpp>

namespace veltrane::kit::DTOCoding {

using nlohmann::json;

namespace {

// Two-digit (or four-digit) decimal field at `text[pos]`, or -1.
int digits(std::string_view text, std::size_t pos, std::size_t count) {
    if (pos + count > text.size()) {
        return -1;
    }
    int value = 0;
    for (std::size_t i = pos; i < pos + count; ++i) {
        if (text[i] < '0' || text[i] > '9') {
            return -1;
        }
        value = value * 10 + (text[i] - '0');
    }
    return value;
}

bool hasChar(std::string_view text, std::size_t pos, char c) {
    return pos < text.size() && text[pos] == c;
}

// Readers of one field each; false means the document does not decode.
bool readString(const json& object, const char* key, std::string& out) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_string()) {
        return false;
    }
    out = it->get<std::string>();
    return true;
}

bool readOptionalString(const json& object, const char* key, std::optional<std::string>& out) {
    auto it = object.find(key);
    if (it == object.end() || it->is_null()) {
        out.reset();
        return true;
    }
    if (!it->is_string()) {
        return false;
    }
    out = it->get<std::string>();
    return true;
}

bool readUnsigned(const json& value, std::uint64_t& out) {
    if (value.is_number_unsigned()) {
        out = value.get<std::uint64_t>();
        return true;
    }
    if (value.is_number_integer()) {
        const auto v = value.get<std::int64_t>();
        if (v < 0) {
            return false;
        }
        out = static_cast<std::uint64_t>(v);
        return true;
    }
    if (value.is_number_float()) {
        const double v = value.get<double>();
        // 2^64 itself is out of range; every double below it converts exactly.
        if (!(v >= 0) || v >= 18446744073709551616.0 || std::floor(v) != v) {
            return false;
        }
        out = static_cast<std::uint64_t>(v);
        return true;
    }
    return false;
}

bool readUnsigned(const json& object, const char* key, std::uint64_t& out) {
    auto it = object.find(key);
    return it != object.end() && readUnsigned(*it, out);
}

bool readSigned(const json& value, std::int64_t& out) {
    if (value.is_number_unsigned()) {
        const auto v = value.get<std::uint64_t>();
        if (v > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            return false;
        }
        out = static_cast<std::int64_t>(v);
        return true;
    }
    if (value.is_number_integer()) {
        out = value.get<std::int64_t>();
        return true;
    }
    if (value.is_number_float()) {
        const double v = value.get<double>();
        if (!(v >= -9223372036854775808.0 && v < 9223372036854775808.0) || std::floor(v) != v) {
            return false;
        }
        out = static_cast<std::int64_t>(v);
        return true;
    }
    return false;
}

bool readOptionalSigned(const json& object, const char* key, std::optional<std::int64_t>& out) {
    auto it = object.find(key);
    if (it == object.end() || it->is_null()) {
        out.reset();
        return true;
    }
    std::int64_t v = 0;
    if (!readSigned(*it, v)) {
        return false;
    }
    out = v;
    return true;
}

bool readDate(const json& object, const char* key, Timestamp& out) {
    std::string text;
    if (!readString(object, key, text)) {
        return false;
    }
    auto date = parseDate(text);
    if (!date) {
        return false;
    }
    out = *date;
    return true;
}

template <class T>
std::optional<T> decodeWith(std::string_view text, std::optional<T> (*fromJSON)(const json&)) {
    auto value = parse(text);
    if (!value) {
        return std::nullopt;
    }
    return fromJSON(*value);
}

} // namespace

std::string formatDate(Timestamp date) {
    using namespace std::chrono;
    const auto seconds = floor<std::chrono::seconds>(date);
    const auto day = floor<days>(seconds);
    const year_month_day ymd{day};
    const hh_mm_ss<std::chrono::seconds> time{seconds - day};
    char text[40];
    std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(ymd.year()),
                  static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                  static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                  static_cast<int>(time.seconds().count()));
    return text;
}

std::optional<Timestamp> parseDate(std::string_view text) {
    using namespace std::chrono;
    const int y = digits(text, 0, 4);
    const int mo = digits(text, 5, 2);
    const int d = digits(text, 8, 2);
    const int h = digits(text, 11, 2);
    const int mi = digits(text, 14, 2);
    const int s = digits(text, 17, 2);
    if (y < 0 || mo < 0 || d < 0 || h < 0 || mi < 0 || s < 0 || !hasChar(text, 4, '-') ||
        !hasChar(text, 7, '-') || !hasChar(text, 10, 'T') || !hasChar(text, 13, ':') ||
        !hasChar(text, 16, ':')) {
        return std::nullopt;
    }
    if (h > 23 || mi > 59 || s > 59) {
        return std::nullopt;
    }
    const year_month_day ymd{year{y}, month{static_cast<unsigned>(mo)},
                             day{static_cast<unsigned>(d)}};
    if (!ymd.ok()) {
        return std::nullopt;
    }
    int offsetMinutes = 0;
    const std::string_view zone = text.substr(19);
    if (zone == "Z") {
        offsetMinutes = 0;
    } else if (zone.size() == 6 && (zone[0] == '+' || zone[0] == '-') && zone[3] == ':') {
        const int oh = digits(zone, 1, 2);
        const int om = digits(zone, 4, 2);
        if (oh < 0 || om < 0 || oh > 23 || om > 59) {
            return std::nullopt;
        }
        offsetMinutes = (oh * 60 + om) * (zone[0] == '-' ? -1 : 1);
    } else {
        return std::nullopt;
    }
    const auto utc = sys_days{ymd} + hours{h} + minutes{mi} + seconds{s} - minutes{offsetMinutes};
    // The clock counts nanoseconds in 64 bits: about 1677 to 2262. A date
    // beyond that has no value here, which is a failed decoding, not a wrap.
    const auto limit = duration_cast<seconds>(Timestamp::duration::max());
    if (utc.time_since_epoch() >= limit || utc.time_since_epoch() <= -limit) {
        return std::nullopt;
    }
    return Timestamp{duration_cast<Timestamp::duration>(utc.time_since_epoch())};
}

std::optional<json> toJSON(const ConnectionEvent& event) {
    if (!std::isfinite(event.lifetime)) {
        return std::nullopt;
    }
    json object = json::object();
    object["id"] = event.id.uuidString();
    object["date"] = formatDate(event.date);
    object["app"] = event.app;
    if (event.bundleID) {
        object["bundleID"] = *event.bundleID;
    }
    if (event.responsibleApp) {
        object["responsibleApp"] = *event.responsibleApp;
    }
    if (event.appBundleName) {
        object["appBundleName"] = *event.appBundleName;
    }
    object["host"] = event.host;
    object["port"] = event.port;
    object["transport"] = std::string(rawValue(event.transport));
    object["phase"] = std::string(rawValue(event.phase));
    if (event.ruleName) {
        object["ruleName"] = *event.ruleName;
    }
    object["route"] = event.route;
    object["bytesSent"] = event.bytesSent;
    object["bytesReceived"] = event.bytesReceived;
    object["lifetime"] = event.lifetime;
    if (event.errorDescription) {
        object["errorDescription"] = *event.errorDescription;
    }
    return object;
}

json toJSON(const AppStats& stats) {
    return json{{"connections", stats.connections},
                {"bytesSent", stats.bytesSent},
                {"bytesReceived", stats.bytesReceived}};
}

json toJSON(const StatsSnapshot& snapshot) {
    json perApp = json::object();
    for (const auto& [key, stats] : snapshot.perApp) {
        perApp[key] = toJSON(stats);
    }
    return json{{"startedAt", formatDate(snapshot.startedAt)},
                {"totalConnections", snapshot.totalConnections},
                {"activeConnections", snapshot.activeConnections},
                {"failedConnections", snapshot.failedConnections},
                {"blockedConnections", snapshot.blockedConnections},
                {"bytesSent", snapshot.bytesSent},
                {"bytesReceived", snapshot.bytesReceived},
                {"perApp", std::move(perApp)}};
}

json toJSON(const ConnectionQueryDTO& query) {
    json object = json::object();
    if (query.app) {
        object["app"] = *query.app;
    }
    if (query.host) {
        object["host"] = *query.host;
    }
    if (query.sinceMinutes) {
        object["sinceMinutes"] = *query.sinceMinutes;
    }
    if (query.limit) {
        object["limit"] = *query.limit;
    }
    return object;
}

std::optional<ConnectionEvent> eventFromJSON(const json& value) {
    if (!value.is_object()) {
        return std::nullopt;
    }
    ConnectionEvent event;
    std::string id, transport, phase;
    std::uint64_t port = 0;
    if (!readString(value, "id", id) || !readDate(value, "date", event.date) ||
        !readString(value, "app", event.app) ||
        !readOptionalString(value, "bundleID", event.bundleID) ||
        !readOptionalString(value, "responsibleApp", event.responsibleApp) ||
        !readOptionalString(value, "appBundleName", event.appBundleName) ||
        !readString(value, "host", event.host) || !readUnsigned(value, "port", port) ||
        !readString(value, "transport", transport) || !readString(value, "phase", phase) ||
        !readOptionalString(value, "ruleName", event.ruleName) ||
        !readString(value, "route", event.route) ||
        !readUnsigned(value, "bytesSent", event.bytesSent) ||
        !readUnsigned(value, "bytesReceived", event.bytesReceived) ||
        !readOptionalString(value, "errorDescription", event.errorDescription)) {
        return std::nullopt;
    }
    auto uuid = UUID::parse(id);
    auto transportValue = flowTransportFromRaw(transport);
    auto phaseValue = phaseFromRaw(phase);
    auto lifetime = value.find("lifetime");
    if (!uuid || !transportValue || !phaseValue || port > 0xFFFF || lifetime == value.end() ||
        !lifetime->is_number()) {
        return std::nullopt;
    }
    event.id = *uuid;
    event.port = static_cast<std::uint16_t>(port);
    event.transport = *transportValue;
    event.phase = *phaseValue;
    event.lifetime = lifetime->get<double>();
    return event;
}

std::optional<AppStats> appStatsFromJSON(const json& value) {
    AppStats stats;
    if (!value.is_object() || !readUnsigned(value, "connections", stats.connections) ||
        !readUnsigned(value, "bytesSent", stats.bytesSent) ||
        !readUnsigned(value, "bytesReceived", stats.bytesReceived)) {
        return std::nullopt;
    }
    return stats;
}

std::optional<StatsSnapshot> statsFromJSON(const json& value) {
    StatsSnapshot snapshot;
    if (!value.is_object() || !readDate(value, "startedAt", snapshot.startedAt) ||
        !readUnsigned(value, "totalConnections", snapshot.totalConnections) ||
        !readUnsigned(value, "activeConnections", snapshot.activeConnections) ||
        !readUnsigned(value, "failedConnections", snapshot.failedConnections) ||
        !readUnsigned(value, "blockedConnections", snapshot.blockedConnections) ||
        !readUnsigned(value, "bytesSent", snapshot.bytesSent) ||
        !readUnsigned(value, "bytesReceived", snapshot.bytesReceived)) {
        return std::nullopt;
    }
    auto perApp = value.find("perApp");
    if (perApp == value.end() || !perApp->is_object()) {
        return std::nullopt;
    }
    for (const auto& [key, entry] : perApp->items()) {
        auto stats = appStatsFromJSON(entry);
        if (!stats) {
            return std::nullopt;
        }
        snapshot.perApp.emplace(key, *stats);
    }
    return snapshot;
}

std::optional<ConnectionQueryDTO> queryFromJSON(const json& value) {
    ConnectionQueryDTO query;
    if (!value.is_object() || !readOptionalString(value, "app", query.app) ||
        !readOptionalString(value, "host", query.host) ||
        !readOptionalSigned(value, "sinceMinutes", query.sinceMinutes) ||
        !readOptionalSigned(value, "limit", query.limit)) {
        return std::nullopt;
    }
    return query;
}

std::optional<std::string> encode(const ConnectionEvent& event) {
    auto value = toJSON(event);
    if (!value) {
        return std::nullopt;
    }
    return encode(*value);
}

std::optional<std::string> encode(const std::vector<ConnectionEvent>& events) {
    json array = json::array();
    for (const auto& event : events) {
        auto value = toJSON(event);
        if (!value) {
            return std::nullopt;
        }
        array.push_back(std::move(*value));
    }
    return encode(array);
}

std::string encode(const StatsSnapshot& snapshot) {
    return encode(toJSON(snapshot));
}

std::string encode(const ConnectionQueryDTO& query) {
    return encode(toJSON(query));
}

std::string encode(const json& value) {
    return dumpEscapingSlashes(value, -1);
}

std::optional<ConnectionEvent> decodeEvent(std::string_view text) {
    return decodeWith<ConnectionEvent>(text, &eventFromJSON);
}

std::optional<std::vector<ConnectionEvent>> decodeEvents(std::string_view text) {
    auto value = parse(text);
    if (!value || !value->is_array()) {
        return std::nullopt;
    }
    std::vector<ConnectionEvent> events;
    events.reserve(value->size());
    for (const auto& element : *value) {
        auto event = eventFromJSON(element);
        if (!event) {
            return std::nullopt;
        }
        events.push_back(std::move(*event));
    }
    return events;
}

std::optional<StatsSnapshot> decodeStats(std::string_view text) {
    return decodeWith<StatsSnapshot>(text, &statsFromJSON);
}

std::optional<ConnectionQueryDTO> decodeQuery(std::string_view text) {
    return decodeWith<ConnectionQueryDTO>(text, &queryFromJSON);
}

std::optional<json> parse(std::string_view text) {
    json value = json::parse(text.begin(), text.end(), nullptr, false);
    if (value.is_discarded()) {
        return std::nullopt;
    }
    return value;
}

} // namespace veltrane::kit::DTOCoding
