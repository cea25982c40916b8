#include "ExtensionCore/Provider/ProcessLookup.hpp"

#include "Platform/NEFlowMetaData.hpp"
#include "Platform/linux/Cgroup2.hpp"
#include "Platform/linux/SmallFile.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <mutex>
#include <pugixml.hpp>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace veltrane::core::ProcessLookup {

namespace {

// Every file read here is small; the cap keeps a hostile bundle from making a
// flow read without end.
constexpr std::size_t maximumFileSize = 1 << 20;

std::optional<std::string> readSmallFile(const std::string& path,
                                         std::size_t limit = maximumFileSize) {
    return platform::readSmallFile(path, limit);
}

std::string procPath(std::int32_t pid, std::string_view entry) {
    std::string result = "/proc/" + std::to_string(pid) + "/";
    result += entry;
    return result;
}

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    while (!text.empty()) {
        auto end = text.find(separator);
        auto part = text.substr(0, end);
        if (!part.empty()) {
            parts.push_back(part);
        }
        if (end == std::string_view::npos) {
            break;
        }
        text.remove_prefix(end + 1);
    }
    return parts;
}

template <typename Number>
std::optional<Number> parseNumber(std::string_view text) {
    Number value{};
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

struct ScopeMember {
    std::int32_t pid = 0;
    std::int32_t parent = 0;
    std::uint64_t startTime = 0;
};

// Parent and start time from /proc/PID/stat. The command name before them may
// hold spaces and parentheses of its own, hence the last ')'.
std::optional<ScopeMember> readMember(std::int32_t pid) {
    auto stat = readSmallFile(procPath(pid, "stat"));
    if (!stat) {
        return std::nullopt;
    }
    auto close = stat->rfind(')');
    if (close == std::string::npos) {
        return std::nullopt;
    }
    // Fields from the 3rd (state) on; the parent is the 4th, the start time the 22nd.
    auto fields = split(std::string_view(*stat).substr(close + 1), ' ');
    if (fields.size() < 20) {
        return std::nullopt;
    }
    auto parent = parseNumber<std::int32_t>(fields[1]);
    auto startTime = parseNumber<std::uint64_t>(fields[19]);
    if (!parent || !startTime) {
        return std::nullopt;
    }
    return ScopeMember{pid, *parent, *startTime};
}

// The unified hierarchy's path of the process's cgroup, from /proc/PID/cgroup.
std::optional<std::string> cgroupOf(std::int32_t pid) {
    auto membership = readSmallFile(procPath(pid, "cgroup"));
    if (!membership) {
        return std::nullopt;
    }
    std::optional<std::string> cgroup;
    for (auto line : split(*membership, '\n')) {
        if (line.starts_with("0::")) {
            cgroup = std::string(line.substr(3));
        }
    }
    return cgroup;
}

// A new process in a known scope: its leader stays the leader for as long as
// it lives in that scope (a later member starts later), so one check of the
// leader replaces reading every member again. That is what the first
// connection of each helper a browser starts would otherwise pay.
class ScopeLeaders {
public:
    std::int32_t find(const std::string& scope) {
        std::int32_t leader = 0;
        {
            std::lock_guard guard(lock_);
            if (auto entry = leaders_.find(scope); entry != leaders_.end()) {
                leader = entry->second;
            }
        }
        return leader > 0 && cgroupOf(leader) == scope ? leader : 0;
    }
    void remember(const std::string& scope, std::int32_t leader) {
        std::lock_guard guard(lock_);
        if (leaders_.size() >= capacity) {
            leaders_.clear();
        }
        leaders_.insert_or_assign(scope, leader);
    }

private:
    static constexpr std::size_t capacity = 1024;
    std::mutex lock_;
    std::unordered_map<std::string, std::int32_t> leaders_;
};

// The leader of the cgroup scope the process runs in: the member whose parent
// is outside the scope, the earliest started when there are several. 0 when
// the process is not in a scope. Only the scope's own members are read, so
// the cost follows the size of one application, not of the machine.
std::int32_t scopeLeader(std::int32_t pid) {
    static ScopeLeaders known;
    const auto& mount = cgroup2Mount();
    auto cgroup = mount ? cgroupOf(pid) : std::nullopt;
    // Services and slices group unrelated processes; only a scope stands for
    // one launched application.
    if (!cgroup || !cgroup->starts_with("/") || !cgroup->ends_with(".scope")) {
        return 0;
    }
    if (const auto leader = known.find(*cgroup)) {
        return leader;
    }
    std::string procsPath = *mount;
    procsPath += *cgroup;
    procsPath += "/cgroup.procs";
    auto procs = readSmallFile(procsPath);
    if (!procs) {
        return 0;
    }
    std::vector<ScopeMember> members;
    std::unordered_set<std::int32_t> memberIDs;
    for (auto line : split(*procs, '\n')) {
        auto memberID = parseNumber<std::int32_t>(line);
        if (!memberID) {
            continue;
        }
        // A member that exits meanwhile is no longer a candidate.
        if (auto member = readMember(*memberID)) {
            members.push_back(*member);
            memberIDs.insert(member->pid);
        }
    }
    std::optional<ScopeMember> leader;
    for (const auto& member : members) {
        if (memberIDs.contains(member.parent)) {
            continue;
        }
        if (!leader ||
            std::tie(member.startTime, member.pid) < std::tie(leader->startTime, leader->pid)) {
            leader = member;
        }
    }
    if (!leader) {
        return 0;
    }
    known.remember(*cgroup, leader->pid);
    return leader->pid;
}

// A leader that exited leaves the scope to another member.
bool alive(std::int32_t pid) {
    return ::kill(pid, 0) == 0 || errno == EPERM;
}

// Reading a scope costs a file per member, on every connection of every
// helper of a browser; the answer changes only when the leader exits or the
// process moves to another scope, both rare. Remembered per process for two
// seconds (pids do not come round again that fast), and forgotten early once
// the leader is gone.
std::int32_t rememberedScopeLeader(std::int32_t pid) {
    using Clock = std::chrono::steady_clock;
    constexpr auto keep = std::chrono::seconds(2);
    constexpr std::size_t capacity = 4096;
    struct Known {
        std::int32_t leader = 0;
        Clock::time_point at;
    };
    static std::mutex lock;
    static std::unordered_map<std::int32_t, Known> known;
    const auto now = Clock::now();
    std::optional<Known> found;
    {
        std::lock_guard guard(lock);
        if (auto entry = known.find(pid); entry != known.end()) {
            found = entry->second;
        }
    }
    if (found && now - found->at < keep && (found->leader < 1 || alive(found->leader))) {
        return found->leader;
    }
    const auto leader = scopeLeader(pid);
    std::lock_guard guard(lock);
    if (known.size() >= capacity) {
        known.clear();
    }
    known.insert_or_assign(pid, Known{leader, now});
    return leader;
}

} // namespace

