#pragma once

#include "VeltraneKit/Error.hpp"
#include "VeltraneKit/Profile.hpp"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace veltrane::kit {

// Why a profile document did not read. `path` names the place in the document
// ("rules[2].tags", "proxies[0].port"), `detail` what is wrong there.
class ProfileDecodingError final : public Error {
public:
    enum class Kind {
        syntax,        // not JSON at all
        keyNotFound,   // a required key is missing
        valueNotFound, // a required key is null
        typeMismatch,  // a value of the wrong JSON type
        dataCorrupted  // right type, bad value: port range, UUID, enum text
    };

    ProfileDecodingError(Kind kind, std::string path, std::string detail);

    Kind kind() const { return kind_; }
    const std::string& path() const { return path_; }
    const std::string& detail() const { return detail_; }

    std::string domain() const override { return "ProfileDecodingError"; }
    int code() const override { return static_cast<int>(kind_); }
    std::string localizedDescription() const override;

private:
    Kind kind_;
    std::string path_;
    std::string detail_;
};

// The one JSON form of a profile. Reading is all or nothing and never throws:
// on failure it returns nullopt and, when asked, says why.
std::optional<Profile> decodeProfile(std::span<const std::uint8_t> bytes,
                                     std::optional<ProfileDecodingError>* error = nullptr);
std::optional<Profile> decodeProfile(std::string_view text,
                                     std::optional<ProfileDecodingError>* error = nullptr);

// Sorted keys, optional values left out, empty lists as arrays, upper-case
// UUIDs, "/" written as "\/". Pretty printing is what the store writes.
std::string encodeProfile(const Profile& profile, bool pretty = true);

} // namespace veltrane::kit
