#include "VeltraneKit/DTOCoding.hpp"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <nlohmann/json.hpp>

using namespace veltrane::kit;
using namespace std::chrono_literals;
using nlohmann::json;

namespace {

const Timestamp kT0 = Timestamp(1'700'000'000s); // 2023-11-14T22:13:20Z

ConnectionEvent fullEvent() {
    ConnectionEvent e;
    e.id = *UUID::parse("6F9619FF-8B86-D011-B42D-00C04FC964FF");
    e.date = kT0 + 750ms; // the fraction is not written
    e.app = "Firefox";
    e.bundleID = "org.mozilla.firefox";
    e.responsibleApp = "Terminal";
    e.appBundleName = "Firefox.app";
    e.host = "example.com";
    e.port = 443;
    e.transport = FlowTransport::tcp;
    e.phase = ConnectionEvent::Phase::failed;
    e.ruleName = "Web";
    e.route = "proxy Office (10.0.0.1:1080 socks5)";
    e.bytesSent = 1234;
    e.bytesReceived = 18446744073709551615ull;
    e.lifetime = 1.5;
    e.errorDescription = "refused/reset";
    return e;
}

ConnectionEvent bareEvent() {
    ConnectionEvent e = fullEvent();
    e.bundleID.reset();
    e.responsibleApp.reset();
    e.appBundleName.reset();
    e.ruleName.reset();
    e.errorDescription.reset();
    e.phase = ConnectionEvent::Phase::direct;
    e.transport = FlowTransport::udp;
    e.lifetime = 0;
    return e;
}

TEST(DTOCodingTest, FormatsDatesInUTCWithWholeSecondsAndZ) {
    struct {
        Timestamp date;
        const char* text;
    } cases[] = {
        {Timestamp(0s), "1970-01-01T00:00:00Z"},
        {Timestamp(-1ms), "1969-12-31T23:59:59Z"}, // rounds down, not toward zero
        {Timestamp(951'782'400s), "2000-02-29T00:00:00Z"},
        {Timestamp(7'258'118'399s), "2199-12-31T23:59:59Z"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(DTOCoding::formatDate(c.date), c.text);
    }
}

TEST(DTOCodingTest, ParsesOnlyInternetDateTimeWithWholeSeconds) {
    struct {
        const char* text;
        std::optional<Timestamp> date;
    } cases[] = {
        {"2023-11-14T22:13:20Z", kT0},          {"2023-11-15T06:13:20+08:00", kT0},
        {"2023-11-14T20:43:20-01:30", kT0},     {"2000-02-29T00:00:00Z", Timestamp(951'782'400s)},
        {"9999-12-31T23:59:59Z", std::nullopt}, // beyond the clock's range
        {"1000-01-01T00:00:00Z", std::nullopt}, {"2023-11-14T22:13:20.5Z", std::nullopt},
        {"2023-11-14t22:13:20z", std::nullopt}, {"2023-11-14T22:13:20+0800", std::nullopt},
        {"2023-02-29T22:13:20Z", std::nullopt}, {"2023-11-14T24:00:00Z", std::nullopt},
        {"2023-11-14T22:60:00Z", std::nullopt}, {"2023-11-14T22:13:60Z", std::nullopt},
        {"2023-1-14T22:13:20Z", std::nullopt},  {"", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(DTOCoding::parseDate(c.text), c.date) << c.text;
    }
}

TEST(DTOCodingTest, EncodesAnEventWithSortedKeysEscapedSlashesAndNoAbsentKeys) {
    EXPECT_EQ(
        DTOCoding::encode(fullEvent()),
        R"J({"app":"Firefox","appBundleName":"Firefox.app","bundleID":"org.mozilla.firefox",)J"
        R"J("bytesReceived":18446744073709551615,"bytesSent":1234,)J"
        R"J("date":"2023-11-14T22:13:20Z","errorDescription":"refused\/reset",)J"
        R"J("host":"example.com","id":"6F9619FF-8B86-D011-B42D-00C04FC964FF",)J"
        R"J("lifetime":1.5,"phase":"failed","port":443,"responsibleApp":"Terminal",)J"
        R"J("route":"proxy Office (10.0.0.1:1080 socks5)","ruleName":"Web",)J"
        R"J("transport":"tcp"})J");
    EXPECT_EQ(DTOCoding::encode(bareEvent()),
              R"J({"app":"Firefox","bytesReceived":18446744073709551615,"bytesSent":1234,)J"
              R"J("date":"2023-11-14T22:13:20Z","host":"example.com",)J"
              R"J("id":"6F9619FF-8B86-D011-B42D-00C04FC964FF","lifetime":0.0,"phase":"direct",)J"
              R"J("port":443,"route":"proxy Office (10.0.0.1:1080 socks5)","transport":"udp"})J");
}

TEST(DTOCodingTest, EventsRoundTripExceptForTheFractionOfTheirDate) {
    for (ConnectionEvent e : {fullEvent(), bareEvent()}) {
        auto text = DTOCoding::encode(e);
        ASSERT_TRUE(text);
        auto back = DTOCoding::decodeEvent(*text);
        ASSERT_TRUE(back) << *text;
        e.date = kT0;
        EXPECT_EQ(*back, e);
        EXPECT_EQ(DTOCoding::encode(*back), text);
    }
    auto list = DTOCoding::encode(std::vector<ConnectionEvent>{fullEvent(), bareEvent()});
    ASSERT_TRUE(list);
    auto events = DTOCoding::decodeEvents(*list);
    ASSERT_TRUE(events);
    ASSERT_EQ(events->size(), 2u);
    EXPECT_EQ((*events)[1].ruleName, std::nullopt);
    EXPECT_EQ(DTOCoding::encode(std::vector<ConnectionEvent>{}), "[]");
}

TEST(DTOCodingTest, EventWithoutJSONFormFailsToEncode) {
    for (double lifetime : {std::nan(""), std::numeric_limits<double>::infinity()}) {
        ConnectionEvent e = fullEvent();
        e.lifetime = lifetime;
        EXPECT_EQ(DTOCoding::encode(e), std::nullopt);
        EXPECT_EQ(DTOCoding::encode(std::vector<ConnectionEvent>{bareEvent(), e}), std::nullopt);
    }
}

TEST(DTOCodingTest, DecodingAnEventIsAllOrNothing) {
    const json good = json::parse(*DTOCoding::encode(fullEvent()));
    for (const char* key : {"id", "date", "app", "host", "port", "transport", "phase", "route",
                            "bytesSent", "bytesReceived", "lifetime"}) {
        json doc = good;
        doc.erase(key);
        EXPECT_EQ(DTOCoding::eventFromJSON(doc), std::nullopt) << "without " << key;
        doc[key] = nullptr;
        EXPECT_EQ(DTOCoding::eventFromJSON(doc), std::nullopt) << key << " null";
    }
    for (const char* key :
         {"bundleID", "responsibleApp", "appBundleName", "ruleName", "errorDescription"}) {
        json doc = good;
        doc.erase(key);
        ASSERT_TRUE(DTOCoding::eventFromJSON(doc)) << "without " << key;
        doc[key] = nullptr; // null reads as absent
        auto e = DTOCoding::eventFromJSON(doc);
        ASSERT_TRUE(e) << key << " null";
        EXPECT_EQ(DTOCoding::toJSON(*e)->count(key), 0u) << "re-encoded " << key;
    }
    struct {
        const char* key;
        json value;
        bool reads;
    } cases[] = {
        {"phase", "OPEN", false},
        {"phase", "close", true},
        {"transport", "quic", false},
        {"port", 65535, true},
        {"port", 65536, false},
        {"port", -1, false},
        {"port", "443", false},
        {"port", 443.0, true},
        {"port", 443.5, false},
        {"lifetime", "1.5", false},
        {"date", 1700000000, false},
        {"id", "not-a-uuid", false},
        {"id", "6f9619ff-8b86-d011-b42d-00c04fc964ff", true},
        {"ruleName", 7, false},
        {"unknownKey", "ignored", true},
    };
    for (const auto& c : cases) {
        json doc = good;
        doc[c.key] = c.value;
        EXPECT_EQ(DTOCoding::eventFromJSON(doc).has_value(), c.reads)
            << c.key << " = " << c.value.dump();
    }
    EXPECT_EQ(DTOCoding::decodeEvent("not json"), std::nullopt);
    EXPECT_EQ(DTOCoding::decodeEvent("[]"), std::nullopt);
    const std::string one = *DTOCoding::encode(fullEvent());
    EXPECT_EQ(DTOCoding::decodeEvents("[" + one + ",{}]"), std::nullopt);
}

TEST(DTOCodingTest, StatsSnapshotHasItsExactFormAndRoundTrips) {
    StatsSnapshot s;
    s.startedAt = kT0;
    s.totalConnections = 10;
    s.activeConnections = 2;
    s.failedConnections = 3;
    s.blockedConnections = 4;
    s.bytesSent = 500;
    s.bytesReceived = 600;
    s.perApp["Firefox"] = AppStats{5, 100, 200};
    s.perApp["curl/8"] = AppStats{1, 2, 3};
    const std::string text = DTOCoding::encode(s);
    EXPECT_EQ(text, R"({"activeConnections":2,"blockedConnections":4,"bytesReceived":600,)"
                    R"("bytesSent":500,"failedConnections":3,"perApp":{"Firefox":)"
                    R"({"bytesReceived":200,"bytesSent":100,"connections":5},"curl\/8":)"
                    R"({"bytesReceived":3,"bytesSent":2,"connections":1}},)"
                    R"("startedAt":"2023-11-14T22:13:20Z","totalConnections":10})");
    EXPECT_EQ(DTOCoding::decodeStats(text), s);

    const json good = json::parse(text);
    for (const auto& [key, value] : good.items()) {
        json doc = good;
        doc.erase(key);
        EXPECT_EQ(DTOCoding::statsFromJSON(doc), std::nullopt) << "without " << key;
    }
    json doc = good;
    doc["perApp"]["Firefox"].erase("connections");
    EXPECT_EQ(DTOCoding::statsFromJSON(doc), std::nullopt);
    EXPECT_NE(DTOCoding::encode(StatsSnapshot::empty()).find(R"("perApp":{})"), std::string::npos);
}

TEST(DTOCodingTest, QueryFieldsAreAllOptional) {
    struct {
        const char* text;
        std::optional<ConnectionQueryDTO> query;
    } cases[] = {
        {"{}", ConnectionQueryDTO{}},
        {R"({"app":"fire","host":"x","limit":-3,"sinceMinutes":15})",
         ConnectionQueryDTO{"fire", "x", 15, -3}},
        {R"({"limit":null})", ConnectionQueryDTO{}},
        {R"({"limit":"5"})", std::nullopt},
        {R"({"sinceMinutes":1.5})", std::nullopt},
        {R"({"app":1})", std::nullopt},
        {R"([])", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(DTOCoding::decodeQuery(c.text), c.query) << c.text;
    }
    const ConnectionQueryDTO q{"a/b", std::nullopt, std::nullopt, 7};
    EXPECT_EQ(DTOCoding::encode(q), R"({"app":"a\/b","limit":7})");
    EXPECT_EQ(q.effectiveLimit(), 7);
    EXPECT_EQ(ConnectionQueryDTO{}.effectiveLimit(), 500);
    EXPECT_EQ((ConnectionQueryDTO{std::nullopt, std::nullopt, 2, std::nullopt}.since(kT0)),
              kT0 - 120s);
    EXPECT_EQ((ConnectionQueryDTO{std::nullopt, std::nullopt, -1, std::nullopt}.since(kT0)),
              kT0 + 60s);
}

} // namespace
