#pragma once

#include <filesystem>

namespace veltrane::kit {

// Where the scanners read the kernel's view of the machine. The defaults are
// the real mounts; tests point them at a fake tree.
struct SystemRoots {
    std::filesystem::path proc = "/proc";
    std::filesystem::path sys = "/sys";

    friend bool operator==(const SystemRoots&, const SystemRoots&) = default;
};

} // namespace veltrane::kit
