#include "VeltraneKit/Localize.hpp"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

using namespace veltrane::kit;

namespace {

TEST(LocalizeTest, FormatsPlaceholders) {
    using A = std::vector<RLArgument>;
    struct {
        const char* format;
        A arguments;
        const char* expected;
    } cases[] = {
        {"应用不匹配（%@）", A{std::string("Safari")}, "应用不匹配（Safari）"},
        {"端口不匹配（%lld）", A{std::int64_t{443}}, "端口不匹配（443）"},
        {"%s and %@", A{std::string("a"), std::string("b")}, "a and b"},
        {"%d %i %ld %lld", A{std::int64_t{-1}, std::int64_t{2}, std::int64_t{-3}, std::int64_t{4}},
         "-1 2 -3 4"},
        {"%u %lu %llu %hu",
         A{std::uint64_t{1}, std::uint64_t{2}, std::uint64_t{3}, std::uint64_t{4}}, "1 2 3 4"},
        {"%llu", A{std::uint64_t{18446744073709551615ull}}, "18446744073709551615"},
        {"%lld", A{std::int64_t{-9223372036854775807ll - 1}}, "-9223372036854775808"},
        {"%hu", A{std::int64_t{65537}}, "1"}, // taken at the width named
        {"%d", A{std::int64_t{4294967295ll}}, "-1"},
        {"%u", A{std::int64_t{-1}}, "4294967295"},
        {"%lld", A{std::uint64_t{7}}, "7"},
        {"100%%", A{}, "100%"},
        {"%%@", A{std::string("x")}, "%@"},
        {"%@", A{}, "%@"}, // missing argument
        {"%@ %@", A{std::string("a")}, "a %@"},
        {"%lld", A{std::string("x")}, "%lld"}, // wrong kind
        {"%@", A{std::int64_t{3}}, "%@"},
        {"%@ then %d", A{std::int64_t{3}, std::int64_t{4}}, "%@ then 4"}, // still consumed
        {"%2$@ %1$@", A{std::string("a"), std::string("b")}, "b a"},
        {"%3$@", A{std::string("a")}, "%3$@"},
        {"%0$@", A{std::string("a")}, "%0$@"},
        {"%", A{}, "%"},
        {"50% off", A{}, "50% off"},
        {"%q %ls %lld", A{std::int64_t{5}}, "%q %ls 5"},
        {"%l", A{std::int64_t{5}}, "%l"},
        {"%ll", A{std::int64_t{5}}, "%ll"},
        {"no placeholders", A{std::string("unused")}, "no placeholders"},
        {"", A{}, ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(formatMessage(c.format, c.arguments), c.expected) << c.format;
    }
}

TEST(LocalizeTest, LooksUpThenFormats) {
    EXPECT_EQ(RL("命中"), "命中");
    EXPECT_EQ(RL("端口不匹配（%lld）", {std::int64_t{8080}}), "端口不匹配（8080）");

    installMessageCatalogue({{"命中", "hit"}, {"端口不匹配（%lld）", "port %lld does not match"}});
    EXPECT_EQ(RL("命中"), "hit");
    EXPECT_EQ(RL("默认直连"), "默认直连");
    EXPECT_EQ(RL("端口不匹配（%lld）", {std::int64_t{8080}}), "port 8080 does not match");

    installMessageCatalogue({});
    EXPECT_EQ(RL("命中"), "命中");
}

TEST(LocalizeTest, LookupsRaceWithInstalls) {
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; ++t) {
        readers.emplace_back([&] {
            while (!stop.load()) {
                const std::string text = RL("命中");
                if (text != "命中" && text != "hit") {
                    ++wrong;
                }
            }
        });
    }
    for (int i = 0; i < 200; ++i) {
        if (i % 2 == 0) {
            installMessageCatalogue({{"命中", "hit"}});
        } else {
            installMessageCatalogue({});
        }
    }
    stop = true;
    for (auto& reader : readers) {
        reader.join();
    }
    installMessageCatalogue({});
    EXPECT_EQ(wrong.load(), 0);
}

} // namespace
