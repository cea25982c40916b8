#include "Platform/linux/capture/AppIdentifier.hpp"

#include "Platform/linux/SmallFile.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace veltrane::platform::capture {

namespace {

// The sandbox's own root holds .flatpak-info, so whoever runs there chooses
// what we read: never follow a link, never read much.
std::optional<std::string> readSmallFile(const std::string& path, int extraFlags) {
    return platform::readSmallFile(path, 1 << 16, extraFlags);
}

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    while (true) {
        auto end = text.find(separator);
        parts.push_back(text.substr(0, end));
        if (end == std::string_view::npos) {
            return parts;
        }
        text.remove_prefix(end + 1);
    }
}

std::string_view trim(std::string_view text) {
    auto start = text.find_first_not_of(" \t\r");
    if (start == std::string_view::npos) {
        return {};
    }
    return text.substr(start, text.find_last_not_of(" \t\r") - start + 1);
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

// An identifier ends up in rules, logs and JSON; control bytes in it could
// only come from a crafted unit or file.
std::optional<std::string> usable(std::string id) {
    if (id.empty() || std::any_of(id.begin(), id.end(), [](char c) {
            auto byte = static_cast<unsigned char>(c);
            return byte < 0x20 || byte == 0x7f;
        })) {
        return std::nullopt;
    }
    return id;
}

// systemd writes bytes a unit name may not hold, "-" among them, as "\xNN".
std::string unescapeUnitName(std::string_view text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size() && text[i + 1] == 'x' &&
            hexValue(text[i + 2]) >= 0 && hexValue(text[i + 3]) >= 0) {
            result += static_cast<char>(hexValue(text[i + 2]) * 16 + hexValue(text[i + 3]));
            i += 3;
            continue;
        }
        result += text[i];
    }
    return result;
}

bool stripSuffix(std::string_view& text, std::string_view suffix) {
    if (!text.ends_with(suffix)) {
        return false;
    }
    text.remove_suffix(suffix.size());
    return true;
}

