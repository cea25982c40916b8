#pragma once

#include "VeltraneKit/FakeDNS/FakeIPAllocator.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace veltrane::core {

// Decides for one DNS query datagram whether it is answered here with a fake
// address or passed on to a real resolver, and builds the answer. A plain
// value, rebuilt with each profile; the allocator it shares is the one piece
// of state and guards itself, so any thread may call it.
struct DNSResponder {
    using Bytes = std::vector<std::uint8_t>;

    // The first question of a query.
    struct Question {
        std::string name; // labels joined with ".", case as sent
        std::uint16_t qtype = 0;
        std::uint16_t qclass = 0;
        std::size_t questionEnd = 0; // offset just behind the question

        friend bool operator==(const Question&, const Question&) = default;
    };

    struct Answered {
        Bytes response;
        std::string hostname; // as the query spelled it
        std::string fakeIP;

        friend bool operator==(const Answered&, const Answered&) = default;
    };
    struct Passthrough {
        std::optional<std::string> hostname; // nullopt: the query did not parse

        friend bool operator==(const Passthrough&, const Passthrough&) = default;
    };
    using Outcome = std::variant<Answered, Passthrough>;

    // Wildcard exclusions, compiled anew on every call.
    struct WildcardPatternBridge {
        static bool matches(std::string_view pattern, std::string_view candidate);
    };

    static constexpr std::string_view computerNamePattern = "%ComputerName%";

    std::shared_ptr<kit::FakeIPAllocator> allocator;
    std::vector<std::string> exclusions;
    std::uint32_t ttl = 60;
    // The machine's name as users know it; the host name unless a test says
    // otherwise. Read at each use.
    std::function<std::string()> computerName = currentComputerName;

    DNSResponder(std::shared_ptr<kit::FakeIPAllocator> allocator,
                 std::vector<std::string> exclusions);

    // Never fails; changes nothing but the allocator's table.
    Outcome handle(std::span<const std::uint8_t> query) const;

    // Parsers of untrusted bytes: never throw, never read past the span.
    static std::optional<Question> parseQuestion(std::span<const std::uint8_t> datagram);
    static std::optional<Bytes> buildAResponse(std::span<const std::uint8_t> query,
                                               std::size_t questionEnd, std::string_view ip,
                                               std::uint32_t ttl);

    bool isExcluded(std::string_view host) const;

    static std::string currentComputerName();
};

} // namespace veltrane::core
