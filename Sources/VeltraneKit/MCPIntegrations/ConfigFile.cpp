#include "VeltraneKit/MCPIntegrations/ConfigFile.hpp"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace veltrane::kit::configfile {

namespace {

std::error_code lastError() {
    return {errno, std::generic_category()};
}

// Closes on every path out, so a failed write leaks no descriptor.
class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_;
};

std::filesystem::path followLinks(std::filesystem::path path) {
    // As many hops as the kernel allows before ELOOP; a longer chain is
    // replaced where it starts.
    for (int hop = 0; hop < 40; ++hop) {
        std::error_code ec;
        if (!std::filesystem::is_symlink(std::filesystem::symlink_status(path, ec))) {
            return path;
        }
        auto next = std::filesystem::read_symlink(path, ec);
        if (ec) {
            return path;
        }
        path = next.is_absolute() ? next : path.parent_path() / next;
    }
    return path;
}

bool writeAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t n = ::write(fd, text.data(), text.size());
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        text.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

} // namespace

std::optional<std::string> read(const std::filesystem::path& file, std::error_code& error) {
    Descriptor fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) {
        error = lastError();
        return std::nullopt;
    }
    std::string content;
    char buffer[16384];
    for (;;) {
        const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            error = lastError();
            return std::nullopt;
        }
        if (n == 0) {
            return content;
        }
        content.append(buffer, static_cast<std::size_t>(n));
    }
}

bool writeAtomically(const std::filesystem::path& file, std::string_view text,
                     std::error_code& error) {
    const auto target = followLinks(file);
    auto directory = target.parent_path();
    if (directory.empty()) {
        directory = ".";
    }

    mode_t mode = S_IRUSR | S_IWUSR;
    struct stat existing {};
    if (::stat(target.c_str(), &existing) == 0) {
        mode = existing.st_mode & 07777;
    }

    std::string temporary = (directory / ("." + target.filename().string() + ".XXXXXX")).string();
    Descriptor fd(::mkostemp(temporary.data(), O_CLOEXEC));
    if (fd.get() < 0) {
        error = lastError();
        return false;
    }
    const bool written = writeAll(fd.get(), text) && ::fchmod(fd.get(), mode) == 0 &&
                         ::fsync(fd.get()) == 0 && ::close(fd.release()) == 0 &&
                         ::rename(temporary.c_str(), target.c_str()) == 0;
    if (!written) {
        error = lastError();
        ::unlink(temporary.c_str());
        return false;
    }
    // The rename is only durable once the directory is; a failure here leaves
    // the new file in place, so it is no reason to report one.
    if (Descriptor dir(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        dir.get() >= 0) {
        ::fsync(dir.get());
    }
    return true;
}

} // namespace veltrane::kit::configfile
