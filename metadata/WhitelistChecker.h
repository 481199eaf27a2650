// WhitelistChecker: decides whether the files of a backup may be restored
// where they would land. A path passes when it lies in one of a few
// always-allowed places, when its record carries the restore annotation, or
// when the allow list of one of the domains of the domain table covers it.
// The first domain that allows a path decides; a hit in that domain's deny
// list is reported in the log but does not refuse the path. Places match on a
// "/" boundary. A folder on the way to an allowed place ("/", "/var") passes
// only as a directory that gives no write to group or others and carries no
// set-id bit. Paths must be absolute, without empty, "." or ".." parts. The
// checker also looks at the top folder of each system container of the
// backup: one that the device already has and excludes from backup must not
// be overwritten.
//
// Thread-safety: the checks read the domains and may be called from several
// threads at once; loading or setting the domains needs external
// synchronisation against them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "plist/PlistValue.h"

namespace qvl {

namespace platform {
class ContainerLookup;
class FileSystem;
}  // namespace platform

class WhitelistChecker {
  public:
    // `containers` answers shouldRestore; `files` reads domain and manifest files.
    WhitelistChecker(platform::ContainerLookup& containers, platform::FileSystem& files);

    // Loads the domains from the table compiled into the program.
    bool loadFromData();
    // Loads the domains from the "SystemDomains" entry of a property-list file.
    bool load(const std::string& path);

    // True when every path of `manifest` (path -> record) passes checkFile;
    // every failing path is logged, not only the first.
    bool checkManifest(const plist::Dictionary& manifest);
    // checkManifest of the "Backup" entry of a property-list file.
    bool checkManifestFile(const std::string& path);
    bool checkFile(const std::string& path, const plist::Value& metaData);
    // Whether the record carries the restore annotation "NotRestored" or "NotBackedUp".
    static bool annotated(const plist::Value& metaData);

    // Absolute paths of `entries` under `rootPath`, comments and empty entries
    // dropped. An allow list without a usable entry is the root alone.
    static std::vector<std::string> createFullPathList(const plist::Array& entries, std::string_view rootPath,
                                                       bool isAllowList);
    // The path is an entry or lies below one.
    static bool fileWhitelisted(std::string_view path, const std::vector<std::string>& list);
    // The path is a folder on the way to an entry (a strict parent of one).
    static bool fileLeadsToWhitelisted(std::string_view path, const std::vector<std::string>& list);
    // The path is an entry or lies below one.
    static bool fileBlacklisted(std::string_view path, const std::vector<std::string>& list);

    // Whether the system container `identifier` may be restored: false only
    // when the device already had it and it is excluded from backup.
    bool shouldRestore(const std::string& identifier, bool shared);
    // Whether a backup file that lies in a system container is acceptable.
    bool handleSystemContainerFiles(const std::string& path, const plist::Value& metaData);

    // Whether `path` lies at or below `place` on a "/" boundary ("/var/mobile/MediaEvil" is
    // not below "/var/mobile/Media"); a trailing "/" of the place is ignored.
    static bool pathAtOrBelow(std::string_view path, std::string_view place);
    // "/", or "/" followed by names that are neither empty, "." nor "..".
    static bool isCanonicalAbsolutePath(std::string_view path);
    // Logged, with the path, for a path that is not canonical and absolute.
    static constexpr const char* kNotCanonicalPathMessage =
        "%@ is not an absolute path without empty, \".\" or \"..\" parts.";

    const plist::Dictionary& domains() const { return domains_; }
    void setDomains(plist::Dictionary domains);

    static constexpr std::string_view kDataContainerPrefix =
        "/var/mobile/Library/Backup/SystemContainers/Data/";
    static constexpr std::string_view kGroupContainerPrefix =
        "/var/mobile/Library/Backup/SystemContainers/Shared/";

  private:
    // A domain with its lists made absolute once, when the domains are set;
    // the lists are what every file is tested against.
    struct Domain {
        std::string name;
        bool hasRootPath = false;
        std::vector<std::string> allow;
        std::vector<std::string> deny;
    };
    static Domain compile(const std::string& name, const plist::Value& value);

    platform::ContainerLookup& containers_;
    platform::FileSystem& files_;
    plist::Dictionary domains_;
    std::vector<Domain> compiled_;
};

}  // namespace qvl
