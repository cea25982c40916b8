#include "VeltraneKit/UUID.hpp"

#include <uuid/uuid.h>

namespace veltrane::kit {

UUID UUID::random() {
    UUID u;
    uuid_generate_random(u.bytes.data());
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
