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
        {"%s and %@", A{std::string("a"), std::string("b")}, "a and b"},
        {"%d %i %ld %lld", A{std::int64_t{-1}, std::int64_t{2}, std::int64_t{-3}, std::int64_t{4}},
         "-1 2 -3 4"},
        {"%u %lu %llu %hu",
         A{std::uint64_t{1}, std::uint64_t{2}, std::uint64_t{3}, std::uint64_t{4}}, "1 2 3 4"},
        {"%llu", A{std::uint64_t{18446744073709551615ull}}, "18446744073709551615"},
        {"%hu", A{std::int64_t{65537}}, "1"}, // taken at the width named
        {"%d", A{std::int64_t{4294967295ll}}, "-1"},
        {"%u", A{std::int64_t{-1}}, "4294967295"},
        {"%%@", A{std::string("x")}, "%@"},
        {"%@ %@", A{std::string("a")}, "a %@"}, // missing argument
        {"%lld", A{std::string("x")}, "%lld"},  // wrong kind
        {"%@", A{std::int64_t{3}}, "%@"},
        {"%@ then %d", A{std::int64_t{3}, std::int64_t{4}}, "%@ then 4"}, // still consumed
        {"%2$@ %1$@", A{std::string("a"), std::string("b")}, "b a"},
        {"%3$@", A{std::string("a")}, "%3$@"},
        {"%0$@", A{std::string("a")}, "%0$@"},
        {"%", A{}, "%"},
        {"%q %ls %lld", A{std::int64_t{5}}, "%q %ls 5"},
        {"%ll", A{std::int64_t{5}}, "%ll"},
        {"no placeholders", A{std::string("unused")}, "no placeholders"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(formatMessage(c.format, c.arguments), c.expected) << c.format;
    }
}

TEST(LocalizeTest, LooksUpThenFormats) {
    EXPECT_EQ(RL("命中"), "命中");

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