// A random part as launchers write it: a process id or hex digits.
bool looksRandom(std::string_view piece) {
    return !piece.empty() &&
           std::all_of(piece.begin(), piece.end(), [](char c) { return hexValue(c) >= 0; }) &&
           std::any_of(piece.begin(), piece.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// snap.NAME.APP-UUID.scope (apps and hooks alike) and snap.NAME.APP.service.
std::optional<std::string> snapName(std::string_view unit) {
    if (!unit.starts_with("snap.") ||
        !(stripSuffix(unit, ".scope") || stripSuffix(unit, ".service"))) {
        return std::nullopt;
    }
    unit.remove_prefix(5);
    auto dot = unit.find('.');
    if (dot == std::string_view::npos || dot + 1 == unit.size()) {
        return std::nullopt;
    }
    return usable(std::string(unit.substr(0, dot)));
}

// app[-<launcher>]-<ApplicationID>[@<RANDOM>|-<RANDOM>].scope or .service.
// A literal "-" separates the parts, because one inside the id is escaped.
std::optional<std::string> desktopAppId(std::string_view unit) {
    bool scope = stripSuffix(unit, ".scope");
    if ((!scope && !stripSuffix(unit, ".service")) || !unit.starts_with("app-")) {
        return std::nullopt;
    }
    unit.remove_prefix(4);
    bool instance = false;
    if (auto at = unit.find('@'); at != std::string_view::npos) {
        unit = unit.substr(0, at);
        instance = true;
    }
    auto pieces = split(unit, '-');
    // Scope names must be unique, so a launcher always adds a random part;
    // a service without an instance may or may not have one.
    if (pieces.size() >= 2 && !instance && (scope || looksRandom(pieces.back()))) {
        pieces.pop_back();
    }
    std::size_t first = pieces.size() >= 2 ? 1 : 0; // past the launcher
    std::string id;
    for (std::size_t i = first; i < pieces.size(); ++i) {
        if (pieces[i].empty()) {
            return std::nullopt;
        }
        // More pieces than the form allows: a launcher that did not escape
        // the id's own hyphens.
        id += (i == first ? "" : "-") + unescapeUnitName(pieces[i]);
    }
    return usable(std::move(id));
}

std::optional<std::string> executableLink(pid_t pid) {
    std::array<char, 4096> buffer{};
    auto path = "/proc/" + std::to_string(pid) + "/exe";
    auto length = ::readlink(path.c_str(), buffer.data(), buffer.size());
    if (length < 1 || static_cast<std::size_t>(length) >= buffer.size()) {
        return std::nullopt;
    }
    return std::string(buffer.data(), static_cast<std::size_t>(length));
}

std::optional<std::string> executableName(std::string executable) {
    // An upgrade replaces executables under running processes and the kernel
    // appends " (deleted)"; rules name "firefox" all the same. A file really
    // named so still exists and keeps its name.
    constexpr std::string_view deleted = " (deleted)";
    struct stat info {};
    if (executable.ends_with(deleted) && ::lstat(executable.c_str(), &info) != 0) {
        executable.resize(executable.size() - deleted.size());
    }
    return usable(executable.substr(executable.rfind('/') + 1));
}

// The identifier a sandbox or a unit gives, which every process of its
// cgroup shares.
std::optional<std::string> groupIdentifier(pid_t pid) {
    const std::string proc = "/proc/" + std::to_string(pid);
    if (auto info = readSmallFile(proc + "/root/.flatpak-info", O_NOFOLLOW)) {
        if (auto id = appIdFromFlatpakInfo(*info)) {
            return id;
        }
    }
    auto membership = readSmallFile(proc + "/cgroup", 0);
    if (!membership) {
        return std::nullopt;
    }
    // Lines are "ID:CONTROLLERS:PATH". The unified hierarchy first; on
    // hybrid machines systemd's own v1 hierarchy names the same units.
    std::optional<std::string_view> unified;
    std::optional<std::string_view> systemd;
    for (auto line : split(*membership, '\n')) {
        auto first = line.find(':');
        auto second = line.find(':', first == std::string_view::npos ? first : first + 1);
        if (second == std::string_view::npos) {
            continue;
        }
        auto controllers = line.substr(first + 1, second - first - 1);
        auto path = line.substr(second + 1);
        if (line.starts_with("0::")) {
            unified = path;
        } else if (controllers == "name=systemd") {
            systemd = path;
        }
    }
    for (auto path : {unified, systemd}) {
        if (path) {
            if (auto id = appIdFromCgroupPath(*path)) {
                return id;
            }
        }
    }
    return std::nullopt;
}

} // namespace

std::optional<std::string> appIdFromCgroupPath(std::string_view cgroupPath) {
    auto units = split(cgroupPath, '/');
    // A snap's own scope sits inside whatever desktop scope launched it.
    for (auto unit = units.rbegin(); unit != units.rend(); ++unit) {
        if (auto name = snapName(*unit)) {
            return name;
        }
    }
    for (auto unit = units.rbegin(); unit != units.rend(); ++unit) {
        if (auto id = desktopAppId(*unit)) {
            return id;
        }
    }
    return std::nullopt;
}

std::optional<std::string> appIdFromFlatpakInfo(std::string_view info) {
    bool inApplication = false;
    for (auto line : split(info, '\n')) {
        line = trim(line);
        if (line.starts_with('[')) {
            inApplication = line == "[Application]";
            continue;
        }
        auto equals = line.find('=');
        if (inApplication && !line.starts_with('#') && equals != std::string_view::npos &&
            trim(line.substr(0, equals)) == "name") {
            return usable(std::string(trim(line.substr(equals + 1))));
        }
    }
    return std::nullopt;
}

std::string signingIdentifier(pid_t pid) {
    if (auto id = groupIdentifier(pid)) {
        return *id;
    }
    auto link = executableLink(pid);
    return link ? executableName(*link).value_or("") : "";
}

SigningIdentifiers::SigningIdentifiers(std::size_t capacity) : capacity_(capacity) {}

std::string SigningIdentifiers::forProcess(pid_t pid, std::uint64_t cgroupId) {
    const Key key{pid, cgroupId};
    std::optional<Known> known;
    {
        std::lock_guard guard(mutex_);
        if (auto found = recent_.find(key); found != recent_.end()) {
            known = found->second;
        } else if (auto old = older_.find(key); old != older_.end()) {
            known = old->second;
            recent_.insert(older_.extract(old));
        }
    }
    std::optional<std::string> link;
    if (known) {
        if (known->executableLink.empty()) {
            return known->id;
        }
        link = executableLink(pid);
        if (link == known->executableLink) {
            return known->id;
        }
    }
    Known fresh;
    if (auto id = groupIdentifier(pid)) {
        fresh.id = std::move(*id);
        // Without a cgroup in the key, only the executable tells that the
        // process is still the one that was read (reading its cgroup file
        // again on every connection costs more than the whole decision).
        if (cgroupId == 0) {
            if (!link) {
                link = executableLink(pid);
            }
            if (!link) {
                return fresh.id;
            }
            fresh.executableLink = std::move(*link);
        }
    } else {
        if (!link) {
            link = executableLink(pid);
        }
        if (!link) {
            return ""; // gone: nothing worth remembering
        }
        fresh.id = executableName(*link).value_or("");
        fresh.executableLink = std::move(*link);
    }
    std::lock_guard guard(mutex_);
    if (recent_.size() >= capacity_) {
        older_ = std::move(recent_);
        recent_.clear();
    }
    recent_.insert_or_assign(key, fresh);
    return fresh.id;
}

} // namespace veltrane::platform::capture
