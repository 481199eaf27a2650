#include "metadata/QVLFileMetadata.h"

#include <array>
#include <memory>

#include "base/QVLLog.h"
#include "base/UTF8.h"
#include "base/UniqueFd.h"
#include "metadata/QVLAttributeDictionary.h"
#include "metadata/QVLFileDigest.h"
#include "platform/fs/FileSystem.h"

namespace qvl {
namespace {

using platform::FileSystem;

// The kernel keeps names and values of extended attributes under 64 KiB; a
// file system answering more is not believed.
constexpr ssize_t kMaxExtendedAttributeSize = 1 << 20;

constexpr std::array<std::string_view, 12> kAllowedAttributeKeys = {
    kNSFileBusy,
    kNSFileHFSCreatorCode,
    kNSFileHFSTypeCode,
    kNSFileImmutable,
    kNSFileCreationDate,
    kNSFileExtensionHidden,
    kNSFileGroupOwnerAccountID,
    kNSFileGroupOwnerAccountName,
    kNSFileModificationDate,
    kNSFileOwnerAccountID,
    kNSFileOwnerAccountName,
    kNSFilePosixPermissions,
};

// An owner or group for lchown read as a signed 32-bit number. A record
// without one leaves it unchanged (-1) rather than handing the link to root.
uint32_t linkOwnerID(const plist::Dictionary* attributes, std::string_view key) {
    const plist::Value* value = attributes ? attributes->find(key) : nullptr;
    std::optional<int64_t> id = value ? value->integerValue() : std::nullopt;
    return id ? static_cast<uint32_t>(static_cast<int32_t>(*id)) : static_cast<uint32_t>(-1);
}

// The type of freshly read attributes. A linear look: a lookup in a
// dictionary of this size would first build its index.
const std::string* fileTypeOf(const plist::Dictionary& attributes) {
    for (const auto& [key, value] : attributes) {
        if (key == kNSFileType) return value.asString();
    }
    return nullptr;
}

// The digest of an item whose attributes were just read: it exists, so only
// folders and unreadable content are left to tell apart from a digest.
plist::Data contentDigest(const std::string& path, const std::string* type, FileSystem& files) {
    if (type && *type == kNSFileTypeDirectory) return plist::Data();
    std::optional<plist::Data> hash = fileHash(path, files);
    if (!hash) {
        QVLLog("Maybe it's an Nimbra file (%@)?", path);
        return plist::Data();
    }
    return std::move(*hash);
}

bool sameData(const plist::Data* a, const plist::Data* b) {
    return a && b && *a == *b;
}

plist::Dictionary withoutIgnoredAttribute(const plist::Dictionary* attributes) {
    plist::Dictionary result = attributes ? *attributes : plist::Dictionary();
    result.erase(kDbRebuildUuidAttribute);
    return result;
}

// The names of a NUL-separated list, without empty ones. A record holds
// names as text; a name that is not UTF-8 cannot be recorded faithfully, so
// it is left out rather than mangled.
std::vector<std::string> namesInList(std::string_view list, const std::string& path) {
    std::vector<std::string> names;
    for (size_t pos = 0; pos < list.size();) {
        size_t end = list.find('\0', pos);
        if (end == std::string_view::npos) end = list.size();
        std::string_view name = list.substr(pos, end - pos);
        pos = end + 1;
        if (name.empty()) continue;
        if (!isValidUTF8(name)) {
            QVLLog("Skipping an extended attribute of %@ whose name is not UTF-8", path);
            continue;
        }
        names.emplace_back(name);
    }
    return names;
}

}  // namespace

std::optional<QVLFileMetadata> QVLFileMetadata::fileMetadatatWithPath(const std::string& path,
                                                                      FileSystem& files) {
    std::optional<plist::Dictionary> attributes = fileAttributesWithPath(path, files);
    if (!attributes) {
        QVLLog("Cannot get file attribute for %@", path);
        return std::nullopt;
    }
    std::optional<plist::Dictionary> extendedAttributes = extendedAttributesWithPath(path, files);
    std::optional<plist::Data> hash;
    std::optional<std::string> target;
    const std::string* type = fileTypeOf(*attributes);
    if (type && *type == kNSFileTypeSymbolicLink) {
        hash = plist::Data();
        target = targetFileWithPath(path, files);
    } else {
        target = std::string();
        hash = contentDigest(path, type, files);
    }
    return record(std::move(*attributes), std::move(extendedAttributes), std::move(*hash), std::move(target));
}

std::optional<QVLFileMetadata> QVLFileMetadata::fileMetadataInFolder(int folderFd, const std::string& name,
                                                                     platform::ItemType type,
                                                                     const std::string& path,
                                                                     FileSystem& files, UniqueFd opened,
                                                                     bool* fromDisk) {
    // Links and other items, and any item that can't be opened or changed
    // type since it was listed, take the way by path, which says why.
    if (folderFd < 0 || (type != platform::ItemType::kRegular && type != platform::ItemType::kDirectory))
        return fileMetadatatWithPath(path, files);
    const UniqueFd fd = opened.valid() && type == platform::ItemType::kRegular
                            ? std::move(opened)
                            : files.openItemAt(folderFd, name, type);
    platform::ItemStat st;
    if (!fd.valid() || files.statOpenItem(fd.get(), &st) != 0 || st.type != type)
        return fileMetadatatWithPath(path, files);
    std::string names;
    std::optional<std::string> protectionClass;
    const bool listed =
        files.extendedAttributeNamesAndProtectionClassOf(fd.get(), &names, &protectionClass) == 0;
    plist::Dictionary attributes = QVLAttributeDictionary::attributesOfStat(
        st, QVLAttributeDictionary::protectionClassFrom(std::move(protectionClass)), files);
    std::optional<plist::Dictionary> extendedAttributes =
        listed ? extendedAttributesNamedIn(names, fd.get(), path, files) : unlistedAttributes(path);
    plist::Data hash;
    if (type == platform::ItemType::kRegular) {
        if (std::optional<plist::Data> digest =
                fileHashOfOpenFile(fd.get(), st.size, path, files, fromDisk)) {
            hash = std::move(*digest);
        } else {
            QVLLog("Maybe it's an Nimbra file (%@)?", path);
        }
    }
    return record(std::move(attributes), std::move(extendedAttributes), std::move(hash), std::string());
}

QVLFileMetadata QVLFileMetadata::record(plist::Dictionary attributes,
                                        std::optional<plist::Dictionary> extendedAttributes, plist::Data hash,
                                        std::optional<std::string> target) {
    // The record ends at the first value that could not be produced.
    plist::Dictionary record;
    record.reserve(extendedAttributes ? (target ? 4 : 3) : 1);
    record.appendUnchecked(std::string(kQVLManifestFileAttributes), std::move(attributes));
    if (extendedAttributes) {
        record.appendUnchecked(std::string(kQVLManifestFileExtendedAttributes),
                               std::move(*extendedAttributes));
        record.appendUnchecked(std::string(kQVLManifestFileHash), std::move(hash));
        if (target)
            record.appendUnchecked(std::string(kQVLManifestSymbolicLinkTargetFile), std::move(*target));
    }
    return QVLFileMetadata(std::move(record));
}

const plist::Data* QVLFileMetadata::getHash() const {
    return dict_.getData(kQVLManifestFileHash);
}

const plist::Dictionary* QVLFileMetadata::getFileAttributes() const {
    return dict_.getDictionary(kQVLManifestFileAttributes);
}

const plist::Dictionary* QVLFileMetadata::getExtendedAttributes() const {
    return dict_.getDictionary(kQVLManifestFileExtendedAttributes);
}

const std::string* QVLFileMetadata::getFileType() const {
    const plist::Dictionary* attributes = getFileAttributes();
    return attributes ? attributes->getString(kNSFileType) : nullptr;
}

const std::string* QVLFileMetadata::getTargetFile() const {
    return dict_.getString(kQVLManifestSymbolicLinkTargetFile);
}

int64_t QVLFileMetadata::getFileSize() const {
    const std::string* type = getFileType();
    if (!type || *type != kNSFileTypeRegular) return 0;
    const plist::Value* size = getFileAttributes()->find(kNSFileSize);
    if (!size || size->isBoolean()) return 0;
    return size->integerValue().value_or(0);
}

std::optional<plist::Dictionary> QVLFileMetadata::fileAttributesWithPath(const std::string& path,
                                                                         FileSystem& files) {
    std::string error;
    std::optional<plist::Dictionary> attributes =
        QVLAttributeDictionary::attributesOfItem(path, &error, files);
    if (!attributes) QVLLog("Get file attributes failed for %@ with error - %@", path, error);
    return attributes;
}

std::optional<std::vector<std::string>> QVLFileMetadata::extendedAttributeKeysWithPath(
    const std::string& path, FileSystem& files) {
    const ssize_t size = files.listExtendedAttributes(path, nullptr, 0);
    if (size < 0 || size > kMaxExtendedAttributeSize) {
        QVLLog("Could not extract extended attributes from %@.", path);
        return std::nullopt;
    }
    std::vector<std::string> names;
    if (size == 0) return names;
    std::string list(static_cast<size_t>(size), '\0');
    const ssize_t length = files.listExtendedAttributes(path, list.data(), list.size());
    if (length < 1) {
        QVLLog("Could not extract extended attributes from %@. File is expected to have extended attributes.",
               path);
        return std::nullopt;
    }
    list.resize(static_cast<size_t>(length));
    return namesInList(list, path);
}

plist::Data QVLFileMetadata::valueForExtendedAttributesKey(const std::string& key, const std::string& path,
                                                           FileSystem& files) {
    const ssize_t size = files.getExtendedAttribute(path, key, nullptr, 0);
    if (size < 0 || size > kMaxExtendedAttributeSize) {
        QVLLog("Could not extract extended file attributes from %@, returned %d", path,
               static_cast<int>(size));
        return plist::Data();
    }
    plist::Data value(static_cast<size_t>(size), 0);
    const ssize_t length = files.getExtendedAttribute(path, key, value.data(), value.size());
    if (length < 0) {
        QVLLog(
            "Coud not extract extended file attributes from %@. File is expected to have extended "
            "attributes.",
            path);
        return value;
    }
    value.resize(std::min(value.size(), static_cast<size_t>(length)));
    return value;
}

std::optional<plist::Dictionary> QVLFileMetadata::extendedAttributesWithPath(const std::string& path,
                                                                             FileSystem& files) {
    std::optional<std::vector<std::string>> names = extendedAttributeKeysWithPath(path, files);
    if (!names) {
        QVLLog("Could not get attribute keys from file %@", path);
        return std::nullopt;
    }
    plist::Dictionary values;
    for (std::string& name : *names) {
        plist::Data value = valueForExtendedAttributesKey(name, path, files);
        values.set(std::move(name), std::move(value));
    }
    return values;
}

std::optional<plist::Dictionary> QVLFileMetadata::extendedAttributesOfOpenItem(int fd,
                                                                               const std::string& path,
                                                                               FileSystem& files) {
    std::string list;
    if (files.extendedAttributeNamesOf(fd, &list) != 0) return unlistedAttributes(path);
    return extendedAttributesNamedIn(list, fd, path, files);
}

std::optional<plist::Dictionary> QVLFileMetadata::unlistedAttributes(const std::string& path) {
    QVLLog("Could not extract extended attributes from %@.", path);
    QVLLog("Could not get attribute keys from file %@", path);
    return std::nullopt;
}

plist::Dictionary QVLFileMetadata::extendedAttributesNamedIn(std::string_view list, int fd,
                                                             const std::string& path, FileSystem& files) {
    plist::Dictionary values;
    for (std::string& name : namesInList(list, path)) {
        plist::Data value;
        if (files.extendedAttributeOf(fd, name, kMaxExtendedAttributeSize, &value) != 0) {
            QVLLog("Could not extract extended file attributes from %@, returned %d", path, -1);
        }
        values.set(std::move(name), std::move(value));
    }
    return values;
}

std::optional<std::string> QVLFileMetadata::targetFileWithPath(const std::string& path, FileSystem& files) {
    std::string target;
    if (files.readLink(path, &target) != 0) {
        QVLLog("Could not get destination of symbolic link %@ with error - %@", path,
               QVLAttributeDictionary::errorText(errno));
        return std::nullopt;
    }
    if (!isValidUTF8(target)) {
        QVLLog("Could not get destination of symbolic link %@ with error - %@", path,
               "the link text is not UTF-8");
        return std::nullopt;
    }
    return target;
}

std::optional<plist::Data> QVLFileMetadata::fileHashWithPath(const std::string& path, FileSystem& files) {
    platform::ItemStat st;
    if (files.statFollowingLinks(path, &st) != 0) {
        QVLLog("File does not exist at %@", path);
        return std::nullopt;
    }
    if (st.type == platform::ItemType::kDirectory) return plist::Data();
    std::optional<plist::Data> hash = fileHash(path, files);
    if (!hash) {
        QVLLog("Maybe it's an Nimbra file (%@)?", path);
        return plist::Data();
    }
    return hash;
}

plist::Dictionary QVLFileMetadata::fileAttributesAllowSet(const plist::Dictionary& attributes) {
    plist::Dictionary allowed;
    for (const auto& [key, value] : attributes) {
        for (std::string_view allowedKey : kAllowedAttributeKeys) {
            if (key == allowedKey) {
                allowed.appendUnchecked(key, value);
                break;
            }
        }
    }
    return allowed;
}

bool QVLFileMetadata::restoreAttribuesToPath(const std::string& path, FileSystem& files,
                                             const std::string* shownPath) const {
    const std::string& shown = shownPath ? *shownPath : path;
    const plist::Dictionary* attributes = getFileAttributes();
    const std::string* type = getFileType();
    if (type && *type == kNSFileTypeSymbolicLink) {
        // A link's own owner and mode: outcomes are ignored (Linux has no
        // modes on links at all).
        (void)files.changeOwner(path, linkOwnerID(attributes, kNSFileOwnerAccountID),
                                linkOwnerID(attributes, kNSFileGroupOwnerAccountID));
        const plist::Value* mode = attributes->find(kNSFilePosixPermissions);
        if (std::optional<int64_t> bits = mode ? mode->integerValue() : std::nullopt) {
            (void)files.changeMode(path, static_cast<uint32_t>(*bits) & 0xffff);
        }
        return restoreExtendedAttributes(path, files, shown);
    }
    const plist::Dictionary recorded = attributes ? *attributes : plist::Dictionary();
    const plist::Dictionary allowed = fileAttributesAllowSet(recorded);
    std::string error;
    if (!QVLAttributeDictionary::setAttributes(allowed, path, &error, files)) {
        QVLLog("Could not set file attributs at %@ with error - %@, attributes = %@", shown, error, allowed);
        return false;
    }
    if (!QVLAttributeDictionary::setProtectionClass(recorded, path, &error, files)) {
        QVLLog("Could not set file protection key at %@ with error - %@, attributes = %@", shown, error,
               recorded.find(kNSFileProtectionKey));
        return false;
    }
    // Extended attributes are put back as far as they go; their failures are
    // logged, not reported.
    (void)restoreExtendedAttributes(path, files, shown);
    return true;
}

bool QVLFileMetadata::restoreExtendedAttributes(const std::string& path, FileSystem& files,
                                                const std::string& shownPath) const {
    const plist::Dictionary* extendedAttributes = getExtendedAttributes();
    if (!extendedAttributes) return true;
    for (const auto& [name, value] : *extendedAttributes) {
        if (!isValidUTF8(name)) {
            QVLLog("Got Non-string key");
            return false;
        }
        const plist::Data* bytes = value.asData();
        if (!bytes) {
            QVLLog("Got non-data value");
            return false;
        }
        if (files.setExtendedAttribute(path, name, bytes->data(), bytes->size()) != 0) {
            QVLLog("Could not set extended attributes on %@", shownPath);
            return false;
        }
    }
    return true;
}

int QVLFileMetadata::compareWith(const QVLFileMetadata* other) const {
    if (!other) return kOtherIsNull;
    const std::string* type = getFileType();
    const std::string* otherType = other->getFileType();
    if (!type || !otherType || *type != *otherType) return kTypeDiffers;
    if (*type == kNSFileTypeRegular && !sameData(getHash(), other->getHash())) return kDigestDiffers;
    if (*type == kNSFileTypeSymbolicLink) {
        const std::string* target = getTargetFile();
        const std::string* otherTarget = other->getTargetFile();
        if (!target || !otherTarget || *target != *otherTarget) return kLinkTargetDiffers;
    }
    const plist::Dictionary* attributes = getFileAttributes();
    const plist::Dictionary* otherAttributes = other->getFileAttributes();
    for (std::string_view key :
         {kNSFileGroupOwnerAccountID, kNSFileOwnerAccountID, kNSFilePosixPermissions}) {
        const plist::Value* value = attributes->find(key);
        if (!value) continue;
        const plist::Value* otherValue = otherAttributes->find(key);
        if (!otherValue || !(*value == *otherValue)) return kOwnershipOrModeDiffers;
    }
    const plist::Dictionary mine = withoutIgnoredAttribute(getExtendedAttributes());
    const plist::Dictionary theirs = withoutIgnoredAttribute(other->getExtendedAttributes());
    if (mine.size() != theirs.size()) return kExtendedAttributesDiffer;
    for (const auto& [name, value] : mine) {
        const plist::Value* otherValue = theirs.find(name);
        if (!value.isData() || !otherValue || !otherValue->isData() || !(value == *otherValue)) {
            return kExtendedAttributesDiffer;
        }
    }
    return kSame;
}

}  // namespace qvl
