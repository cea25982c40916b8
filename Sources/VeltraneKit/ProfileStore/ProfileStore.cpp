#include "VeltraneKit/ProfileStore/ProfileStore.hpp"

#include "VeltraneKit/Localize.hpp"
#include "VeltraneKit/ProfileCoding.hpp"
#include "VeltraneKit/ProfileStore/StoreFiles.hpp"
#include "VeltraneKit/UnicodeText.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <span>
#include <sys/file.h>
#include <system_error>
#include <unistd.h>

namespace veltrane::kit {

namespace {

constexpr std::string_view profilesName = "profiles";
constexpr std::string_view activeName = "active";
constexpr std::string_view lockName = ".lock";

// The length of the UTF-8 white space or line end at the start of `text`
// (Unicode White_Space), or 0.
std::size_t leadingSpace(std::string_view text) {
    auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    if (text.empty()) {
        return 0;
    }
    unsigned char c = byte(0);
    if (c == ' ' || (c >= 0x09 && c <= 0x0D)) {
        return 1;
    }
    if (text.size() >= 2 && c == 0xC2 && (byte(1) == 0x85 || byte(1) == 0xA0)) {
        return 2;
    }
    if (text.size() >= 3) {
        unsigned char b1 = byte(1), b2 = byte(2);
        bool space = (c == 0xE1 && b1 == 0x9A && b2 == 0x80) || // U+1680
                     (c == 0xE2 && b1 == 0x80 &&
                      (b2 <= 0x8A ||                            // U+2000..200A
                       b2 == 0xA8 || b2 == 0xA9 ||              // U+2028, 2029
                       b2 == 0xAF)) ||                          // U+202F
                     (c == 0xE2 && b1 == 0x81 && b2 == 0x9F) || // U+205F
                     (c == 0xE3 && b1 == 0x80 && b2 == 0x80);   // U+3000
        if (space) {
            return 3;
        }
    }
    return 0;
}

// The same at the end: the longest suffix of 1 to 3 bytes that is white space.
std::size_t trailingSpace(std::string_view text) {
    for (std::size_t length = 1; length <= 3 && length <= text.size(); ++length) {
        if (leadingSpace(text.substr(text.size() - length)) == length) {
            return length;
        }
    }
    return 0;
}

std::string_view trimmed(std::string_view text) {
    while (std::size_t n = leadingSpace(text)) {
        text.remove_prefix(n);
    }
    while (std::size_t n = trailingSpace(text)) {
        text.remove_suffix(n);
    }
    return text;
}

Profile decodeOrThrow(const std::string& bytes) {
    std::optional<ProfileDecodingError> error;
    auto profile = decodeProfile(std::string_view(bytes), &error);
    if (!profile) {
        throw *error;
    }
    return *profile;
}

std::string_view operationText(ProfileStore::FileError::Operation operation) {
    using Operation = ProfileStore::FileError::Operation;
    switch (operation) {
    case Operation::createDirectory:
        return "cannot create the directory";
    case Operation::read:
        return "cannot read";
    case Operation::write:
        return "cannot write";
    case Operation::remove:
        return "cannot remove";
    case Operation::lock:
        return "cannot lock the store at";
    }
    return "cannot use";
}

} // namespace

// ---------------------------------------------------------------- errors

ProfileStore::StoreError ProfileStore::StoreError::notFound(std::string what) {
    return StoreError(Case::notFound, std::move(what));
}

ProfileStore::StoreError ProfileStore::StoreError::duplicateName(std::string name) {
    return StoreError(Case::duplicateName, std::move(name));
}

ProfileStore::StoreError ProfileStore::StoreError::lastProfile() {
    return StoreError(Case::lastProfile, {});
}

std::string ProfileStore::StoreError::localizedDescription() const {
    switch (kind_) {
    case Case::notFound:
        return RL("找不到 profile「%@」", {value_});
    case Case::duplicateName:
        return RL("已存在同名 profile「%@」", {value_});
    case Case::lastProfile:
        return RL("至少保留一个 profile");
    }
    return {};
}

ProfileStore::FileError::FileError(Operation operation, std::filesystem::path path, int errnoValue)
    : operation_(operation), path_(std::move(path)), errno_(errnoValue) {}

std::string ProfileStore::FileError::localizedDescription() const {
    return std::string(operationText(operation_)) + " " + path_.string() + ": " +
           std::generic_category().message(errno_);
}

// ---------------------------------------------------------------- locking

// Both locks of one write: the store's mutex against this process's other
// threads, then the file lock against other processes.
class ProfileStore::WriteLock {
public:
    explicit WriteLock(ProfileStore& store) : store_(store), guard_(store.lock_) {
        const auto path = store_.directory_ / lockName;
        if (store_.lockFD_ < 0) {
            store_.lockFD_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
            if (store_.lockFD_ < 0) {
                throw FileError(FileError::Operation::lock, path, errno);
            }
        }
        while (::flock(store_.lockFD_, LOCK_EX) != 0) {
            if (errno != EINTR) {
                throw FileError(FileError::Operation::lock, path, errno);
            }
        }
    }
    ~WriteLock() { ::flock(store_.lockFD_, LOCK_UN); }

