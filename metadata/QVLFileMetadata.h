// QVLFileMetadata: the per-file metadata record, the unit of every manifest.
//
// A record is a property-list dictionary with up to four keys, inserted in
// this order: the item's attribute dictionary, its extended attributes (name
// to raw bytes), the SHA-1 digest of its content and the text of a symbolic
// link. A record that could only partly be collected stops at the first value
// that could not be produced, so it may hold only the first key, or the first
// three. The object is made either by collecting the metadata of a path, or
// around a dictionary read from a manifest (taken unchecked: the typed
// getters, which answer null for a missing value or one of another kind, are
// the only guard).
//
// Besides the record, the class carries the operations that write a record's
// metadata back onto a path and compare two records.
//
// Thread-safety: a QVLFileMetadata is immutable after construction and may be
// read from any number of threads. The class operations touch only the file
// system (through the FileSystem they are given) and the log.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/UniqueFd.h"
#include "plist/PlistValue.h"

namespace qvl {

namespace platform {
class FileSystem;
enum class ItemType : uint8_t;
}  // namespace platform

// Keys of a record, in record order.
inline constexpr std::string_view kQVLManifestFileAttributes = "QVLManifestFileAttributes";
inline constexpr std::string_view kQVLManifestFileExtendedAttributes = "QVLManifestFileExtendedAttributes";
inline constexpr std::string_view kQVLManifestFileHash = "QVLManifestFileHash";
inline constexpr std::string_view kQVLManifestSymbolicLinkTargetFile = "QVLManifestSymbolicLinkTargetFile";

// Attribute keys this system reads or writes back.
inline constexpr std::string_view kNSFileType = "NSFileType";
inline constexpr std::string_view kNSFileSize = "NSFileSize";
inline constexpr std::string_view kNSFilePosixPermissions = "NSFilePosixPermissions";
inline constexpr std::string_view kNSFileOwnerAccountID = "NSFileOwnerAccountID";
inline constexpr std::string_view kNSFileGroupOwnerAccountID = "NSFileGroupOwnerAccountID";
inline constexpr std::string_view kNSFileOwnerAccountName = "NSFileOwnerAccountName";
inline constexpr std::string_view kNSFileGroupOwnerAccountName = "NSFileGroupOwnerAccountName";
inline constexpr std::string_view kNSFileCreationDate = "NSFileCreationDate";
inline constexpr std::string_view kNSFileModificationDate = "NSFileModificationDate";
inline constexpr std::string_view kNSFileProtectionKey = "NSFileProtectionKey";
inline constexpr std::string_view kNSFileImmutable = "NSFileImmutable";
inline constexpr std::string_view kNSFileExtensionHidden = "NSFileExtensionHidden";
inline constexpr std::string_view kNSFileBusy = "NSFileBusy";
inline constexpr std::string_view kNSFileHFSCreatorCode = "NSFileHFSCreatorCode";
inline constexpr std::string_view kNSFileHFSTypeCode = "NSFileHFSTypeCode";
inline constexpr std::string_view kNSFileReferenceCount = "NSFileReferenceCount";
inline constexpr std::string_view kNSFileSystemNumber = "NSFileSystemNumber";
inline constexpr std::string_view kNSFileSystemFileNumber = "NSFileSystemFileNumber";

// Values of "NSFileType".
inline constexpr std::string_view kNSFileTypeRegular = "NSFileTypeRegular";
inline constexpr std::string_view kNSFileTypeDirectory = "NSFileTypeDirectory";
inline constexpr std::string_view kNSFileTypeSymbolicLink = "NSFileTypeSymbolicLink";
inline constexpr std::string_view kNSFileTypeSocket = "NSFileTypeSocket";
inline constexpr std::string_view kNSFileTypeCharacterSpecial = "NSFileTypeCharacterSpecial";
inline constexpr std::string_view kNSFileTypeBlockSpecial = "NSFileTypeBlockSpecial";
inline constexpr std::string_view kNSFileTypeUnknown = "NSFileTypeUnknown";

// The protection class of an item that carries none.
inline constexpr std::string_view kNSFileProtectionNone = "NSFileProtectionNone";

// The extended attribute that comparison ignores.
inline constexpr std::string_view kDbRebuildUuidAttribute = "com.ostrel.lumerad.dbRebuildUuid";

class QVLFileMetadata {
  public:
    // Results of compareWith: the first difference found decides.
    enum CompareResult : int {
        kOtherIsNull = 0,
        kTypeDiffers = 1,
        kDigestDiffers = 2,
        kLinkTargetDiffers = 3,
        kOwnershipOrModeDiffers = 4,
        kExtendedAttributesDiffer = 5,
        kSame = 6,
    };

