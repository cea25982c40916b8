#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <string_view>

namespace veltrane::test {

// A fresh directory under /tmp, short enough to hold Unix socket paths,
// removed with everything in it when this goes. The members take paths below
// it, or absolute ones as they are, and make the directories on the way.
struct TempDir {
    TempDir() : path(made()) {}
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::filesystem::path operator/(const std::filesystem::path& name) const { return path / name; }

    void write(const std::filesystem::path& name, std::string_view text) const {
        std::ofstream(made(name), std::ios::binary) << text;
    }
    std::string read(const std::filesystem::path& name) const {
        std::ifstream in(path / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    void link(const std::filesystem::path& name, const std::filesystem::path& target) const {
        std::filesystem::create_symlink(target, made(name));
    }

    const std::filesystem::path path;

private:
    static std::filesystem::path made() {
        std::string pattern = "/tmp/vt-XXXXXX";
        EXPECT_NE(::mkdtemp(pattern.data()), nullptr);
        return pattern;
    }
    std::filesystem::path made(const std::filesystem::path& name) const {
        std::filesystem::create_directories((path / name).parent_path());
        return path / name;
    }
};

} // namespace veltrane::test
