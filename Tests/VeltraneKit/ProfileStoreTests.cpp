#include "Support/TempDir.hpp"
#include "VeltraneKit/ProfileCoding.hpp"
#include "VeltraneKit/ProfileStore/ProfileStore.hpp"
#include "VeltraneKit/SharedPaths.hpp"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <system_error>
#include <thread>

using namespace veltrane::kit;
using veltrane::test::TempDir;
namespace fs = std::filesystem;
using StoreError = ProfileStore::StoreError;
using FileError = ProfileStore::FileError;

namespace {

unsigned modeOf(const fs::path& path) {
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 07777;
}

std::vector<std::string> namesOf(const std::vector<Profile>& profiles) {
    std::vector<std::string> names;
    for (const auto& p : profiles) {
        names.push_back(p.name);
    }
    return names;
}

std::vector<std::string> entriesOf(const fs::path& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

template <class E, class F>
E thrown(F&& f) {
    try {
        f();
    } catch (const E& e) {
        return e;
    }
    ADD_FAILURE() << "nothing of the expected type was thrown";
    throw std::logic_error("no error");
}

} // namespace

TEST(SharedPaths, StoreDirectoryFollowsOverrideRootXDGAndHome) {
    auto passwd = [](uid_t) -> std::optional<fs::path> { return fs::path("/home/pw"); };
    auto nobody = [](uid_t) -> std::optional<fs::path> { return std::nullopt; };
    using Inputs = SharedPaths::StoreLocationInputs;
    struct {
        Inputs inputs;
        std::string expected;
    } cases[] = {
        {{"/srv/store", "/x", "/h", 0, passwd}, "/srv/store"},
        {{"", "/x", "/h", 0, passwd}, "/var/lib/veltrane"},
        {{std::nullopt, "/x", "/h", 1000, passwd}, "/x/veltrane"},
        {{std::nullopt, "relative", "/h", 1000, passwd}, "/h/.config/veltrane"},
        {{std::nullopt, "", "", 1000, passwd}, "/home/pw/.config/veltrane"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(SharedPaths::storeDirectory(c.inputs), fs::path(c.expected)) << c.expected;
    }
    EXPECT_THROW(SharedPaths::storeDirectory({std::nullopt, std::nullopt, "", 1000, nobody}),
                 std::system_error);
}

TEST(ProfileStore, OperationsErrorsAndFilesOnDisk) {
    TempDir temp;
    const fs::path root = temp.path / "new" / "store";
    ProfileStore store(root);
    const fs::path profiles = root / "profiles";

    // A new store: private directories, one "Default", active without line end.
    for (const auto& dir : {temp.path / "new", root, profiles}) {
        EXPECT_EQ(modeOf(dir), 0700u) << dir;
    }
    auto all = store.list();
    ASSERT_EQ(namesOf(all), std::vector<std::string>{"Default"});
    const UUID defaultID = all[0].id;
    EXPECT_EQ(temp.read(root / "active"), defaultID.uuidString());
    EXPECT_EQ(modeOf(root / "active"), 0600u);
    EXPECT_EQ(modeOf(store.profilePath(defaultID)), 0600u);
    EXPECT_EQ(store.activeProfile(), all[0]);

    // Round trip, byte-order sort, names compared ignoring case.
    Profile beta = store.create("beta");
    Profile alpha = store.create("Alpha");
    EXPECT_EQ(store.load(beta.id), beta);
    EXPECT_EQ(namesOf(store.list()), (std::vector<std::string>{"Alpha", "Default", "beta"}));
    EXPECT_EQ(store.find("ALPHA").id, alpha.id);
    EXPECT_EQ(temp.read(store.profilePath(alpha.id)), encodeProfile(alpha, true));
    auto duplicateName = thrown<StoreError>([&] { store.create("DEFAULT"); });
    EXPECT_EQ(duplicateName, StoreError::duplicateName("DEFAULT"));
    EXPECT_EQ(duplicateName.localizedDescription(), "已存在同名 profile「DEFAULT」");
    EXPECT_EQ(thrown<StoreError>([&] { store.find("none"); }).localizedDescription(),
              "找不到 profile「none」");

    // A duplicate is bound to no network and back at schema version 1.
    Profile bound = beta.with({.environments = std::vector<NetworkEnvironment>{
                                   {UUID::random(), "home", NetworkEnvironment::Wifi{"x"}}}});
    bound.schemaVersion = 2;
    store.save(bound);
    Profile copy = store.duplicate(beta.id, "gamma");
    EXPECT_NE(copy.id, beta.id);
    EXPECT_EQ(copy.schemaVersion, 1);
    EXPECT_TRUE(copy.environments.empty());
    EXPECT_EQ(copy.rules, beta.rules);
    EXPECT_EQ(store.load(copy.id), copy);
    EXPECT_THROW(store.duplicate(beta.id, "Gamma"), StoreError);

    // Foreign and broken files cost only themselves; load reports them.
    const UUID brokenID = UUID::random();
    temp.write(profiles / "notes.json", "{}");
    temp.write(store.profilePath(brokenID), "{\"schemaVersion\": 1,");
    EXPECT_EQ(store.list().size(), 4u);
    EXPECT_THROW(store.load(brokenID), ProfileDecodingError);
    EXPECT_EQ(thrown<FileError>([&] { store.load(UUID::random()); }).code(), ENOENT);
    fs::remove(store.profilePath(brokenID));
    fs::remove(profiles / "notes.json");

    // Replacements leave no temporary files behind and keep 0600.
    for (int i = 0; i < 3; ++i) {
        store.save(alpha.with({.name = "Alpha " + std::to_string(i)}));
        store.setActive(alpha.id);
    }
    EXPECT_EQ(modeOf(store.profilePath(alpha.id)), 0600u);
    EXPECT_EQ(entriesOf(root), (std::vector<std::string>{".lock", "active", "profiles"}));
    EXPECT_EQ(entriesOf(profiles).size(), 4u);
    for (const auto& name : entriesOf(profiles)) {
        EXPECT_EQ(name.size(), 41u) << name;
    }

    // A write that fails midway (the file size limit: even root is held to
    // it) leaves the old file whole and no temporary file behind.
    {
        const std::string before = temp.read(store.profilePath(alpha.id));
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit saved{};
        ::getrlimit(RLIMIT_FSIZE, &saved);
        rlimit tiny = saved;
        tiny.rlim_cur = 16;
        ::setrlimit(RLIMIT_FSIZE, &tiny);
        EXPECT_THROW(store.save(alpha.with({.name = std::string(200, 'x')})), FileError);
        ::setrlimit(RLIMIT_FSIZE, &saved);
        EXPECT_EQ(temp.read(store.profilePath(alpha.id)), before);
        EXPECT_EQ(entriesOf(profiles).size(), 4u);
    }

    // The active file: a line end is tolerated, other text is no id.
    temp.write(root / "active", "  " + defaultID.uuidString() + "\r\n");
    EXPECT_EQ(store.activeID(), defaultID);
    temp.write(root / "active", "Default");
    EXPECT_EQ(thrown<StoreError>([&] { store.activeID(); }).localizedDescription(),
              "找不到 profile「active」");
    const UUID ghost = UUID::random();
    store.setActive(ghost);
    EXPECT_EQ(store.activeID(), ghost);
    EXPECT_THROW(store.activeProfile(), FileError);

    // Deleting: another profile becomes active only when the active one goes.
    store.setActive(beta.id);
    store.deleteProfile(copy.id);
    EXPECT_EQ(store.activeID(), beta.id);
    store.deleteProfile(beta.id);
    const UUID nowActive = store.activeID();
    EXPECT_TRUE(nowActive == alpha.id || nowActive == defaultID);
    EXPECT_THROW(store.deleteProfile(UUID::random()), FileError);
    store.deleteProfile(nowActive == alpha.id ? defaultID : alpha.id);
    auto last = thrown<StoreError>([&] { store.deleteProfile(UUID::random()); });
    EXPECT_EQ(last.localizedDescription(), "至少保留一个 profile");
    EXPECT_EQ(store.list().size(), 1u);

    // Reopening a store that holds profiles changes nothing, even without
    // an "active" file.
    fs::remove(root / "active");
    ProfileStore reopened(root);
    EXPECT_EQ(reopened.list().size(), 1u);
    EXPECT_EQ(thrown<FileError>([&] { reopened.activeID(); }).code(), ENOENT);
}

TEST(ProfileStore, ReadersSeeWholeFilesWhileTwoStoresWrite) {
    TempDir temp;
    ProfileStore first(temp.path);
    ProfileStore second(temp.path);
    const Profile base = first.list().at(0);
    std::thread writer([&] {
        for (int i = 0; i < 20; ++i) {
            first.save(base.with({.name = std::string(i * 50, 'a')}));
        }
    });
    for (int i = 0; i < 20; ++i) {
        second.save(base.with({.name = std::string(i * 50, 'b')}));
        EXPECT_NO_THROW(second.load(base.id));
    }
    writer.join();
    EXPECT_EQ(entriesOf(temp.path / "profiles").size(), 1u);
}
