#include "Platform/linux/Cgroup2.hpp"

#include "Platform/linux/SmallFile.hpp"

#include <algorithm>
#include <vector>

namespace veltrane::platform {

namespace {

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    while (!text.empty()) {
        const auto end = text.find(separator);
        if (end != 0) {
            parts.push_back(text.substr(0, end));
        }
        if (end == std::string_view::npos) {
            break;
        }
        text.remove_prefix(end + 1);
    }
    return parts;
}

// mountinfo writes space, tab, newline and backslash in paths as octal escapes.
std::string unescapeMountPath(std::string_view text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size()) {
            auto digits = text.substr(i + 1, 3);
            if (std::all_of(digits.begin(), digits.end(),
                            [](char c) { return c >= '0' && c <= '7'; })) {
                result += static_cast<char>((digits[0] - '0') * 64 + (digits[1] - '0') * 8 +
                                            (digits[2] - '0'));
                i += 3;
                continue;
            }
        }
        result += text[i];
    }
    return result;
}

} // namespace

std::optional<std::string> cgroup2MountIn(std::string_view mountinfo) {
    for (auto line : split(mountinfo, '\n')) {
        auto fields = split(line, ' ');
        auto separator = std::find(fields.begin(), fields.end(), "-");
        // Only a mount of the whole hierarchy has the paths the kernel
        // reports; a bind mount of a subtree (as in containers) would not.
        if (fields.size() >= 5 && separator != fields.end() && separator + 1 != fields.end() &&
            separator[1] == "cgroup2" && fields[3] == "/") {
            return unescapeMountPath(fields[4]);
        }
    }
    return std::nullopt;
}

const std::optional<std::string>& cgroup2Mount() {
    // Many containers make mountinfo large; read it once with a generous cap.
    static const std::optional<std::string> mount = [] {
        auto mountinfo = readSmallFile("/proc/self/mountinfo", 64 << 20);
        return mountinfo ? cgroup2MountIn(*mountinfo) : std::nullopt;
    }();
    return mount;
}

} // namespace veltrane::platform
