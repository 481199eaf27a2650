#include "metadata/QVLAttributeDictionary.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <mutex>
#include <unordered_map>

#include "base/UTF8.h"
#include "metadata/QVLFileMetadata.h"
#include "platform/fs/FileSystem.h"

namespace qvl {
namespace {

using platform::FileSystem;
using platform::ItemStat;
using platform::ItemType;

// Names of users and groups by ID. A lookup per file costs several times the
// walk itself, so each ID is looked up once. Bounded: a tree with more
// distinct IDs than this starts the cache over.
class NameCache {
  public:
    template <class Lookup>
    std::optional<std::string> nameFor(uint32_t id, Lookup lookup) {
        {
            std::lock_guard<std::mutex> guard(lock_);
            if (auto it = names_.find(id); it != names_.end()) return it->second;
        }
        std::optional<std::string> name = lookup(id);
        std::lock_guard<std::mutex> guard(lock_);
        if (names_.size() >= kMaxEntries) names_.clear();
        names_.emplace(id, name);
        return name;
    }

  private:
    static constexpr size_t kMaxEntries = 65536;
    std::mutex lock_;
    std::unordered_map<uint32_t, std::optional<std::string>> names_;
};

NameCache& userNames() {
    static NameCache cache;
    return cache;
}

NameCache& groupNames() {
    static NameCache cache;
    return cache;
}

std::string_view typeName(ItemType type) {
    switch (type) {
        case ItemType::kRegular:
            return kNSFileTypeRegular;
        case ItemType::kDirectory:
            return kNSFileTypeDirectory;
        case ItemType::kSymbolicLink:
            return kNSFileTypeSymbolicLink;
        case ItemType::kSocket:
            return kNSFileTypeSocket;
        case ItemType::kCharacterSpecial:
            return kNSFileTypeCharacterSpecial;
        case ItemType::kBlockSpecial:
            return kNSFileTypeBlockSpecial;
        // The platform has no name of its own for a named pipe.
        case ItemType::kFifo:
        case ItemType::kUnknown:
            return kNSFileTypeUnknown;
    }
    return kNSFileTypeUnknown;
}

plist::Date dateOf(const timespec& t) {
    return plist::Date{static_cast<double>(t.tv_sec - static_cast<time_t>(plist::Date::kUnixEpochOffset)) +
                       static_cast<double>(t.tv_nsec) * 1e-9};
}

std::string protectionClassOf(FileSystem& files, const std::string& path) {
    return QVLAttributeDictionary::protectionClassFrom(files.protectionClass(path));
}

// Values to apply, all checked before the first change is made.
struct AttributeChanges {
    uint32_t uid = static_cast<uint32_t>(-1);  // -1: unchanged
    uint32_t gid = static_cast<uint32_t>(-1);
    std::optional<uint32_t> mode;
    std::optional<timespec> modification;
    std::optional<bool> immutable;
};

bool readID(const plist::Dictionary& attributes, std::string_view key, uint32_t* out, std::string* error) {
    const plist::Value* value = attributes.find(key);
    if (!value) return true;
    std::optional<int64_t> id = value->isBoolean() ? std::nullopt : value->integerValue();
    // -1 would mean "leave unchanged" to the kernel: it is not an ID.
    if (!id || *id < 0 || *id >= 0xffffffffLL) {
        *error = std::string("Invalid value for ") + std::string(key);
        return false;
    }
    *out = static_cast<uint32_t>(*id);
    return true;
}

bool readName(const plist::Dictionary& attributes, std::string_view key, bool isUser, uint32_t* out,
              std::string* error, FileSystem& files) {
    const plist::Value* value = attributes.find(key);
    if (!value) return true;
    const std::string* name = value->asString();
    if (!name) {
        *error = std::string("Invalid value for ") + std::string(key);
        return false;
    }
    std::optional<uint32_t> id = isUser ? files.userID(*name) : files.groupID(*name);
    if (!id) {
        *error = std::string(isUser ? "No user named " : "No group named ") + *name;
        return false;
    }
    *out = *id;
    return true;
}

bool readChanges(const plist::Dictionary& attributes, AttributeChanges* changes, std::string* error,
                 FileSystem& files) {
    // An ID is what was recorded; a name is used only where no ID is given,
    // since the same name may stand for another ID on this system.
    if (!attributes.contains(kNSFileOwnerAccountID) &&
        !readName(attributes, kNSFileOwnerAccountName, true, &changes->uid, error, files)) {
        return false;
    }
    if (!attributes.contains(kNSFileGroupOwnerAccountID) &&
        !readName(attributes, kNSFileGroupOwnerAccountName, false, &changes->gid, error, files)) {
        return false;
    }
    if (!readID(attributes, kNSFileOwnerAccountID, &changes->uid, error) ||
        !readID(attributes, kNSFileGroupOwnerAccountID, &changes->gid, error)) {
        return false;
    }
    if (const plist::Value* value = attributes.find(kNSFilePosixPermissions)) {
        std::optional<int64_t> mode = value->isBoolean() ? std::nullopt : value->integerValue();
        // File-type bits may come along from a full st_mode; anything wider is not a mode.
        if (!mode || *mode < 0 || *mode > 0xffff) {
            *error = "Invalid value for NSFilePosixPermissions";
            return false;
        }
        changes->mode = static_cast<uint32_t>(*mode) & 07777;
    }
    if (const plist::Value* value = attributes.find(kNSFileModificationDate)) {
        const plist::Date* date = value->asDate();
        const double unix = date ? date->toUnix() : NAN;
        if (!std::isfinite(unix) || std::fabs(unix) > 1e15) {
            *error = "Invalid value for NSFileModificationDate";
            return false;
        }
        const double seconds = std::floor(unix);
        long nanoseconds = std::lround((unix - seconds) * 1e9);
        if (nanoseconds > 999999999) nanoseconds = 999999999;
        changes->modification = timespec{static_cast<time_t>(seconds), nanoseconds};
    }
    if (const plist::Value* value = attributes.find(kNSFileImmutable)) {
        changes->immutable = value->boolValue();
        if (!changes->immutable) {
            *error = "Invalid value for NSFileImmutable";
            return false;
        }
    }
    return true;
}

bool fail(std::string* error) {
    *error = QVLAttributeDictionary::errorText(errno);
    return false;
}

}  // namespace

std::string QVLAttributeDictionary::protectionClassFrom(std::optional<std::string> value) {
    // A value that is not text is not a class the platform knows.
    if (!value || value->empty() || !isValidUTF8(*value)) return std::string(kNSFileProtectionNone);
    return std::move(*value);
}

std::string QVLAttributeDictionary::errorText(int error) {
    return std::string(std::strerror(error)) + " (errno " + std::to_string(error) + ")";
}

std::optional<plist::Dictionary> QVLAttributeDictionary::attributesOfItem(const std::string& path,
                                                                          std::string* error,
                                                                          FileSystem& files) {
    ItemStat st;
    if (files.statItem(path, &st) != 0) {
        fail(error);
        return std::nullopt;
    }
    return attributesOfStat(st, protectionClassOf(files, path), files);
}

plist::Dictionary QVLAttributeDictionary::attributesOfStat(const ItemStat& st, std::string protectionClass,
                                                           FileSystem& files) {
    std::optional<std::string> owner =
        userNames().nameFor(st.uid, [&](uint32_t id) { return files.userName(id); });
    std::optional<std::string> group =
        groupNames().nameFor(st.gid, [&](uint32_t id) { return files.groupName(id); });

    plist::Dictionary attributes;
    attributes.reserve(18);
    attributes.appendUnchecked(kNSFileBusy, false);
    if (st.birth) attributes.appendUnchecked(kNSFileCreationDate, dateOf(*st.birth));
    attributes.appendUnchecked(kNSFileExtensionHidden, false);
    attributes.appendUnchecked(kNSFileGroupOwnerAccountID, static_cast<int64_t>(st.gid));
    if (group) attributes.appendUnchecked(kNSFileGroupOwnerAccountName, std::move(*group));
    attributes.appendUnchecked(kNSFileHFSCreatorCode, static_cast<int64_t>(0));
    attributes.appendUnchecked(kNSFileHFSTypeCode, static_cast<int64_t>(0));
    attributes.appendUnchecked(kNSFileImmutable, st.immutable);
    attributes.appendUnchecked(kNSFileModificationDate, dateOf(st.modification));
    attributes.appendUnchecked(kNSFileOwnerAccountID, static_cast<int64_t>(st.uid));
    if (owner) attributes.appendUnchecked(kNSFileOwnerAccountName, std::move(*owner));
    attributes.appendUnchecked(kNSFilePosixPermissions, static_cast<int64_t>(st.permissions));
    attributes.appendUnchecked(kNSFileProtectionKey, std::move(protectionClass));
    attributes.appendUnchecked(kNSFileReferenceCount, static_cast<int64_t>(st.linkCount));
    attributes.appendUnchecked(kNSFileSize, plist::Integer::fromUnsigned(st.size));
    attributes.appendUnchecked(kNSFileSystemFileNumber, plist::Integer::fromUnsigned(st.inode));
    attributes.appendUnchecked(kNSFileSystemNumber, plist::Integer::fromUnsigned(st.device));
    attributes.appendUnchecked(kNSFileType, typeName(st.type));
    return attributes;
}

bool QVLAttributeDictionary::setAttributes(const plist::Dictionary& attributes, const std::string& path,
                                           std::string* error, FileSystem& files) {
    AttributeChanges changes;
    if (!readChanges(attributes, &changes, error, files)) return false;
    ItemStat st;
    if (files.statItem(path, &st) != 0) return fail(error);
    // An immutable item refuses every other change: lift the flag first and
    // put back what the record (or, without one, the item) says at the end.
    const bool finalImmutable = changes.immutable.value_or(st.immutable);
    if (st.immutable && files.setImmutableFlag(path, false) != 0) return fail(error);
    // Owner before mode: changing the owner clears the set-ID bits.
    if ((changes.uid != static_cast<uint32_t>(-1) || changes.gid != static_cast<uint32_t>(-1)) &&
        files.changeOwner(path, changes.uid, changes.gid) != 0) {
        return fail(error);
    }
    if (changes.mode && files.changeMode(path, *changes.mode) != 0) return fail(error);
    if (changes.modification && files.setModificationTime(path, *changes.modification) != 0)
        return fail(error);
    if ((finalImmutable || st.immutable) && files.setImmutableFlag(path, finalImmutable) != 0) {
        return fail(error);
    }
    return true;
}

bool QVLAttributeDictionary::setProtectionClass(const plist::Dictionary& attributes, const std::string& path,
                                                std::string* error, FileSystem& files) {
    const plist::Value* value = attributes.find(kNSFileProtectionKey);
    if (!value) return true;
    const std::string* protectionClass = value->asString();
    if (!protectionClass || protectionClass->empty() ||
        protectionClass->size() > FileSystem::kMaxProtectionClassLength) {
        *error = "Invalid value for NSFileProtectionKey";
        return false;
    }
    if (protectionClassOf(files, path) == *protectionClass) return true;
    if (files.setProtectionClass(path, *protectionClass) != 0) return fail(error);
    return true;
}

}  // namespace qvl
