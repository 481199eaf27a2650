#include "operations/QVLHOperations.h"

#include <cerrno>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "base/QVLLog.h"
#include "metadata/QVLManifest.h"
#include "operations/QVLHClientPath.h"
#include "platform/fs/LinuxFileSystem.h"
#include "platform/nvram/NvramStore.h"
#include "platform/reboot/ProcessExit.h"
#include "platform/reboot/SystemRestart.h"

// Errors from the system are reported the way the platform's file manager
// reports its own: the "description" in a log line is strerror()'s text and
// the "numeric code" is the errno value.

namespace qvl {
namespace {

using platform::ItemStat;
using platform::ItemType;

constexpr const char* kPreferencesFileName = "com.ostrel.Quorvale.plist";
constexpr const char* kPreferencesSourceFolder = "/var/root/Library/Preferences/";
constexpr const char* kPreferencesDestinationFolder = "/var/mobile/Library/Preferences/";
constexpr const char* kMobileAccountName = "mobile";
constexpr const char* kStagingFolderName = "QVL_staging";
constexpr std::string_view kLogFilePrefix = "qvald-";
constexpr const char* kFinalBackupPath = "/var/backup";
constexpr const char* kFinalBackupName = "backup";  // in the trusted folder
constexpr uint32_t kModeOpenToAll = 0077;
// Folders made on the way get at most the usual default mode, so a helper
// started with an empty umask can't make them writable by everyone.
constexpr uint32_t kNewFolderMode = 0755;

constexpr const char* kPrepareDirectoryName = "-[QVLHOperations prepareDirectory:writableByMobile:]";
constexpr const char* kRemoveDirectoryName = "-[QVLHOperations removeDirectory:]";
constexpr const char* kCreateHardLinksName = "-[QVLHOperations createHardLinks:stagingPath:]";
constexpr const char* kMoveStagingToFinalName = "-[QVLHOperations moveStagingToFinal:]";
constexpr const char* kMigrateName = "-[QVLHOperations migratePreferencesFile]";
constexpr const char* kWriteNVRamName = "-[QVLHOperations writeNVRam:withValue:]";

std::string describe(int err) {
    return std::strerror(err);
}

std::string joinPath(const std::string& folder, std::string_view name) {
    if (!folder.empty() && folder.back() == '/') return folder + std::string(name);
    return folder + "/" + std::string(name);
}

struct Account {
    uint32_t uid;
    uint32_t gid;
};

// Looked up at every call so that the running system's user database decides.
std::optional<Account> lookUpAccount(platform::FileSystem& files, const char* name) {
    const std::optional<uint32_t> uid = files.userID(name);
    const std::optional<uint32_t> gid = uid ? files.groupID(name) : std::nullopt;
    if (!gid) return std::nullopt;
    return Account{*uid, *gid};
}

std::span<const uint8_t> bytesOf(std::string_view text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

}  // namespace

QVLHOperations& QVLHOperations::sharedInstance() {
    static QVLHOperations instance{Services{}};
    return instance;
}

QVLHOperations::QVLHOperations(Services services)
    : ownNvram_(services.nvram ? nullptr : std::make_unique<platform::FileNvramStore>()),
      ownRestart_(services.restart ? nullptr : std::make_unique<platform::LinuxSystemRestart>()),
      files_(services.files ? *services.files : platform::LinuxFileSystem::sharedInstance()),
      manifestCollectors_(services.files ? 0 : QVLManifest::WalkOptions::machineCollectors()),
      nvram_(services.nvram ? *services.nvram : *ownNvram_),
      restart_(services.restart ? *services.restart : *ownRestart_),
      manifestServices_(std::move(services.manifests)),
      openTransaction_(std::move(services.openTransaction)) {}

QVLHOperations::~QVLHOperations() = default;

int QVLHOperations::confine(const char* operation, const std::string& path, bool create, Place* out) {
    std::string why;
    std::optional<QVLHClientPath> confined = QVLHClientPath::parse(path, &why);
    if (!confined) {
        QVLLog("%s: %@ is refused: %@.", operation, path, why);
        return kRefused;
    }
    UniqueFd parent = confined->openParent(files_, create);
    if (!parent.valid()) {
        const int err = errno;
        if (err != ELOOP) return err;
        QVLLog("%s: %@ is refused: a symbolic link is on its way.", operation, path);
        return kRefused;
    }
    *out = Place{std::move(parent), confined->name(), std::move(*confined)};
    return 0;
}

bool QVLHOperations::pathIsConfined(const std::string& path) {
    std::string why;
    const std::optional<QVLHClientPath> confined = QVLHClientPath::parse(path, &why);
    if (!confined) return false;
    // What does not exist yet can hold no link: only the part that exists is looked at.
    const UniqueFd parent = confined->openParent(files_, false);
    if (!parent.valid()) return errno != ELOOP;
    ItemStat st;
    return files_.statItemAt(parent.get(), confined->name(), &st) != 0 || st.type != ItemType::kSymbolicLink;
}

// Creates the folder where nothing is, opens it to all when asked, and
// removes its staging folder. Answers the prepared folder, or no descriptor
// when the item is a file (which has no staging folder); `ok` says whether
// all of it worked.
UniqueFd QVLHOperations::prepareFolder(const std::string& path, bool writableByMobile, bool* ok) {
    *ok = false;
    Place place;
    if (confine(kPrepareDirectoryName, path, true, &place) != 0) return UniqueFd();
    ItemStat st;
    if (files_.statItemAt(place.parent.get(), place.name, &st) != 0) {
        if (errno != ENOENT || !files_.openFolderAt(place.parent.get(), place.name, true, kNewFolderMode).valid())
            return UniqueFd();
        if (files_.statItemAt(place.parent.get(), place.name, &st) != 0) st.type = ItemType::kUnknown;
    }
    if (st.type == ItemType::kSymbolicLink) {
        QVLLog("%s: %@ is refused: a symbolic link is on its way.", kPrepareDirectoryName, path);
        return UniqueFd();
    }
    if (writableByMobile && !openToAll(place, path)) return UniqueFd();
    UniqueFd folder;
    if (st.type == ItemType::kDirectory) {
        folder = files_.openFolderAt(place.parent.get(), place.name, false, 0);
        if (!folder.valid()) return UniqueFd();
        if (files_.statItemAt(folder.get(), kStagingFolderName, &st) == 0 &&
            files_.removeTreeAt(folder.get(), kStagingFolderName) != 0) {
            const int err = errno;
            QVLLog("%s: Could not remove the path %@ with error - %@(0x%x)", kPrepareDirectoryName,
                   joinPath(path, kStagingFolderName), describe(err), err);
            return UniqueFd();
        }
    }
    *ok = true;
    return folder;
}

// Sets the permission bits of the item itself, never of a link's target (a
// link refuses, as links have no mode of their own).
bool QVLHOperations::openToAll(const Place& place, const std::string& path) {
    ItemStat st;
    if (files_.statItemAt(place.parent.get(), place.name, &st) != 0) {
        QVLLog("%s: Cannot get attribute from %@", kPrepareDirectoryName, path);
        return false;
    }
    if (files_.changeModeAt(place.parent.get(), place.name, st.permissions | kModeOpenToAll) != 0) {
        QVLLog("%s: Cannot set attribute for %@ - %@", kPrepareDirectoryName, path, describe(errno));
        return false;
    }
    return true;
}

bool QVLHOperations::migratePreferencesFile() {
    const std::string source = joinPath(kPreferencesSourceFolder, kPreferencesFileName);
    const std::string destination = joinPath(kPreferencesDestinationFolder, kPreferencesFileName);
    // Both folders are opened without following a link below /private/var:
    // the destination is "mobile"'s own, who could otherwise lead the file
    // (and the hand-over after it) anywhere.
    Place from, to;
    ItemStat st;
    if (confine(kMigrateName, source, false, &from) != 0 ||
        files_.statItemAt(from.parent.get(), from.name, &st) != 0)
        return false;
    const int err = confine(kMigrateName, destination, false, &to);
    if (err == kRefused || (err == 0 && files_.statItemAt(to.parent.get(), to.name, &st) == 0)) return false;
    // The move keeps the source when something appeared at the destination
    // since it was checked.
    if (err != 0 || files_.moveItemAt(from.parent.get(), from.name, to.parent.get(), to.name, false) != 0) {
        QVLLog("Couldn't move %@ to %@", source, destination);
        return false;
    }
    // Handed over without following a link at its place: a link planted there
    // would otherwise give away whatever it points to.
    const std::optional<Account> mobile = lookUpAccount(files_, kMobileAccountName);
    if (!mobile || files_.changeOwnerAt(to.parent.get(), to.name, mobile->uid, mobile->gid) != 0) {
        QVLLog("Couldn't change ownership for %@", destination);
        return false;
    }
    return true;
}

bool QVLHOperations::prepareDirectory(const std::string& path, bool writableByMobile) {
    bool ok = false;
    prepareFolder(path, writableByMobile, &ok);
    return ok;
}

bool QVLHOperations::prepareLogContainer(const std::string& path) {
    bool ok = false;
    const UniqueFd folder = prepareFolder(path, true, &ok);
    if (!ok) return false;
    std::vector<platform::DirectoryEntry> entries;
    if (!folder.valid() || files_.listFolder(folder.get(), &entries) != 0) return true;
    // Handing over the log files is best effort: a file that can't be handed
    // over leaves the folder usable, so failures are not reported. A link is
    // handed over itself, never its target.
    if (const std::optional<Account> mobile = lookUpAccount(files_, kMobileAccountName)) {
        for (const platform::DirectoryEntry& entry : entries) {
            if (entry.name.starts_with(kLogFilePrefix))
                files_.changeOwnerAt(folder.get(), entry.name, mobile->uid, mobile->gid);
        }
    }
    return true;
}

// A link at the path itself is removed as the link; one on the way is refused.
bool QVLHOperations::removeDirectory(const std::string& path) {
    Place place;
    const int err = confine(kRemoveDirectoryName, path, false, &place);
    if (err == ENOENT || err == ENOTDIR) return true;  // nothing is there
    if (err != 0) return false;
    ItemStat st;
    if (files_.statItemAt(place.parent.get(), place.name, &st) != 0) return true;
    return files_.removeTreeAt(place.parent.get(), place.name) == 0;
}

bool QVLHOperations::createHardLinks(const std::string& path, const std::string& stagingPath) {
    Place from, to;
    int err = confine(kCreateHardLinksName, path, false, &from);
    if (err == 0) err = confine(kCreateHardLinksName, stagingPath, false, &to);
    if (err == kRefused) return false;
    if (err == 0 && files_.linkTreeAt(from.parent.get(), from.name, to.parent.get(), to.name) != 0) err = errno;
    if (err != 0) {
        QVLLog("Could not link %@ to %@ with error -%@.", path, stagingPath, describe(err));
        return false;
    }
    return true;
}

bool QVLHOperations::moveStagingToFinal(const std::string& path) {
    QVLLog("Move the whole thing together.");
    Place staging;
    const int err = confine(kMoveStagingToFinalName, path, false, &staging);
    if (err == kRefused) return false;
    // With no link on the way, the text tells whether the staging folder is
    // the final place or lies inside it, which clearing the final place would
    // destroy; one that holds the final place is not below /private/var.
    ItemStat st;
    if (err != 0 || files_.statItemAt(staging.parent.get(), staging.name, &st) != 0 ||
        st.type != ItemType::kDirectory || staging.path.within(kFinalBackupName)) {
        QVLLog("Staging path %@ looks wrong.", path);
        return false;
    }
    const UniqueFd trusted = files_.openFolderBeneath(QVLHClientPath::kTrustedFolder, "", false, 0);
    // A failure to clear the final place is left to the rename, which then
    // refuses to replace what remains and keeps the staging folder whole.
    if (trusted.valid() && files_.statItemAt(trusted.get(), kFinalBackupName, &st) == 0)
        files_.removeTreeAt(trusted.get(), kFinalBackupName);
    if (!trusted.valid() ||
        files_.moveItemAt(staging.parent.get(), staging.name, trusted.get(), kFinalBackupName, true) != 0) {
        const int moveError = errno;
        QVLLog("Could not move %@ to %@ with error - %@", path, kFinalBackupPath, describe(moveError));
        return false;
    }
    return true;
}

bool QVLHOperations::nvramReachable() {
    if (!nvram_.masterPortAvailable()) {
        QVLLog("Couldn't locate bootstrap_port mach port");
        return false;
    }
    if (!nvram_.registryEntryExists(platform::kNvramOptionsNodePath)) {
        QVLLog("Couldn't locate options node in VXDeviceTree");
        return false;
    }
    return true;
}

bool QVLHOperations::deleteNvram(const std::string& name) {
    if (!nvramReachable()) return false;
    // Deleting a variable that does not exist answers what the store answers.
    if (nvram_.setOptionsProperty(platform::kNvramDeleteProperty, bytesOf(name)) != 0) {
        QVLLog("Couldn't force sync new nvram to device");
        return false;
    }
    return true;
}

bool QVLHOperations::writeNVRam(const std::string& name, const plist::Value& value) {
    const std::string* text = value.asString();
    if (!text) {
        QVLLog("%s: the value for %@ is not a string: %@", kWriteNVRamName, name, value);
        return false;
    }
    if (!nvramReachable()) return false;
    // The value is stored as its UTF-8 bytes, without a terminating zero.
    if (nvram_.setOptionsProperty(name, bytesOf(*text)) != 0) {
        QVLLog("Couldn't write nvram");
        return false;
    }
    if (nvram_.setOptionsProperty(platform::kNvramSyncNowProperty, bytesOf(name)) != 0) {
        QVLLog("Couldn't force sync new nvram to device");
        return false;
    }
    return true;
}

bool QVLHOperations::reboot() {
    restart_.restart();
    return false;
}

void QVLHOperations::quitHelper() {
    platform::exitProcess(0);
}

}  // namespace qvl
