#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace veltrane::test {

using Bytes = std::vector<std::uint8_t>;

// "05 01 00" -> {5, 1, 0}; spaces are ignored.
inline Bytes hex(std::string_view text) {
    Bytes out;
    std::string pair;
    for (char c : text) {
        if (c == ' ') {
            continue;
        }
        pair += c;
        if (pair.size() == 2) {
            out.push_back(static_cast<std::uint8_t>(std::strtoul(pair.c_str(), nullptr, 16)));
            pair.clear();
        }
    }
    return out;
}

inline Bytes bytes(std::string_view text) {
    return Bytes(text.begin(), text.end());
}

inline Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto& part : parts) {
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

inline std::string text(const Bytes& b) {
    return std::string(b.begin(), b.end());
}

} // namespace veltrane::test
