#include "VeltraneKit/UUID.hpp"

#include <cstring>
#include <random>
#include <uuid/uuid.h>

namespace veltrane::kit {

UUID UUID::random() {
    // Every flow gets an identifier: libuuid asks the kernel for entropy and
    // for the process's ids on each call, so each thread draws from its own
    // generator, seeded once from the kernel's.
    thread_local std::mt19937_64 generator = [] {
        std::random_device device;
        std::seed_seq seed{device(), device(), device(), device(), device(), device()};
        return std::mt19937_64(seed);
    }();
    UUID u;
    for (std::size_t half = 0; half < 2; ++half) {
        std::uint64_t bits = generator();
        std::memcpy(u.bytes.data() + half * 8, &bits, 8);
    }
    u.bytes[6] = static_cast<std::uint8_t>((u.bytes[6] & 0x0f) | 0x40); // version 4
    u.bytes[8] = static_cast<std::uint8_t>((u.bytes[8] & 0x3f) | 0x80); // RFC 4122 variant
    return u;
}

std::optional<UUID> UUID::parse(std::string_view text) {
    // uuid_parse wants exactly 36 characters and a terminator.
    if (text.size() != 36) {
        return std::nullopt;
    }
    char buffer[37];
    text.copy(buffer, 36);
    buffer[36] = '\0';
    UUID u;
    if (uuid_parse(buffer, u.bytes.data()) != 0) {
        return std::nullopt;
    }
    return u;
}

std::string UUID::uuidString() const {
    char buffer[37];
    uuid_unparse_upper(bytes.data(), buffer);
    return std::string(buffer, 36);
}

} // namespace veltrane::kit
