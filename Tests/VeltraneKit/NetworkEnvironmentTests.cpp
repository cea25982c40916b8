#include "Support/TempDir.hpp"
#include "VeltraneKit/ProfileStore/FingerprintReader.hpp"
#include "VeltraneKit/ProfileStore/ProfileStore.hpp"

#include <filesystem>
#include <gtest/gtest.h>

using namespace veltrane::kit;
using veltrane::test::TempDir;
namespace fs = std::filesystem;
using Fingerprint = NetworkEnvironment::Fingerprint;
using Type = Fingerprint::InterfaceType;
using Wifi = NetworkEnvironment::Wifi;
using Wired = NetworkEnvironment::Wired;

namespace {

NetworkEnvironment environment(NetworkEnvironment::Kind kind) {
    return {UUID::random(), "env", std::move(kind)};
}

constexpr std::string_view routeHeader =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";
constexpr std::string_view arpHeader =
    "IP address       HW type     Flags       HW address            Mask     Device\n";

// A /proc/net table: its header line, then the rows.
std::string procTable(std::string_view header, std::string_view rows) {
    std::string table(header);
    table += rows;
    return table;
}

} // namespace

TEST(NetworkEnvironment, MatchesByKindAndField) {
    const Wired anyWired{};
    const Wired exact{"AA:BB:CC:00:11:22", "192.168.1.0/24"};
    const Wired emptyMAC{"", "10.0.0.0/8"};
    struct {
        NetworkEnvironment::Kind kind;
        Fingerprint fingerprint;
        bool matches;
    } cases[] = {
        {Wifi{"Home"}, {Type::wifi, "hOME", {}, {}}, true},
        {Wifi{"Home"}, {Type::wifi, "Home2", {}, {}}, false},
        {Wifi{"Home"}, {Type::wifi, {}, {}, {}}, false},
        {Wifi{"Home"}, {Type::wired, "Home", {}, {}}, false},
        {anyWired, {Type::wired, {}, {}, {}}, true},
        {anyWired, {Type::other, {}, {}, {}}, false},
        {exact, {Type::wired, {}, "aa:bb:cc:00:11:22", "192.168.1.0/24"}, true},
        {exact, {Type::wired, {}, "aa:bb:cc:00:11:23", "192.168.1.0/24"}, false},
        {exact, {Type::wired, {}, {}, "192.168.1.0/24"}, false},
        {exact, {Type::wired, {}, "aa:bb:cc:00:11:22", "192.168.001.0/24"}, false},
        {emptyMAC, {Type::wired, {}, {}, "10.0.0.0/8"}, true},
        {Wired{{}, "Net-A"}, {Type::wired, {}, {}, "net-a"}, false},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        EXPECT_EQ(environment(cases[i].kind).matches(cases[i].fingerprint), cases[i].matches)
            << "case " << i;
    }
}

TEST(NetworkEnvironment, FingerprintJSON) {
    Fingerprint full{Type::wired, "a/b", "aa:bb", "10.0.0.0/8"};
    EXPECT_EQ(encodeFingerprint(full), "{\"gatewayMAC\":\"aa:bb\",\"interfaceType\":\"wired\","
                                       "\"ssid\":\"a\\/b\",\"subnet\":\"10.0.0.0\\/8\"}");
    EXPECT_EQ(decodeFingerprint(encodeFingerprint(full)), full);
    EXPECT_EQ(encodeFingerprint({Type::other, {}, {}, {}}), "{\"interfaceType\":\"other\"}");
    EXPECT_EQ(decodeFingerprint(R"({"interfaceType":"wifi","ssid":null,"x":1})"),
              (Fingerprint{Type::wifi, {}, {}, {}}));
    for (const char* bad :
         {R"({"ssid":"a"})", R"({"interfaceType":null})", R"({"interfaceType":"Wifi"})",
          R"({"interfaceType":"wifi","ssid":1})", "[]", "{"}) {
        EXPECT_FALSE(decodeFingerprint(bad)) << bad;
    }
}

TEST(NetworkEnvironment, ProfileMatchingTakesFirstByNameThenEnvironmentOrder) {
    TempDir temp;
    ProfileStore store(temp.path);
    const Fingerprint office{Type::wired, {}, "aa:bb:cc:dd:ee:ff", "10.1.0.0/16"};
    EXPECT_FALSE(store.profileMatching(office));

    auto bind = [&](const std::string& name, std::vector<NetworkEnvironment> environments) {
        auto profile = store.create(name).with({.environments = std::move(environments)});
        store.save(profile);
        return profile;
    };
    bind("C-exact", {environment(Wired{"AA:BB:CC:DD:EE:FF", "10.1.0.0/16"})});
    EXPECT_EQ(store.profileMatching(office)->name, "C-exact");
    bind("B-wifi-then-any", {environment(Wifi{"cafe"}), environment(Wired{})});
    EXPECT_EQ(store.profileMatching(office)->name, "B-wifi-then-any");
    EXPECT_EQ(store.profileMatching({Type::wifi, "CAFE", {}, {}})->name, "B-wifi-then-any");
    EXPECT_FALSE(store.profileMatching({Type::wifi, "elsewhere", {}, {}}));
    EXPECT_FALSE(store.profileMatching({Type::other, {}, {}, {}}));
}