    WriteLock(const WriteLock&) = delete;
    WriteLock& operator=(const WriteLock&) = delete;

private:
    ProfileStore& store_;
    std::lock_guard<std::mutex> guard_;
};

// ---------------------------------------------------------------- store

ProfileStore::ProfileStore(std::filesystem::path directory)
    : directory_(std::move(directory)), profilesDirectory_(directory_ / profilesName) {
    StoreFiles::makeDirectories(profilesDirectory_);
    // Under the file lock, so that two processes opening a new store at once
    // make one default profile between them, not two.
    WriteLock lock(*this);
    if (listIDs().empty()) {
        auto profile = Profile::makeDefault("Default");
        writeProfile(profile);
        writeActive(profile.id);
    }
}

ProfileStore::~ProfileStore() {
    if (lockFD_ >= 0) {
        ::close(lockFD_);
    }
}

std::filesystem::path ProfileStore::profilePath(const UUID& id) const {
    return profilesDirectory_ / (id.uuidString() + ".json");
}

std::vector<UUID> ProfileStore::listIDs() const {
    std::vector<UUID> ids;
    std::error_code error;
    std::filesystem::directory_iterator entries(profilesDirectory_, error);
    if (error) {
        return ids;
    }
    // The incrementing form that reports instead of throwing: a listing cut
    // short keeps what it found.
    for (; !error && entries != std::filesystem::directory_iterator(); entries.increment(error)) {
        const auto& path = entries->path();
        if (path.extension() != ".json") {
            continue;
        }
        if (auto id = UUID::parse(path.stem().string())) {
            ids.push_back(*id);
        }
    }
    return ids;
}

std::vector<Profile> ProfileStore::list() const {
    std::vector<Profile> profiles;
    for (const auto& id : listIDs()) {
        std::string bytes;
        try {
            bytes = StoreFiles::readFile(profilePath(id));
        } catch (const FileError&) {
            continue;
        }
        if (auto profile = decodeProfile(std::string_view(bytes))) {
            profiles.push_back(std::move(*profile));
        }
    }
    std::stable_sort(profiles.begin(), profiles.end(),
                     [](const Profile& a, const Profile& b) { return a.name < b.name; });
    return profiles;
}

Profile ProfileStore::load(const UUID& id) const {
    return decodeOrThrow(StoreFiles::readFile(profilePath(id)));
}

Profile ProfileStore::find(std::string_view name) const {
    for (auto& profile : list()) {
        if (UnicodeText::equalsIgnoringCase(profile.name, name)) {
            return std::move(profile);
        }
    }
    throw StoreError::notFound(std::string(name));
}

Profile ProfileStore::create(const std::string& name) {
    try {
        find(name);
    } catch (const Error&) {
        auto profile = Profile::makeDefault(name);
        save(profile);
        return profile;
    }
    throw StoreError::duplicateName(name);
}

Profile ProfileStore::duplicate(const UUID& id, const std::string& newName) {
    bool taken = true;
    try {
        find(newName);
    } catch (const Error&) {
        taken = false;
    }
    if (taken) {
        throw StoreError::duplicateName(newName);
    }
    const Profile source = load(id);
    Profile copy;
    copy.schemaVersion = Profile::currentSchemaVersion;
    copy.id = UUID::random();
    copy.name = newName;
    copy.proxies = source.proxies;
    copy.chains = source.chains;
    copy.rules = source.rules;
    copy.dns = source.dns;
    copy.general = source.general;
    // A copy is bound to no network, or both would claim it.
    copy.environments = {};
    save(copy);
    return copy;
}

void ProfileStore::deleteProfile(const UUID& id) {
    if (listIDs().size() < 2) {
        throw StoreError::lastProfile();
    }
    bool wasActive = false;
    try {
        wasActive = activeID() == id;
    } catch (const Error&) {
        // An unreadable "active" names no profile, so this one was not it.
    }
    {
        WriteLock lock(*this);
        StoreFiles::removeFile(profilePath(id));
    }
    // setActive takes the lock itself, and the lock is not recursive.
    if (wasActive) {
        auto left = listIDs();
        if (!left.empty()) {
            setActive(left.front());
        }
    }
}

void ProfileStore::save(const Profile& profile) {
    WriteLock lock(*this);
    writeProfile(profile);
}

void ProfileStore::writeProfile(const Profile& profile) {
    StoreFiles::replaceFile(profilePath(profile.id), encodeProfile(profile, true));
}

UUID ProfileStore::activeID() const {
    const auto path = directory_ / activeName;
    const std::string bytes = StoreFiles::readFile(path);
    const auto asBytes =
        std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    if (UnicodeText::repairUTF8(asBytes) != bytes) {
        throw FileError(FileError::Operation::read, path, EILSEQ);
    }
    if (auto id = UUID::parse(trimmed(bytes))) {
        return *id;
    }
    throw StoreError::notFound(std::string(activeName));
}

void ProfileStore::setActive(const UUID& id) {
    WriteLock lock(*this);
    writeActive(id);
}

void ProfileStore::writeActive(const UUID& id) {
    StoreFiles::replaceFile(directory_ / activeName, id.uuidString());
}

Profile ProfileStore::activeProfile() const {
    return load(activeID());
}

std::optional<Profile>
ProfileStore::profileMatching(const NetworkEnvironment::Fingerprint& fingerprint) const {
    for (auto& profile : list()) {
        for (const auto& environment : profile.environments) {
            if (environment.matches(fingerprint)) {
                return std::move(profile);
            }
        }
    }
    return std::nullopt;
}

} // namespace veltrane::kit
