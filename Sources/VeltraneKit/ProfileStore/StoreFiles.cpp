#include "VeltraneKit/ProfileStore/StoreFiles.hpp"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace veltrane::kit::StoreFiles {

namespace {

using FileError = ProfileStore::FileError;
using Operation = FileError::Operation;

constexpr off_t maximumFileSize = 64 << 20;

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int get() const { return fd_; }
    // close(2) reports write-back errors on some file systems; they count.
    int close() {
        int rc = ::close(fd_);
        fd_ = -1;
        return rc;
    }

private:
    int fd_;
};

bool writeAll(int fd, std::string_view data) {
    while (!data.empty()) {
        ssize_t n = ::write(fd, data.data(), data.size());
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        data.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

} // namespace

void makeDirectories(const std::filesystem::path& directory) {
    std::filesystem::path partial;
    for (const auto& piece : directory.lexically_normal()) {
        partial /= piece;
        if (piece.empty() || piece == "/") {
            continue;
        }
        if (::mkdir(partial.c_str(), 0700) == 0) {
            // The umask may have taken more away than it should.
            ::chmod(partial.c_str(), 0700);
            continue;
        }
        int error = errno;
        struct stat info {};
        if (error == EEXIST && ::stat(partial.c_str(), &info) == 0) {
            if (S_ISDIR(info.st_mode)) {
                continue;
            }
            error = ENOTDIR;
        }
        throw FileError(Operation::createDirectory, partial, error);
    }
}

std::string readFile(const std::filesystem::path& path) {
    FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0) {
        throw FileError(Operation::read, path, errno);
    }
    struct stat info {};
    if (::fstat(file.get(), &info) != 0) {
        throw FileError(Operation::read, path, errno);
    }
    if (S_ISDIR(info.st_mode)) {
        throw FileError(Operation::read, path, EISDIR);
    }
    std::string contents;
    char buffer[16384];
    for (;;) {
        ssize_t n = ::read(file.get(), buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw FileError(Operation::read, path, errno);
        }
        if (n == 0) {
            return contents;
        }
        if (static_cast<off_t>(contents.size()) + n > maximumFileSize) {
            throw FileError(Operation::read, path, EFBIG);
        }
        contents.append(buffer, static_cast<std::size_t>(n));
    }
}

void replaceFile(const std::filesystem::path& path, std::string_view data) {
    const auto directory = path.parent_path();
    // A hidden name whose extension is random keeps the temporary file out of
    // every listing of profiles, also when a crash leaves it behind.
    std::string temporary = (directory / ("." + path.filename().string() + ".XXXXXX")).string();
    std::vector<char> name(temporary.begin(), temporary.end());
    name.push_back('\0');
    FileDescriptor file(::mkostemp(name.data(), O_CLOEXEC));
    if (file.get() < 0) {
        throw FileError(Operation::write, path, errno);
    }
    temporary.assign(name.data());
    auto fail = [&](int error) {
        ::unlink(temporary.c_str());
        throw FileError(Operation::write, path, error);
    };
    if (::fchmod(file.get(), 0600) != 0 || !writeAll(file.get(), data) ||
        ::fsync(file.get()) != 0) {
        fail(errno);
    }
    if (file.close() != 0) {
        fail(errno);
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        fail(errno);
    }
    // Make the rename itself durable; the data is already safe either way,
    // so a directory that cannot be synced is no failure of the write.
    FileDescriptor parent(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (parent.get() >= 0) {
        ::fsync(parent.get());
    }
}

void removeFile(const std::filesystem::path& path) {
    if (::unlink(path.c_str()) != 0) {
        throw FileError(Operation::remove, path, errno);
    }
}

} // namespace veltrane::kit::StoreFiles
