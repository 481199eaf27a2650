#include "operations/QVLHOperations.h"

#include <cerrno>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "base/QVLLog.h"
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
constexpr uint32_t kModeOpenToAll = 0077;
// Folders made on the way get at most the usual default mode, so a helper
// started with an empty umask can't make them writable by everyone.
constexpr uint32_t kNewFolderMode = 0755;

constexpr const char* kPrepareDirectoryName = "-[QVLHOperations prepareDirectory:writableByMobile:]";
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

bool within(const std::string& inner, const std::string& outer) {
    return inner == outer || inner.starts_with(outer == "/" ? outer : outer + "/");
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
      nvram_(services.nvram ? *services.nvram : *ownNvram_),
      restart_(services.restart ? *services.restart : *ownRestart_) {}

QVLHOperations::~QVLHOperations() = default;

bool QVLHOperations::exists(const std::string& path) {
    ItemStat st;
    return files_.statItem(path, &st) == 0;
}

// Sets the permission bits of the item itself, never of a link's target (a
// link refuses, as links have no mode of their own).
bool QVLHOperations::openToAll(const std::string& path) {
    ItemStat st;
    if (files_.statItem(path, &st) != 0) {
        QVLLog("%s: Cannot get attribute from %@", kPrepareDirectoryName, path);
        return false;
    }
    if (files_.changeMode(path, st.permissions | kModeOpenToAll) != 0) {
        QVLLog("%s: Cannot set attribute for %@ - %@", kPrepareDirectoryName, path, describe(errno));
        return false;
    }
    return true;
}

// A staging folder that is the final place, lies inside it or holds it would
// be destroyed by clearing the final place before the move.
bool QVLHOperations::overlapsFinalPlace(const std::string& staging) {
    std::string stagingReal, finalParent;
    if (files_.resolvedPath(staging, &stagingReal) != 0 || files_.resolvedPath("/var", &finalParent) != 0)
        return true;
    const std::string finalReal = joinPath(finalParent, "backup");
    return within(stagingReal, finalReal) || within(finalReal, stagingReal);
}

bool QVLHOperations::migratePreferencesFile() {
    const std::string source = joinPath(kPreferencesSourceFolder, kPreferencesFileName);
    const std::string destination = joinPath(kPreferencesDestinationFolder, kPreferencesFileName);
    if (!exists(source) || exists(destination)) return false;
    // The move keeps the source when something appeared at the destination
    // since it was checked.
    if (files_.moveItemWithoutReplacing(source, destination) != 0) {
        QVLLog("Couldn't move %@ to %@", source, destination);
        return false;
    }
    // Handed over without following a link at its place: a link planted there
    // would otherwise give away whatever it points to.
    const std::optional<Account> mobile = lookUpAccount(files_, kMobileAccountName);
    if (!mobile || files_.changeOwner(destination, mobile->uid, mobile->gid) != 0) {
        QVLLog("Couldn't change ownership for %@", destination);
        return false;
    }
    return true;
}

bool QVLHOperations::prepareDirectory(const std::string& path, bool writableByMobile) {
    if (!exists(path) && files_.createFolders(path, kNewFolderMode) != 0) return false;
    if (writableByMobile && !openToAll(path)) return false;
    const std::string staging = joinPath(path, kStagingFolderName);
    if (exists(staging)) {
        if (files_.removeTree(staging) != 0) {
            const int err = errno;
            QVLLog("%s: Could not remove the path %@ with error - %@(0x%x)", kPrepareDirectoryName, staging,
                   describe(err), err);
            return false;
        }
    }
    return true;
}

bool QVLHOperations::prepareLogContainer(const std::string& path) {
    if (!prepareDirectory(path, true)) return false;
    const UniqueFd folder = files_.openFolder(path);
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

bool QVLHOperations::removeDirectory(const std::string& path) {
    if (!exists(path)) return true;
    return files_.removeTree(path) == 0;
}

bool QVLHOperations::createHardLinks(const std::string& path, const std::string& stagingPath) {
    if (files_.linkTree(path, stagingPath) != 0) {
        QVLLog("Could not link %@ to %@ with error -%@.", path, stagingPath, describe(errno));
        return false;
    }
    return true;
}

bool QVLHOperations::moveStagingToFinal(const std::string& path) {
    QVLLog("Move the whole thing together.");
    ItemStat st;
    if (files_.statItem(path, &st) != 0 || st.type != ItemType::kDirectory || overlapsFinalPlace(path)) {
        QVLLog("Staging path %@ looks wrong.", path);
        return false;
    }
    // A failure to clear the final place is left to the rename, which then
    // refuses to replace what remains and keeps the staging folder whole.
    if (exists(kFinalBackupPath)) files_.removeTree(kFinalBackupPath);
    if (files_.moveItem(path, kFinalBackupPath) != 0) {
        const int err = errno;
        QVLLog("Could not move %@ to %@ with error - %@", path, kFinalBackupPath, describe(err));
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
