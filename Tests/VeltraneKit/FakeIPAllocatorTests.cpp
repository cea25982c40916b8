#include "VeltraneKit/FakeDNS/FakeDNSState.hpp"
#include "VeltraneKit/FakeDNS/FakeIPAllocator.hpp"

#include <atomic>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

using namespace veltrane::kit;
using namespace std::chrono_literals;

namespace {

// A clock the test moves by hand; safe to read from several threads.
class ManualClock {
public:
    FakeIPAllocator::Now now() {
        return [this] { return FakeIPAllocator::Clock::time_point(ticks_.load() * 1ms); };
    }
    void advance(std::chrono::milliseconds by) { ticks_ += by.count(); }

private:
    std::atomic<std::int64_t> ticks_{1'000'000};
};

std::string hostNumber(std::size_t i) {
    return "host" + std::to_string(i) + ".example";
}

TEST(FakeIPAllocatorTest, HandsOutAddressesInOrderAcrossOctetBoundaries) {
    ManualClock clock;
    FakeIPAllocator allocator(0x10000, 3600, clock.now());
    // Index is 1-based: the n-th distinct host ever asked for.
    struct {
        std::size_t n;
        const char* expected;
    } cases[] = {
        {1, "198.18.0.2"},   {2, "198.18.0.3"},   {253, "198.18.0.254"},     {254, "198.18.0.255"},
        {255, "198.18.1.0"}, {256, "198.18.1.1"}, {65534, "198.18.255.255"}, {65535, "198.19.0.0"},
    };
    std::size_t next = 1;
    for (const auto& c : cases) {
        std::string got;
        for (; next <= c.n; ++next) {
            got = allocator.ip(hostNumber(next));
        }
        EXPECT_EQ(got, c.expected) << "host #" << c.n;
        EXPECT_EQ(allocator.host(c.expected), hostNumber(c.n));
    }
    EXPECT_EQ(allocator.count(), 65535u);
    EXPECT_TRUE(allocator.isConsistent());
}

TEST(FakeIPAllocatorTest, KeysByTheLowerCasedNameAndKeepsEverythingElse) {
    struct {
        const char* host;
        const char* other;
        bool sameAddress;
        const char* stored; // what host() gives back for `host`
    } cases[] = {
        {"EXAMPLE.com", "example.COM", true, "example.com"},
        {"example.com", "example.com.", false, "example.com"}, // a trailing dot is part of the key
        {"ÉCOLE.fr", "école.FR", true, "école.fr"},
        {"ς.example", "σ.example", false, "ς.example"}, // lower-cased, not folded
        {"Σ.example", "σ.example", true, "σ.example"},
        {"Ꭰ.example", "ꭰ.example", true, "ꭰ.example"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.host);
        ManualClock clock;
        FakeIPAllocator allocator(0x10000, 3600, clock.now());
        const std::string address = allocator.ip(c.host);
        EXPECT_EQ(allocator.ip(c.other) == address, c.sameAddress) << c.other;
        EXPECT_EQ(allocator.host(address), c.stored);
    }
}

TEST(FakeIPAllocatorTest, ExpiredEntryIsKeptAndRenewedUntilItsOffsetIsClaimed) {
    // Capacity 3: offsets 2 and 3 only, so the third host must reuse one.
    struct {
        const char* name;
        bool renewByReverseLookup;
    } cases[] = {{"renewed by ip(for:)", false}, {"renewed by host(for:)", true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ManualClock clock;
        FakeIPAllocator allocator(3, 10, clock.now());
        ASSERT_EQ(allocator.ip("a.example"), "198.18.0.2");
        ASSERT_EQ(allocator.ip("b.example"), "198.18.0.3");
        clock.advance(60s); // both expired, neither claimed yet
        if (c.renewByReverseLookup) {
            EXPECT_EQ(allocator.host("198.18.0.2"), "a.example");
        } else {
            EXPECT_EQ(allocator.ip("A.example"), "198.18.0.2");
        }
        // The cursor wrapped to 2; a is live again, so b's expired offset goes.
        EXPECT_EQ(allocator.ip("c.example"), "198.18.0.3");
        EXPECT_EQ(allocator.host("198.18.0.3"), "c.example");
        EXPECT_EQ(allocator.host("198.18.0.2"), "a.example");
        EXPECT_TRUE(allocator.isConsistent());
    }
}

TEST(FakeIPAllocatorTest, EntryExpiringAtThisVeryMomentIsStillLive) {
    ManualClock clock;
    FakeIPAllocator allocator(3, 10, clock.now());
    allocator.ip("a.example"); // offset 2, expires at +10s
    allocator.ip("b.example"); // offset 3, expires at +10s
    clock.advance(3s);
    allocator.host("198.18.0.2"); // a now expires at +13s
    clock.advance(10s);           // now == a's expiry, b expired 3s ago
    EXPECT_EQ(allocator.ip("c.example"), "198.18.0.3");
    EXPECT_EQ(allocator.host("198.18.0.2"), "a.example");
}

TEST(FakeIPAllocatorTest, FullTableOfLiveEntriesEvictsTheEarliestExpiry) {
    ManualClock clock;
    FakeIPAllocator allocator(0x10000, 3600, clock.now());
    for (std::size_t i = 1; i <= 65535; ++i) {
        allocator.ip(hostNumber(i));
        clock.advance(1ms);
    }
    // Host 1 (198.18.0.2) was used again, so host 2 (198.18.0.3) expires first.
    allocator.ip(hostNumber(1));
    EXPECT_EQ(allocator.ip("newcomer.example"), "198.18.0.3");
    EXPECT_EQ(allocator.host("198.18.0.3"), "newcomer.example");
    EXPECT_EQ(allocator.count(), 65535u);
    // The evicted host is forgotten; asking again evicts the next oldest (host 3).
    EXPECT_EQ(allocator.ip(hostNumber(2)), "198.18.0.4");
    EXPECT_EQ(allocator.host("198.18.0.2"), hostNumber(1));
    EXPECT_TRUE(allocator.isConsistent());
}

TEST(FakeIPAllocatorTest, ReverseLookUpAnswersOnlyForHandedOutAddresses) {
    ManualClock clock;
    FakeIPAllocator allocator(0x10000, 3600, clock.now());
    allocator.ip("known.example");
    struct {
        const char* text;
        bool isFake;
        std::optional<std::string> host;
    } cases[] = {
        {"198.18.0.2", true, "known.example"},
        {"198.18.0.3", true, std::nullopt},     // in the pool, never handed out
        {"198.19.255.255", true, std::nullopt}, // beyond the capacity
        {"198.18.0.0", true, std::nullopt},
        {"198.17.255.255", false, std::nullopt},
        {"198.20.0.2", false, std::nullopt}, // same offset bits, outside the pool
        {"known.example", false, std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(FakeIPAllocator::isFakeIP(std::string_view(c.text)), c.isFake) << c.text;
        EXPECT_EQ(allocator.host(c.text), c.host) << c.text;
    }
    EXPECT_EQ(allocator.count(), 1u);
}

// The table a host keeps across a restart: written and read back, aged by
// the time it lay on disk, and put into a new allocator that answers the same
// and goes on where the old one stopped; broken or foreign pairs stay out.
TEST(FakeIPAllocatorTest, TableSurvivesTheFileAndARestart) {
    ManualClock clock;
    FakeIPAllocator before(0x10000, 3600, clock.now());
    const auto live = before.ip("Live.example");
    const auto old = before.ip("old.example");
    clock.advance(1000s);
    before.ip("live.example");
    FakeDNSState state{42, true, "192.0.2.53:53", 5000, before.table()};
    std::string whyNot;
    const auto read = FakeDNSState::decode(state.encode(), whyNot);
    ASSERT_TRUE(read) << whyNot;
    EXPECT_EQ(*read, state);

    FakeIPAllocator after(0x10000, 3600, clock.now());
    after.restore(read->tableAt(5000 + 2700)); // down for 45 minutes
    EXPECT_EQ(after.host(live), "live.example");
    EXPECT_EQ(after.ip("third.example"), "198.18.0.4");
    // old.example had 2600 s left when saved: expired now, so its offset is
    // the next one claimed once the cursor comes round.
    auto table = after.table();
    EXPECT_LT(table.mappings[1].secondsLeft, 0);
    EXPECT_EQ(table.mappings[1].host, "old.example");
    EXPECT_EQ(old, "198.18.0.3");

    FakeIPAllocator::Table odd{{{"a.example", 2, 10},
                                {"b.example", 2, 10},       // offset taken
                                {"A.EXAMPLE", 3, 10},       // host taken
                                {"c.example", 0x10001, 10}, // beyond the capacity
                                {"d.example", 5, 10}},
                               0x20000};
    after.restore(odd);
    EXPECT_EQ(after.count(), 2u);
    EXPECT_TRUE(after.isConsistent());
    EXPECT_EQ(after.ip("new.example"), "198.18.0.3"); // the cursor starts over; 2 is live

    for (const char* bad : {"[]", R"({"pid":1})",
                            R"({"pid":1,"answering":true,"resolver":"","savedAt":0,)"
                            R"("nextAddress":"10.0.0.2","mappings":[]})",
                            R"({"pid":1,"answering":true,"resolver":"","savedAt":0,)"
                            R"("nextAddress":"198.18.0.2","mappings":[{"address":"10.0.0.1",)"
                            R"("host":"x","secondsLeft":1}]})"}) {
        EXPECT_FALSE(FakeDNSState::decode(bad, whyNot)) << bad;
    }
}

TEST(FakeIPAllocatorTest, TwoThreadsMixingLookUpsKeepTheTablesExactInverses) {
    ManualClock clock;
    // A small table so that claims, expiry and eviction all happen under load.
    FakeIPAllocator allocator(40, 0.005, clock.now());
    constexpr int kRounds = 20000;
    std::atomic<int> mismatches{0};
    auto worker = [&](int seed) {
        for (int i = 0; i < kRounds; ++i) {
            const std::string host = "h" + std::to_string((i * 7 + seed) % 97) + ".example";
            const std::string ip = allocator.ip(host);
            if (!FakeIPAllocator::isFakeIP(std::string_view(ip))) {
                ++mismatches;
            }
            // Another thread may have taken the address in between; if the
            // answer names a host, it must be a well-formed one of ours.
            if (auto back = allocator.host(ip); back && back->rfind('h', 0) != 0) {
                ++mismatches;
            }
            if (i % 16 == seed) {
                clock.advance(1ms);
            }
        }
    };
    std::thread one(worker, 0), two(worker, 5);
    one.join();
    two.join();
    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_TRUE(allocator.isConsistent());
    EXPECT_LE(allocator.count(), 39u);
}

} // namespace
