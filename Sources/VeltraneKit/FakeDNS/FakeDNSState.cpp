#include "VeltraneKit/FakeDNS/FakeDNSState.hpp"

#include "VeltraneKit/IPv4.hpp"

#include <nlohmann/json.hpp>

namespace veltrane::kit {

namespace {

constexpr std::uint32_t offsetMask = 0x1FFFF;

std::optional<std::uint32_t> offsetOf(const nlohmann::json& value) {
    if (!value.is_string()) {
        return std::nullopt;
    }
    const auto address = IPv4::parse(value.get<std::string>());
    if (!address || !FakeIPAllocator::isFakeIP(*address)) {
        return std::nullopt;
    }
    return *address & offsetMask;
}

} // namespace

std::string FakeDNSState::encode() const {
    nlohmann::json mappings = nlohmann::json::array();
    for (const auto& mapping : table.mappings) {
        mappings.push_back({{"address", FakeIPAllocator::addressOf(mapping.offset)},
                            {"host", mapping.host},
                            {"secondsLeft", mapping.secondsLeft}});
    }
    const nlohmann::json value = {{"pid", pid},
                                  {"answering", answering},
                                  {"resolver", resolver},
                                  {"savedAt", savedAt},
                                  {"nextAddress", FakeIPAllocator::addressOf(table.nextOffset)},
                                  {"mappings", std::move(mappings)}};
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::optional<FakeDNSState> FakeDNSState::decode(std::string_view text, std::string& whyNot) {
    const auto value = nlohmann::json::parse(text, nullptr, false);
    if (value.is_discarded() || !value.is_object()) {
        whyNot = "not a JSON object";
        return std::nullopt;
    }
    FakeDNSState state;
    auto field = [&](const char* key, auto check) -> const nlohmann::json* {
        const auto found = value.find(key);
        if (found == value.end() || !check(*found)) {
            whyNot = std::string("missing or mistyped \"") + key + "\"";
            return nullptr;
        }
        return &*found;
    };
    const auto* pid = field("pid", [](const auto& v) { return v.is_number_integer(); });
    const auto* answering = field("answering", [](const auto& v) { return v.is_boolean(); });
    const auto* resolver = field("resolver", [](const auto& v) { return v.is_string(); });
    const auto* savedAt = field("savedAt", [](const auto& v) { return v.is_number_integer(); });
    const auto* next = field("nextAddress", [](const auto& v) { return v.is_string(); });
    const auto* mappings = field("mappings", [](const auto& v) { return v.is_array(); });
    if (!pid || !answering || !resolver || !savedAt || !next || !mappings) {
        return std::nullopt;
    }
    state.pid = pid->get<std::int64_t>();
    state.answering = answering->get<bool>();
    state.resolver = resolver->get<std::string>();
    state.savedAt = savedAt->get<std::int64_t>();
    const auto nextOffset = offsetOf(*next);
    if (!nextOffset) {
        whyNot = "\"nextAddress\" is not a fake address";
        return std::nullopt;
    }
    state.table.nextOffset = *nextOffset;
    for (const auto& entry : *mappings) {
        const auto offset = entry.is_object() && entry.contains("address")
                                ? offsetOf(entry["address"])
                                : std::nullopt;
        if (!offset || !entry.contains("host") || !entry["host"].is_string() ||
            !entry.contains("secondsLeft") || !entry["secondsLeft"].is_number()) {
            whyNot = "a mapping without a fake address, a host and its seconds left";
            return std::nullopt;
        }
        state.table.mappings.push_back(
            {entry["host"].get<std::string>(), *offset, entry["secondsLeft"].get<double>()});
    }
    return state;
}

FakeIPAllocator::Table FakeDNSState::tableAt(std::int64_t now) const {
    auto aged = table;
    const double passed = now > savedAt ? static_cast<double>(now - savedAt) : 0.0;
    for (auto& mapping : aged.mappings) {
        mapping.secondsLeft -= passed;
    }
    return aged;
}

} // namespace veltrane::kit