TEST(NetworkEnvironment, ReaderOverFakeProcAndSys) {
    // An unreachable default (reject) and a worse one come before the best.
    const std::string route = "*\t00000000\t00000000\t0201\t0\t0\t0\t00000000\t0\t0\t0\n"
                              "eth0\t00000000\t0101A8C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n"
                              "wlan0\t00000000\t0100000A\t0003\t0\t0\t100\t00000000\t0\t0\t0\n"
                              "wlan0\t0000000A\t00000000\t0001\t0\t0\t100\t0000FFFF\t0\t0\t0\n";
    const std::string arp = "10.0.0.1         0x1         0x2         02:aa:bb:cc:dd:ee     *  "
                            "      wlan0\n"
                            "192.168.1.1      0x1         0x0         00:00:00:00:00:00     *  "
                            "      eth0\n";
    const std::vector<FingerprintReader::InterfaceAddress> addresses = {
        {"eth0", 0xC0A80114, 24},   // 192.168.1.20
        {"wlan0", 0xAC100001, 12},  // 172.16.0.1, not the gateway's network
        {"wlan0", 0x0A00102A, 16}}; // 10.0.16.42
    struct {
        std::string name;
        std::string routeRows;
        bool wireless;
        std::string type;
        std::optional<Fingerprint> expected;
    } cases[] = {
        {"wifi", route, true, "1",
         Fingerprint{Type::wifi, "cafe", "02:aa:bb:cc:dd:ee", "10.0.0.0/16"}},
        {"ethernet", route, false, "1",
         Fingerprint{Type::wired, {}, "02:aa:bb:cc:dd:ee", "10.0.0.0/16"}},
        {"tunnel", route, false, "65534",
         Fingerprint{Type::other, {}, "02:aa:bb:cc:dd:ee", "10.0.0.0/16"}},
        {"unresolved gateway", "eth0\t00000000\t0101A8C0\t0003\t0\t0\t0\t00000000\t0\t0\t0\n",
         false, "1", Fingerprint{Type::wired, {}, {}, "192.168.1.0/24"}},
        {"no default", "wlan0\t0000000A\t00000000\t0001\t0\t0\t100\t0000FFFF\t0\t0\t0\n", true, "1",
         std::nullopt},
        {"default down", "eth0\t00000000\t0101A8C0\t0002\t0\t0\t0\t00000000\t0\t0\t0\n", false, "1",
         std::nullopt},
    };
    for (const auto& c : cases) {
        TempDir root;
        root.write("proc/net/route", procTable(routeHeader, c.routeRows));
        root.write("proc/net/arp", procTable(arpHeader, arp));
        for (const char* device : {"eth0", "wlan0"}) {
            const fs::path dir = fs::path("sys/class/net") / device;
            root.write(dir / "type", c.type + "\n");
            if (c.wireless) {
                fs::create_directories(root / dir / "wireless");
            }
        }
        FingerprintReader reader(root.path,
                                 {[&] { return addresses; },
                                  [](const std::string& device) -> std::optional<std::string> {
                                      return device == "wlan0" ? std::optional<std::string>("cafe")
                                                               : std::nullopt;
                                  }});
        EXPECT_EQ(reader.read(), c.expected) << c.name;
    }
    TempDir empty;
    EXPECT_FALSE(FingerprintReader(empty.path).read());
}

TEST(NetworkEnvironment, IwLinkSSID) {
    struct {
        std::string output;
        std::optional<std::string> ssid;
    } cases[] = {
        {"Connected to 02:aa:bb:cc:dd:ee (on wlan0)\n\tSSID: Caf\xc3\xa9 Net\n\tfreq: 2412\n",
         "Caf\xc3\xa9 Net"},
        {"Connected to x (on wlan0)\n\tSSID: \\x20a\\x5cb\\x00\\x20\n", std::string(" a\\b\0 ", 6)},
        {"\tSSID: bad\\x2g\n", "bad\\x2g"},
        {"Not connected.\n", std::nullopt},
        {"Connected to x (on wlan0)\n\tSSID: \n", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(FingerprintParsing::iwLinkSSID(c.output), c.ssid) << c.output;
    }
}
