#include "ExtensionCore/Provider/AppIdentityLookup.hpp"
#include "ExtensionCore/Provider/ProcessLookup.hpp"
#include "Platform/NEFlowMetaData.hpp"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace veltrane;
using kit::AppIdentity;
using platform::Bytes;
using platform::makeAuditToken;
namespace fs = std::filesystem;

std::string randomName() {
    std::random_device random;
    return std::to_string(random()) + std::to_string(random());
}

// Writes <root>/<bundle>/Contents/Info.plist with the given identifier value
// at the top, after a nested dictionary that must not answer.
void writeBundle(const fs::path& root, const std::string& bundle, const std::string& value) {
    fs::create_directories(root / bundle / "Contents");
    std::ofstream(root / bundle / "Contents" / "Info.plist")
        << (value.starts_with("bplist") ? value : R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
  <key>Nested</key><dict><key>CFBundleIdentifier</key><string>nested.wrong</string></dict>
  <key>CFBundleIdentifier</key>)" + value + "</dict></plist>");
}

TEST(AppIdentityTest, FieldsFollowTokenPathsAndResponsibleProcess) {
    const fs::path root = fs::temp_directory_path() / ("vt-bundles-" + randomName());
    writeBundle(root, "Outer.app", "<string>ex.outer</string>");
    writeBundle(root, "Outer.app/Contents/Frameworks/Inner.app", "<string>ex.inner</string>");
    const std::string r = root.string();
    // The fake table answers even for ids no process has, so that only the
    // rules keep a responsible 0 or -1 out.
    const std::map<std::int32_t, std::string> paths = {
        {-1, "/usr/bin/none"},
        {0, "/usr/bin/none"},
        {100, "/usr/bin/curl"},
        {110, r + "/Outer.app/Contents/Frameworks/Inner.app/Contents/bin/Helper"},
        {111, "/opt/Suite.application/bin/suite"},
        {200, r + "/Outer.app/Contents/bin/Outer"},
        {201, "/usr/bin/bash"},
        {202, r + "/Outer.app/Contents/Frameworks/Inner.app/Contents/bin/Inner Helper"},
        {205, "/opt/Tool.app"},
    };
    const AppIdentity browser{.bundleID = "ex.browser", .displayName = "browser"};
    const AppIdentity plainBrowser{.bundleID = "browser", .displayName = "browser"};
    const AppIdentity tool{.bundleID = "ex.tool", .displayName = "tool"};
    const AppIdentity curl{.bundleID = "ex.curl", .displayName = "curl", .executableName = "curl"};
    const AppIdentity helper{
        .displayName = "Helper", .executableName = "Helper", .appBundleName = "Outer"};
    const AppIdentity suite{.displayName = "suite", .executableName = "suite"};
    constexpr std::nullopt_t none = std::nullopt;
    const auto token = makeAuditToken;

    struct Case {
        const char* name;
        std::string signingIdentifier;
        std::optional<Bytes> token;
        std::optional<std::int32_t> responsible; // nothing: the machine cannot tell
        AppIdentity own;
        core::ProcessLookup::Responsible other;
    } cases[] = {
        {"no process id in the token", "ex.browser", token(0), 200, browser, {}},
        {"identifier without dot", "browser", none, 200, plainBrowser, {}},
        {"empty identifier", "", none, 200, {.displayName = ""}, {}},
        {"own path unknown", "ex.tool", token(300), 200, tool, {"ex.outer", "Outer", "Outer"}},
        {"responsible 0", "ex.curl", token(100), 0, curl, {}},
        {"responsible is itself", "ex.curl", token(100), 100, curl, {}},
        {"no responsible function", "ex.curl", token(100), none, curl, {}},
        {"responsible path unknown", "ex.curl", token(100), 300, curl, {}},
        {"responsible outside any bundle", "ex.curl", token(100), 201, curl, {none, none, "bash"}},
        {"responsible in bundle", "ex.curl", token(100), 200, curl, {"ex.outer", "Outer", "Outer"}},
        {"nested bundles", "", token(110), 202, helper, {"ex.inner", "Inner", "Inner Helper"}},
        {".app without slash", "", token(111), 205, suite, {none, none, "Tool.app"}},
    };
    auto fields = [](const AppIdentity& a) {
        return std::tie(a.bundleID, a.displayName, a.executableName, a.responsibleBundleID,
                        a.responsibleAppName, a.responsibleExecutable, a.appBundleName);
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        core::ProcessLookups lookups{.path = [&](std::int32_t pid) {
            auto found = paths.find(pid);
            return found == paths.end() ? std::nullopt : std::optional(found->second);
        }};
        lookups.responsiblePID = nullptr;
        if (c.responsible) {
            // Asked about another process than the flow's, it knows of none.
            lookups.responsiblePID = [&c](std::int32_t pid) {
                return pid == platform::auditTokenProcessID(*c.token) ? *c.responsible : 0;
            };
        }
        AppIdentity expected = c.own;
        expected.responsibleBundleID = c.other.bundleID;
        expected.responsibleAppName = c.other.appName;
        expected.responsibleExecutable = c.other.executable;
        EXPECT_EQ(fields(core::identity({c.signingIdentifier, c.token}, lookups)),
                  fields(expected));
    }
    fs::remove_all(root);
}

