#include "VeltraneKit/IPv4.hpp"

#include <gtest/gtest.h>

using namespace veltrane::kit;

namespace {

TEST(IPv4Test, Parses) {
    struct {
        const char* text;
        std::optional<std::uint32_t> expected;
    } cases[] = {
        {"0.0.0.0", 0u},
        {"255.255.255.255", 0xFFFFFFFFu},
        {"1.2.3.4", 0x01020304u},
        {"010.0.0.1", 0x0A000001u}, // decimal, not octal
        {"000000000001.2.3.4", 0x01020304u},
        {"+1.+2.+3.+4", 0x01020304u},
        {"1.2.3", std::nullopt},
        {"1.2.3.4.5", std::nullopt},
        {"1.2.3.4.", std::nullopt},
        {"1..2.3", std::nullopt},
        {"1.2.3.256", std::nullopt},
        {"1.2.3.99999999999999999999", std::nullopt},
        {"1.2.3.-4", std::nullopt},
        {"1.2.3.+", std::nullopt},
        {"1.2.3.++4", std::nullopt},
        {" 1.2.3.4", std::nullopt},
        {"1.2.3.0x4", std::nullopt},
        {"", std::nullopt},
        {"１.2.3.4", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(IPv4::parse(c.text), c.expected) << "'" << c.text << "'";
    }
}

TEST(IPv4Test, FormatsAndRoundTrips) {
    struct {
        std::uint32_t value;
        const char* text;
    } cases[] = {
        {0, "0.0.0.0"},
        {0xFFFFFFFF, "255.255.255.255"},
        {0x0A000001, "10.0.0.1"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(IPv4::format(c.value), c.text);
        EXPECT_EQ(IPv4::parse(c.text), c.value);
    }
}

} // namespace
