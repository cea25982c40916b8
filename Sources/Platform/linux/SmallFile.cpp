#include "Platform/linux/SmallFile.hpp"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace veltrane::platform {

std::optional<std::string> readSmallFile(const std::string& path, std::size_t limit,
                                         int extraFlags) {
    int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY | extraFlags);
    if (fd < 0) {
        return std::nullopt;
    }
    std::optional<std::string> contents;
    struct stat info {};
    if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
        contents.emplace();
        std::array<char, 4096> chunk{};
        while (true) {
            auto n = ::read(fd, chunk.data(), chunk.size());
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n < 0 || contents->size() + static_cast<std::size_t>(n) > limit) {
                contents.reset();
                break;
            }
            if (n == 0) {
                break;
            }
            contents->append(chunk.data(), static_cast<std::size_t>(n));
        }
    }
    ::close(fd);
    return contents;
}

} // namespace veltrane::platform
