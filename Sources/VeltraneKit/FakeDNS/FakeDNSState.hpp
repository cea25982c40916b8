#pragma once

#include "VeltraneKit/FakeDNS/FakeIPAllocator.hpp"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace veltrane::kit {

// What a host answering DNS with fake addresses keeps in its runtime
// directory: the address table, so that a restarted host still knows the
// names behind addresses that applications hold, and what `veltrane dns`
// shows. Private to its owner (0600): the names tell where users go.
struct FakeDNSState {
    static constexpr std::string_view fileName = "fake-dns.json";

    std::int64_t pid = 0;     // the host that wrote it
    bool answering = false;   // the profile in force answers A queries
    std::string resolver;     // where captured queries go: "192.0.2.2:53"
    std::int64_t savedAt = 0; // Unix seconds
    FakeIPAllocator::Table table;

    friend bool operator==(const FakeDNSState&, const FakeDNSState&) = default;

    std::string encode() const;
    // Nothing, with the reason in `whyNot`, for text that is no such state.
    // Mappings whose address lies outside the pool are refused with it.
    static std::optional<FakeDNSState> decode(std::string_view text, std::string& whyNot);

    // The table as it stands `now` (Unix seconds): each entry has lost the
    // time that passed since it was saved.
    FakeIPAllocator::Table tableAt(std::int64_t now) const;

    static std::filesystem::path pathIn(const std::filesystem::path& runtimeDirectory) {
        return runtimeDirectory / fileName;
    }
};

} // namespace veltrane::kit