// A program the test runs; killed and reaped at the end.
struct Process {
    pid_t pid = 0;
    explicit Process(std::vector<const char*> argv) {
        argv.push_back(nullptr);
        char* noEnvironment[] = {nullptr};
        int started[2];
        if (::pipe2(started, O_CLOEXEC) != 0) {
            return;
        }
        ::posix_spawn(&pid, argv[0], nullptr, nullptr, const_cast<char* const*>(argv.data()),
                      noEnvironment);
        ::close(started[1]);
        // The exec closes the child's copy only once the new program is in
        // place, so from then on /proc/PID/exe names it.
        char byte = 0;
        (void)::read(started[0], &byte, 1);
        ::close(started[0]);
    }
    ~Process() { stop(); }
    void stop() {
        if (pid > 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
            pid = 0;
        }
    }
};

platform::NEFlowMetaData flowFrom(pid_t pid) {
    return {"", makeAuditToken(pid)};
}

TEST(ProcessLookupTest, ProcessInAScopeAnswersToItsLeader) {
    const auto& mount = core::ProcessLookup::cgroup2Mount();
    if (::geteuid() != 0 || !mount) {
        GTEST_SKIP() << "needs root and a cgroup2 hierarchy to make a scope";
    }
    const std::string scope = *mount + "/vt-test-" + randomName() + ".scope";
    if (::mkdir(scope.c_str(), 0755) != 0) {
        GTEST_SKIP() << "cannot create " << scope << ": " << std::strerror(errno);
    }
    const auto join = [&](pid_t pid) {
        // Writing 0 would move this test itself into the scope.
        if (pid > 0) {
            std::ofstream(scope + "/cgroup.procs") << pid;
        }
    };
    {
        Process leader({"/bin/sleep", "1000"});
        Process child({"/usr/bin/tail", "-f", "/dev/null"});
        join(leader.pid);
        join(child.pid);

        auto found = core::identity(flowFrom(child.pid));
        EXPECT_EQ(found.executableName, "tail");
        EXPECT_EQ(found.responsibleExecutable, "sleep");
        EXPECT_EQ(found.responsibleAppName, std::nullopt);
        EXPECT_EQ(core::identity(flowFrom(leader.pid)).responsibleExecutable, std::nullopt);

        // The scope's leader is remembered for the members that come later,
        // but not past its end: the scope then answers to the next one.
        leader.stop();
        Process late({"/bin/sleep", "1001"}); // cat would end at once on a closed stdin
        join(late.pid);
        EXPECT_EQ(core::identity(flowFrom(late.pid)).responsibleExecutable, "tail");
    }
    // Both are reaped; the kernel may still take a moment to empty the scope.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (::rmdir(scope.c_str()) != 0 && errno == EBUSY &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
}

} // namespace
