#pragma once

#include "VeltraneKit/Error.hpp"
#include "VeltraneKit/Profile.hpp"
#include "VeltraneKit/ProfileStore/Fingerprint.hpp"

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace veltrane::kit {

// The user's profiles on disk, one JSON file each, and which one is active.
// Layout under `directory`:
//   profiles/<ID>.json  one profile; the name is the upper-case canonical id
//   active              the active profile's id, 36 characters, no line end
//   .lock               taken with flock(2) around every write, so that two
//                       processes sharing the store never interleave writes
// Files are made 0600 and directories 0700: profiles hold proxy passwords.
//
// Every call goes to the disk; nothing is cached. Any thread may call any
// operation. Each single write (save, setActive, the removal inside
// deleteProfile) happens under the store's lock and the file lock and is an
// atomic replacement, so reads take no lock and always see a whole file.
// Composite operations are not atomic: the name check of create and
// duplicate and their save are two steps.
//
// Errors: StoreError for the store's own refusals, FileError for a file
// operation, ProfileDecodingError (ProfileCoding.hpp) for a profile file that
// does not read. All three derive from Error and are thrown unchanged.
class ProfileStore {
public:
    class StoreError final : public Error {
    public:
        // In this order; code() is the position.
        enum class Case { notFound, duplicateName, lastProfile };

        static StoreError notFound(std::string what);
        static StoreError duplicateName(std::string name);
        static StoreError lastProfile();

        Case kind() const { return kind_; }
        // The name or id of notFound and duplicateName; empty for lastProfile.
        const std::string& value() const { return value_; }

        std::string domain() const override { return "ProfileStore.StoreError"; }
        int code() const override { return static_cast<int>(kind_); }
        std::string localizedDescription() const override;

        friend bool operator==(const StoreError& a, const StoreError& b) {
            return a.kind_ == b.kind_ && a.value_ == b.value_;
        }

    private:
        StoreError(Case kind, std::string value) : kind_(kind), value_(std::move(value)) {}

        Case kind_;
        std::string value_;
    };

    // A failed file operation: what was being done, to which path, and the
    // errno value (domain "POSIX", code() is the errno).
    class FileError final : public Error {
    public:
        enum class Operation { createDirectory, read, write, remove, lock };

        FileError(Operation operation, std::filesystem::path path, int errnoValue);

        Operation operation() const { return operation_; }
        const std::filesystem::path& path() const { return path_; }
        int errnoValue() const { return errno_; }

        std::string domain() const override { return "POSIX"; }
        int code() const override { return errno_; }
        std::string localizedDescription() const override;

    private:
        Operation operation_;
        std::filesystem::path path_;
        int errno_;
    };

    // Opens the store at `directory` (see SharedPaths::storeDirectory()),
    // making "profiles" and any missing parent. A store without a single
    // profile gets one named "Default", which becomes active; a store that
    // holds profiles is left as it is, even without an "active" file.
    // Throws FileError when the directories cannot be made or the first
    // profile cannot be written.
    explicit ProfileStore(std::filesystem::path directory);
    ~ProfileStore();

    ProfileStore(const ProfileStore&) = delete;
    ProfileStore& operator=(const ProfileStore&) = delete;

    const std::filesystem::path& directory() const { return directory_; }
    // Where the profile with `id` is (or would be) stored.
    std::filesystem::path profilePath(const UUID& id) const;

    // Every profile that reads, sorted by name (byte order, stable). Files
    // that cannot be read or decoded are skipped without a word. Never throws
    // for the files' sake.
    std::vector<Profile> list() const;

    // The profile stored under `id`. FileError or ProfileDecodingError.
    Profile load(const UUID& id) const;

    // The first profile of list() whose name equals `name` ignoring case;
    // StoreError::notFound(name) when there is none.
    Profile find(std::string_view name) const;

    // A new default profile named `name`, saved; not made active.
    // StoreError::duplicateName(name) when a profile of that name (ignoring
    // case) exists.
    Profile create(const std::string& name);

    // A copy of the profile `id` under a new id and `newName`, with schema
    // version 1 and no environments, saved; not made active.
    // StoreError::duplicateName(newName) first, then the errors of load(id).
    Profile duplicate(const UUID& id, const std::string& newName);

    // Removes the profile `id`. StoreError::lastProfile when the store holds
    // fewer than two profiles, whatever `id` is; FileError when there is no
    // such file. When the active profile goes, the first one left (in
    // directory order) becomes active.
    void deleteProfile(const UUID& id);

    // Writes `profile` to the file of its id, adding or replacing. Checks
    // nothing about the name or the contents.
    void save(const Profile& profile);

    // The id in "active" (white space around it ignored). FileError when the
    // file cannot be read; StoreError::notFound("active") when it holds no id.
    UUID activeID() const;

    // Makes `id` the active profile; it need not exist.
    void setActive(const UUID& id);

    // The active profile; the errors of activeID() and load(id), no fallback.
    Profile activeProfile() const;

    // The first profile in list() order with an environment, in its stored
    // order, that matches `fingerprint`; nullopt when none does.
    std::optional<Profile>
    profileMatching(const NetworkEnvironment::Fingerprint& fingerprint) const;

private:
    class WriteLock;

    std::vector<UUID> listIDs() const;
    void writeProfile(const Profile& profile);
    void writeActive(const UUID& id);

    std::filesystem::path directory_;
    std::filesystem::path profilesDirectory_;
    // Not recursive: composite operations take it only inside single writes.
    std::mutex lock_;
    // The ".lock" file, opened at the first write so that a store that is
    // only read needs no write access. Guarded by lock_.
    int lockFD_ = -1;
};

} // namespace veltrane::kit