    // Wraps a record read from a manifest.
    explicit QVLFileMetadata(plist::Dictionary dict) : dict_(std::move(dict)) {}

    // Collects the record of the item at `path` (a symbolic link is not
    // followed); nullopt, with the cause logged, when it cannot be collected.
    static std::optional<QVLFileMetadata> fileMetadatatWithPath(const std::string& path,
                                                                platform::FileSystem& files);
    // The same for the entry `name`, of type `type`, of the open folder
    // `folderFd`, whose path is `path`: a regular file or folder is opened
    // once, and its attributes, extended attributes and content are all read
    // through that descriptor. Other items, and a folder descriptor below 0,
    // go by the path. `opened`, when valid, is the regular file `name`
    // already open (as FileSystem::openItemAt opens it). `fromDisk`, when
    // given, is set when the content had to be waited for.
    static std::optional<QVLFileMetadata> fileMetadataInFolder(
        int folderFd, const std::string& name, platform::ItemType type, const std::string& path,
        platform::FileSystem& files, UniqueFd opened = UniqueFd(), bool* fromDisk = nullptr);
    static QVLFileMetadata fileMetaDataWithMetadataDictionary(plist::Dictionary dict) {
        return QVLFileMetadata(std::move(dict));
    }

    // Typed views of the record; null when missing or of another kind.
    const plist::Data* getHash() const;
    const plist::Dictionary* getFileAttributes() const;
    const plist::Dictionary* getExtendedAttributes() const;
    const std::string* getFileType() const;
    const std::string* getTargetFile() const;
    // The recorded size of a regular file; 0 for any other item.
    int64_t getFileSize() const;
    const plist::Dictionary& dict() const { return dict_; }
    // Moves the record out of an object that is no longer needed.
    plist::Dictionary releaseDict() && { return std::move(dict_); }

    // Collecting operations.
    // The attribute dictionary of the item itself, or nullopt.
    static std::optional<plist::Dictionary> fileAttributesWithPath(const std::string& path,
                                                                   platform::FileSystem& files);
    // Extended-attribute names (empty when there are none), or nullopt.
    static std::optional<std::vector<std::string>> extendedAttributeKeysWithPath(const std::string& path,
                                                                                 platform::FileSystem& files);
    // The bytes of one extended attribute; degrades to zero-length or
    // zero-filled data instead of failing.
    static plist::Data valueForExtendedAttributesKey(const std::string& key, const std::string& path,
                                                     platform::FileSystem& files);
    // Name-to-value dictionary, or nullopt when the names cannot be listed.
    static std::optional<plist::Dictionary> extendedAttributesWithPath(const std::string& path,
                                                                       platform::FileSystem& files);
    // The same through a descriptor open on the item.
    static std::optional<plist::Dictionary> extendedAttributesOfOpenItem(int fd, const std::string& path,
                                                                         platform::FileSystem& files);
    // The unresolved text of a symbolic link, or nullopt.
    static std::optional<std::string> targetFileWithPath(const std::string& path,
                                                         platform::FileSystem& files);
    // The content digest: 20 bytes for a readable file, zero-length data for
    // a directory or an unreadable file, nullopt when nothing exists there.
    static std::optional<plist::Data> fileHashWithPath(const std::string& path, platform::FileSystem& files);

    // Writes this record's ownership, mode, dates, flags, protection class and
    // extended attributes onto the item at `path`. Attributes the item carries
    // and the record does not name are kept. Log lines name `shownPath` when
    // given (the place a client knows, where `path` is how the item is reached).
    bool restoreAttribuesToPath(const std::string& path, platform::FileSystem& files,
                                const std::string* shownPath = nullptr) const;
    // The entries of `attributes` that the restore may write.
    static plist::Dictionary fileAttributesAllowSet(const plist::Dictionary& attributes);
    // Compares this record with `other` (null allowed); see CompareResult.
    int compareWith(const QVLFileMetadata* other) const;

  private:
    static QVLFileMetadata record(plist::Dictionary attributes,
                                  std::optional<plist::Dictionary> extendedAttributes, plist::Data hash,
                                  std::optional<std::string> target);
    bool restoreExtendedAttributes(const std::string& path, platform::FileSystem& files,
                                   const std::string& shownPath) const;
    // The values, read through `fd`, of the NUL-separated names of `list`.
    static plist::Dictionary extendedAttributesNamedIn(std::string_view list, int fd, const std::string& path,
                                                       platform::FileSystem& files);
    // Logs why an item has no extended attributes in its record.
    static std::optional<plist::Dictionary> unlistedAttributes(const std::string& path);

    plist::Dictionary dict_;
};

}  // namespace qvl