std::optional<std::int32_t> pid(std::span<const std::uint8_t> auditToken) {
    return platform::auditTokenProcessID(auditToken);
}

std::optional<std::string> path(std::int32_t pid) {
    std::array<char, 4096> buffer{};
    auto length = ::readlink(procPath(pid, "exe").c_str(), buffer.data(), buffer.size());
    // A link that fills the buffer may have been cut short.
    if (length < 1 || static_cast<std::size_t>(length) >= buffer.size()) {
        return std::nullopt;
    }
    std::string result(buffer.data(), static_cast<std::size_t>(length));
    // A package upgrade replaces executables under running processes, and the
    // kernel then appends " (deleted)". Rules name the executable, so a
    // browser must stay "firefox" until it restarts. A file that really has
    // the suffix in its name still exists and keeps it.
    constexpr std::string_view deletedSuffix = " (deleted)";
    struct stat info {};
    if (result.ends_with(deletedSuffix) && ::lstat(result.c_str(), &info) != 0) {
        result.resize(result.size() - deletedSuffix.size());
    }
    return result;
}

std::optional<std::string> bundleID(std::string_view executablePath) {
    constexpr std::string_view marker = ".app/";
    auto match = executablePath.rfind(marker);
    if (match == std::string_view::npos) {
        return std::nullopt;
    }
    std::string plistPath(executablePath.substr(0, match + marker.size()));
    plistPath += "Contents/Info.plist";
    auto contents = readSmallFile(plistPath);
    // Only XML property lists are read; a binary one fails to parse here and
    // counts as unreadable.
    pugi::xml_document document;
    if (!contents || !document.load_buffer(contents->data(), contents->size())) {
        return std::nullopt;
    }
    auto dict = document.child("plist").find_child(
        [](const pugi::xml_node& node) { return node.type() == pugi::node_element; });
    if (std::string_view(dict.name()) != "dict") {
        return std::nullopt;
    }
    for (auto key : dict.children("key")) {
        if (std::string_view(key.text().get()) != "CFBundleIdentifier") {
            continue;
        }
        auto value = key.next_sibling();
        while (value && value.type() != pugi::node_element) {
            value = value.next_sibling();
        }
        if (std::string_view(value.name()) != "string") {
            return std::nullopt;
        }
        return std::string(value.text().get());
    }
    return std::nullopt;
}

ResponsiblePIDFunction responsiblePIDFn() {
    static const ResponsiblePIDFunction function =
        cgroup2Mount() ? &rememberedScopeLeader : nullptr;
    return function;
}

const std::optional<std::string>& cgroup2Mount() {
    return platform::cgroup2Mount();
}

} // namespace veltrane::core::ProcessLookup
