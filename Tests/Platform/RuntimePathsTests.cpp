#include "Platform/RuntimePaths.hpp"
#include "Support/TempDir.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

using namespace veltrane::platform;

namespace {

TEST(RuntimePathsTest, PicksTheSessionDirectoryElseOneByUser) {
    struct {
        std::optional<std::string_view> xdg;
        uid_t uid;
        const char* expected;
    } cases[] = {
        {"/run/user/1000/", 1000, "/run/user/1000/veltrane"},
        {"/run/user/0", 0, "/run/user/0/veltrane"},
        {"", 0, "/run/veltrane"}, // set but empty counts as unset
        {std::nullopt, 0, "/run/veltrane"},
        {std::nullopt, 1000, "/tmp/veltrane-1000"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(RuntimePaths::runtimeDirectory(c.xdg, c.uid), c.expected);
    }
    const auto candidates = RuntimePaths::socketCandidates("svc");
    ASSERT_FALSE(candidates.empty());
    EXPECT_EQ(candidates.front(), RuntimePaths::socketPath("svc"));
    EXPECT_EQ(candidates.back(), "/run/veltrane/svc");
}

TEST(RuntimePathsTest, PreparesOnlyADirectoryThatIsOursAlone) {
    const veltrane::test::TempDir root;
    const std::string fresh = root / "fresh";
    RuntimePaths::prepareDirectory(fresh);
    struct stat st {};
    ASSERT_EQ(::stat(fresh.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    RuntimePaths::prepareDirectory(fresh); // again: already fine

    const std::string open = root / "open";
    ASSERT_EQ(::mkdir(open.c_str(), 0700), 0);
    ASSERT_EQ(::chmod(open.c_str(), 0777), 0);
    // A link is refused even when it leads to a good directory: it is looked
    // at, not followed.
    const std::string link = root / "link";
    root.link(link, fresh);
    for (const auto& bad : {open, link, std::string(root / "missing/parent")}) {
        EXPECT_THROW(RuntimePaths::prepareDirectory(bad), std::system_error) << bad;
    }
}

} // namespace
