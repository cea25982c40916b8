#pragma once

#include "VeltraneKit/DTOCoding.hpp"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Readers of one required field each, for the automation records' decoding:
// false when the key is missing or holds another JSON type (null included).
namespace veltrane::kit::DTOFields {

inline bool readString(const nlohmann::json& object, const char* key, std::string& out) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_string()) {
        return false;
    }
    out = it->get<std::string>();
    return true;
}

inline bool readBool(const nlohmann::json& object, const char* key, bool& out) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_boolean()) {
        return false;
    }
    out = it->get<bool>();
    return true;
}

inline bool readStrings(const nlohmann::json& object, const char* key,
                        std::vector<std::string>& out) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_array()) {
        return false;
    }
    out.clear();
    for (const auto& element : *it) {
        if (!element.is_string()) {
            return false;
        }
        out.push_back(element.get<std::string>());
    }
    return true;
}

// A whole number within the signed 64-bit range, written with or without a
// fraction of zero.
inline bool readInteger(const nlohmann::json& object, const char* key, std::int64_t& out) {
    auto it = object.find(key);
    if (it == object.end()) {
        return false;
    }
    if (it->is_number_unsigned()) {
        const auto v = it->get<std::uint64_t>();
        if (v > static_cast<std::uint64_t>(INT64_MAX)) {
            return false;
        }
        out = static_cast<std::int64_t>(v);
        return true;
    }
    if (it->is_number_integer()) {
        out = it->get<std::int64_t>();
        return true;
    }
    if (it->is_number_float()) {
        const double v = it->get<double>();
        if (!(v >= -9223372036854775808.0 && v < 9223372036854775808.0) ||
            static_cast<double>(static_cast<std::int64_t>(v)) != v) {
            return false;
        }
        out = static_cast<std::int64_t>(v);
        return true;
    }
    return false;
}

template <class T>
std::optional<std::vector<T>> decodeArray(std::string_view text,
                                          std::optional<T> (*fromJSON)(const nlohmann::json&)) {
    auto value = DTOCoding::parse(text);
    if (!value || !value->is_array()) {
        return std::nullopt;
    }
    std::vector<T> items;
    items.reserve(value->size());
    for (const auto& element : *value) {
        auto item = fromJSON(element);
        if (!item) {
            return std::nullopt;
        }
        items.push_back(std::move(*item));
    }
    return items;
}

} // namespace veltrane::kit::DTOFields
