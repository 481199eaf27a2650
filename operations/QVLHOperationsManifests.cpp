// The operations of QVLHOperations that read the signed manifest: loading it,
// writing the device manifest, and restoring recorded attributes onto staged
// content.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "base/QVLLog.h"
#include "metadata/QVLManifest.h"
#include "operations/QVLHOperations.h"
#include "platform/fs/FileSystem.h"
#include "platform/fs/PropertyListFile.h"
#include "platform/zrp/ZRP.h"

namespace qvl {
namespace {

constexpr const char* kSignedManifestPath = "/private/var/QVLWorkContainer/Manifest.plist.signed";
constexpr const char* kDeviceManifestPath = "/private/var/QVLWorkContainer/DeviceManifest.plist";
constexpr const char* kBackupWalkRoot = "/private/var";
constexpr const char* kBackupKeysRelativeTo = "/private";
// App containers are restored by their own commands, never from a backup.
const std::vector<std::string> kBackupSkippedFolders = {
    "/private/var/mobile/Containers",
    "/private/var/containers",
    "/private/var/mobile/Applications",
    "/private/var/mobile/DravoBuiltProducts",
};
// The daemon, as "mobile", reads the device manifest; nobody else writes it.
constexpr uint32_t kDeviceManifestMode = 0644;

constexpr const char* kCreateDeviceManifestName = "-[QVLHOperations createDeviceManifest:forBackup:range:]";
constexpr const char* kRestoreBackupName = "-[QVLHOperations restoreBackupAttributesUnder:range:]";
constexpr const char* kRestoreUnderName = "-[QVLHOperations restoreAttributesUnder:fromManifest:]";

// The root with the key appended, runs of "/" made one and a trailing one
// dropped: root "/s" and key "/var/x" give "/s/var/x", key "/" gives "/s".
std::string targetPath(const std::string& root, const std::string& key) {
    std::string joined;
    joined.reserve(root.size() + key.size() + 1);
    for (char c : root + "/" + key) {
        if (c == '/' && !joined.empty() && joined.back() == '/') continue;
        joined.push_back(c);
    }
    if (joined.size() > 1 && joined.back() == '/') joined.pop_back();
    return joined;
}

std::vector<std::string> sortedKeys(const QVLManifest& manifest) {
    const QVLManifest::PathSet keys = manifest.pathSet();
    std::vector<std::string> sorted(keys.begin(), keys.end());
    std::sort(sorted.begin(), sorted.end());
    return sorted;
}

}  // namespace

void QVLHOperations::loadManifest() {
    QVLLog("Loading signed manifest.");
    platform::ItemStat st;
    if (files_.statItem(kSignedManifestPath, &st) != 0) {
        if (errno != ENOENT) QVLLog("Cannot open manifest file.");
        return;
    }
    QVLSignedManifest::Services services =
        manifestServices_ ? *manifestServices_ : QVLSignedManifest::defaultServices();
    if (!services.files) services.files = &files_;
    // The work container is writable by "mobile": the load neither follows a
    // link planted at the name nor waits on a fifo there.
    signedManifest_ = QVLSignedManifest::loadFromFile(kSignedManifestPath, std::move(services));
}

// Every attempt made without a manifest holds the helper busy for good, as
// the daemon's work from then on depends on what was loaded.
bool QVLHOperations::ensureManifestLoaded() {
    if (signedManifest_) return true;
    if (openTransaction_) {
        openTransaction_();
    } else {
        zrp::openTransaction();
    }
    loadManifest();
    if (signedManifest_) return true;
    QVLLog("Cannot load manifest.");
    return false;
}

// The file manifest that a backup range selects: from version 5 the merge of
// the backups in the range, which must lie within the installation order
// (nullopt, logged, otherwise); below version 5 the whole backup section,
// whatever the range. A null selection holds no records at all.
std::optional<std::shared_ptr<const plist::Dictionary>> QVLHOperations::selectBackups(const char* operation,
                                                                                      ItemRange range) {
    const bool rangeMatters = signedManifest_->getVersion() >= 5;
    if (rangeMatters && (range.location < 0 || range.length < 0)) {
        QVLLog("%s: range [%d..%lld) lies outside the installation order.", operation, range.location,
               static_cast<long long>(range.location) + range.length);
        return std::nullopt;
    }
    auto selection = signedManifest_->mergedBackupManifest(
        {static_cast<uint32_t>(range.location), static_cast<uint32_t>(range.length)});
    if (!selection && rangeMatters) return std::nullopt;
    return selection;
}

bool QVLHOperations::createDeviceManifest(const std::string& path, bool forBackup, ItemRange range) {
    if (!ensureManifestLoaded()) return false;
    QVLLog("Will create device manifest from root %@, backup? %d, range [%d..%lld)", path, forBackup ? 1 : 0,
           range.location, static_cast<long long>(range.location) + range.length);
    // The device manifest is readable by "mobile" and holds digests and
    // attributes: a folder is recorded only where a client may act, reached
    // without a link or ".." on the way.
    if (!forBackup && !pathIsConfined(path)) {
        QVLLog("%s: %@ is refused: it is not a folder below /private/var reached without a link.",
               kCreateDeviceManifestName, path);
        return false;
    }
    // Resolved before the file is opened: a refused range writes nothing.
    std::optional<std::shared_ptr<const plist::Dictionary>> selection;
    if (forBackup && !(selection = selectBackups(kCreateDeviceManifestName, range))) return false;
    // Without a selection nothing limits the walk's records, and the whole
    // of /private/var must never be recorded: keep none.
    QVLManifest::PathSet paths;
    if (selection && *selection) {
        paths.reserve((*selection)->size());
        for (const auto& entry : **selection) paths.insert(entry.first);
    }
    // Records go to the file as the walk makes them: the manifest of a large
    // tree is never held whole. The file is written whole or not at all, so
    // the daemon never reads an old or a partial file as the new one.
    QVLManifest manifest(files_, {.collectors = manifestCollectors_});
    std::string error;
    const platform::StreamedWrite written = platform::writeBinaryDictionaryFile(
        files_, kDeviceManifestPath,
        [&](plist::BinaryDictionaryWriter& out) {
            return forBackup ? manifest.addRecordsTo(out, kBackupWalkRoot, kBackupKeysRelativeTo,
                                                     &kBackupSkippedFolders, &paths)
                             : manifest.addRecordsTo(out, path, path, nullptr, nullptr);
        },
        &error, kDeviceManifestMode);
    if (written == platform::StreamedWrite::kAbandoned) {
        QVLLog("Cannot create device manifest - 1");
        return false;
    }
    if (written == platform::StreamedWrite::kFailed) {
        QVLLog("%s: Cannot write the device manifest - %@", kCreateDeviceManifestName, error);
        return false;
    }
    QVLLog("Device manifest created (for %@)", path);
    return true;
}

bool QVLHOperations::restoreBackupAttributesUnder(const std::string& root, ItemRange range) {
    if (!ensureManifestLoaded()) return false;
    const auto selection = selectBackups(kRestoreBackupName, range);
    if (!selection) return false;
    const QVLManifest manifest(files_, selection->get());
    return restoreAttributesUnder(root, manifest);
}

bool QVLHOperations::restoreAppDataAttributesUnder(const std::string& root, const std::string& containerType,
                                                   const std::string& identifier) {
    if (!ensureManifestLoaded()) return false;
    std::shared_ptr<const plist::Dictionary> list;
    if (containerType == "AppData") {
        list = signedManifest_->getAppDataList();
    } else if (containerType == "GroupData") {
        list = signedManifest_->getGroupDataList();
    } else if (containerType == "ExtensionData") {
        list = signedManifest_->getPlugInDataList();
    }
    const plist::Value* entry = list ? list->find(identifier) : nullptr;
    if (!entry || !entry->isDictionary()) {
        QVLLog("Couldn't load manifest dict for %@/%@", containerType, identifier);
        return false;
    }
    // The entry's manifest by the loader's rule; none stands for an empty one.
    const QVLManifest manifest(files_, signedManifest_->fileManifestOf(*entry));
    return restoreAttributesUnder(root, manifest);
}

// The staging root is a client's path: confined like every other one, and
// the folder itself never a link.
UniqueFd QVLHOperations::openStagingRoot(const std::string& root) {
    Place place;
    const int err = confine(kRestoreUnderName, root, false, &place);
    if (err == kRefused) return UniqueFd();
    UniqueFd folder = err == 0 ? files_.openFolderAt(place.parent.get(), place.name, false, 0) : UniqueFd();
    if (!folder.valid()) {
        QVLLog("%s: Cannot open the staging folder %@ - %@", kRestoreUnderName, root,
               std::strerror(err != 0 ? err : errno));
    }
    return folder;
}

// Every target is reached below the root without following a link on the
// way, and a link that is itself a target is restored as the link: whatever
// a manifest's keys hold, nothing outside the root can be changed.
bool QVLHOperations::restoreAttributesUnder(const std::string& root, const QVLManifest& manifest) {
    if (!ensureManifestLoaded()) return false;
    UniqueFd rootFolder;
    for (const std::string& key : sortedKeys(manifest)) {
        if (key.find('\0') != std::string::npos) {
            QVLLog("Got non-string value from array.");
            return false;
        }
        const std::optional<QVLFileMetadata> record = manifest.metadataForFile(key);
        if (!record) return false;
        const std::string target = targetPath(root, key);
        if (!rootFolder.valid()) {
            rootFolder = openStagingRoot(root);
            if (!rootFolder.valid()) return false;
        }
        platform::ItemBeneath item;
        if (files_.openItemBeneath(rootFolder.get(), key, &item) != 0) {
            QVLLog("%s: Cannot reach %@ below %@ - %@", kRestoreUnderName, target, root,
                   std::strerror(errno));
            return false;
        }
        if (!record->restoreAttribuesToPath(item.path, files_, &target)) return false;
    }
    return true;
}

}  // namespace qvl
