// QVLAttributeDictionary: the platform attribute dictionary of an item on
// Linux, read and written back.
//
// Reading gives the keys "NSFileType", "NSFileSize" (unsigned 64-bit),
// "NSFilePosixPermissions", owner and group IDs and names, the modification
// date and, where the file system records one, the creation (birth) date, as
// dates of seconds since 2001 to the nanosecond; "NSFileProtectionKey" from
// the item's protection-class attribute ("NSFileProtectionNone" without one);
// "NSFileImmutable" from the immutable flag; "NSFileBusy" and
// "NSFileExtensionHidden" false and the HFS codes 0, which Linux does not
// have; and "NSFileReferenceCount", "NSFileSystemNumber" and
// "NSFileSystemFileNumber". Keys are in alphabetical order so that manifests
// diff cleanly. Owner and group names are looked up once per ID and cached.
//
// Writing applies the keys of an allowed set (see QVLFileMetadata) in one
// call, never following a final symbolic link.
//
// Every operation reaches the item through the FileSystem it is given.
//
// Thread-safety: all operations may be called from any thread; the name
// caches are guarded.
#pragma once

#include <optional>
#include <string>

#include "plist/PlistValue.h"

namespace qvl {

namespace platform {
class FileSystem;
struct ItemStat;
}

class QVLAttributeDictionary {
  public:
    // The attributes of the item at `path`; nullopt with `error` set to the
    // reason when they cannot be read.
    static std::optional<plist::Dictionary> attributesOfItem(const std::string& path, std::string* error,
                                                             platform::FileSystem& files);

    // The same from a stat already made and the item's protection class.
    static plist::Dictionary attributesOfStat(const platform::ItemStat& st, std::string protectionClass,
                                              platform::FileSystem& files);
    // The class recorded for an item's protection-class attribute value
    // (nullopt when it has none).
    static std::string protectionClassFrom(std::optional<std::string> value);

    // Applies owner and group (by ID, or by name when no ID is given), the
    // permission bits, the modification date and the immutable flag from
    // `attributes`. The creation date, the busy and extension-hidden flags and
    // the HFS codes are accepted without effect; other keys are ignored. Every
    // value is checked before anything is changed; false with `error` set when
    // a value is unusable or a call fails (changes made before it stay).
    static bool setAttributes(const plist::Dictionary& attributes, const std::string& path,
                              std::string* error, platform::FileSystem& files);

    // Writes the protection class of `attributes` ("NSFileProtectionKey"),
    // if it has one and the item does not already carry it.
    static bool setProtectionClass(const plist::Dictionary& attributes, const std::string& path,
                                   std::string* error, platform::FileSystem& files);

    // The text of an errno value for log lines.
    static std::string errorText(int error);
};

}  // namespace qvl
