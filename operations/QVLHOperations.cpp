#include "operations/QVLHOperations.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "base/QVLLog.h"
#include "base/UniqueFd.h"
#include "operations/FileTree.h"
#include "platform/nvram/NvramStore.h"
#include "platform/reboot/SystemRestart.h"

// Errors from the system are reported the way the platform's file manager
// reports its own: the "description" in a log line is strerror()'s text and
// the "numeric code" is the errno value.

namespace qvl {
namespace {

constexpr const char* kPreferencesFileName = "com.ostrel.Quorvale.plist";
constexpr const char* kPreferencesSourceFolder = "/var/root/Library/Preferences/";
constexpr const char* kPreferencesDestinationFolder = "/var/mobile/Library/Preferences/";
constexpr const char* kMobileAccountName = "mobile";
constexpr const char* kStagingFolderName = "QVL_staging";
constexpr std::string_view kLogFilePrefix = "qvald-";
constexpr const char* kFinalBackupPath = "/var/backup";
constexpr mode_t kModeOpenToAll = 0077;
// Folders made on the way get at most the usual default mode, so a helper
// started with an empty umask can't make them writable by everyone.
constexpr mode_t kNewFolderMode = 0755;

constexpr const char* kPrepareDirectoryName = "-[QVLHOperations prepareDirectory:writableByMobile:]";
constexpr const char* kWriteNVRamName = "-[QVLHOperations writeNVRam:withValue:]";

using Fd = UniqueFd;

struct DirCloser {
    void operator()(DIR* d) const { ::closedir(d); }
};
using DirStream = std::unique_ptr<DIR, DirCloser>;

// A listing of the folder on a copy of its descriptor, which stays usable
// for the *at() calls.
DirStream openStream(int dirFd) {
    const int copy = ::fcntl(dirFd, F_DUPFD_CLOEXEC, 0);
    if (copy < 0) return nullptr;
    DIR* d = ::fdopendir(copy);
    if (!d) ::close(copy);
    return DirStream(d);
}

std::string describe(int err) {
    return std::strerror(err);
}

bool exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

std::string joinPath(const std::string& folder, std::string_view name) {
    if (!folder.empty() && folder.back() == '/') return folder + std::string(name);
    return folder + "/" + std::string(name);
}

struct Account {
    uid_t uid;
    gid_t gid;
};

// Looked up at every call so that the running system's user database decides.
// The entry buffers grow on ERANGE up to a fixed bound.
std::optional<Account> lookUpAccount(const char* name) {
    constexpr size_t kMaxBuffer = 1 << 20;
    std::vector<char> buf(4096);
    Account account{};
    for (;;) {
        struct passwd pw;
        struct passwd* found = nullptr;
        const int rc = ::getpwnam_r(name, &pw, buf.data(), buf.size(), &found);
        if (rc == ERANGE && buf.size() < kMaxBuffer) {
            buf.resize(buf.size() * 2);
            continue;
        }
        if (rc != 0 || !found) return std::nullopt;
        account.uid = pw.pw_uid;
        break;
    }
    for (;;) {
        struct group gr;
        struct group* found = nullptr;
        const int rc = ::getgrnam_r(name, &gr, buf.data(), buf.size(), &found);
        if (rc == ERANGE && buf.size() < kMaxBuffer) {
            buf.resize(buf.size() * 2);
            continue;
        }
        if (rc != 0 || !found) return std::nullopt;
        account.gid = gr.gr_gid;
        return account;
    }
}

// Hands an item to an account without following a link at its place: a link
// planted there would otherwise give away whatever it points to.
bool handOver(int dirFd, const char* name, const Account& account) {
    return ::fchownat(dirFd, name, account.uid, account.gid, AT_SYMLINK_NOFOLLOW) == 0;
}

// The move keeps the source when something appeared at the destination
// since it was checked; file systems without the no-replace flag get a plain
// rename.
int moveItem(const std::string& from, const std::string& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL) return errno;
    return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

// Creates the folder and every missing folder above it.
bool makeFolders(const std::string& path) {
    if (path.empty()) return false;
    for (size_t pos = path.find('/', 1);; pos = path.find('/', pos + 1)) {
        const std::string prefix = path.substr(0, pos);
        if (::mkdir(prefix.c_str(), kNewFolderMode) != 0 && errno != EEXIST) return false;
        if (pos == std::string::npos) break;
    }
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Sets the permission bits of the item itself, never of a link's target
// (a link refuses with EOPNOTSUPP, as links have no mode of their own).
int setPermissions(int pathFd, const struct stat& st, mode_t mode) {
    if (S_ISLNK(st.st_mode)) return EOPNOTSUPP;
    const std::string viaProc = "/proc/self/fd/" + std::to_string(pathFd);
    return ::chmod(viaProc.c_str(), mode) == 0 ? 0 : errno;
}

bool openToAll(const std::string& path) {
    Fd item(::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat st;
    if (!item.valid() || ::fstat(item.get(), &st) != 0) {
        QVLLog("%s: Cannot get attribute from %@", kPrepareDirectoryName, path);
        return false;
    }
    const auto mode = static_cast<uint16_t>((st.st_mode & 07777) | kModeOpenToAll);
    if (const int err = setPermissions(item.get(), st, mode)) {
        QVLLog("%s: Cannot set attribute for %@ - %@", kPrepareDirectoryName, path, describe(err));
        return false;
    }
    return true;
}

std::string resolved(const char* path) {
    char buf[PATH_MAX];
    return ::realpath(path, buf) ? std::string(buf) : std::string();
}

bool within(const std::string& inner, const std::string& outer) {
    return inner == outer || inner.starts_with(outer == "/" ? outer : outer + "/");
}

// A staging folder that is the final place, lies inside it or holds it would
// be destroyed by clearing the final place before the move.
bool overlapsFinalPlace(const std::string& staging) {
    const std::string stagingReal = resolved(staging.c_str());
    const std::string finalParent = resolved("/var");
    if (stagingReal.empty() || finalParent.empty()) return true;
    const std::string finalReal = joinPath(finalParent, "backup");
    return within(stagingReal, finalReal) || within(finalReal, stagingReal);
}

std::span<const uint8_t> bytesOf(std::string_view text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

}  // namespace

QVLHOperations& QVLHOperations::sharedInstance() {
    static QVLHOperations instance;
    return instance;
}

QVLHOperations::QVLHOperations()
    : nvram_(std::make_shared<platform::FileNvramStore>()),
      restart_(std::make_shared<platform::LinuxSystemRestart>()) {}

QVLHOperations::~QVLHOperations() = default;

void QVLHOperations::setNvramStoreForTesting(std::shared_ptr<platform::NvramStore> store) {
    nvram_ = store ? std::move(store) : std::make_shared<platform::FileNvramStore>();
}

void QVLHOperations::setSystemRestartForTesting(std::shared_ptr<platform::SystemRestart> restart) {
    restart_ = restart ? std::move(restart) : std::make_shared<platform::LinuxSystemRestart>();
}

bool QVLHOperations::migratePreferencesFile() {
    const std::string source = joinPath(kPreferencesSourceFolder, kPreferencesFileName);
    const std::string destination = joinPath(kPreferencesDestinationFolder, kPreferencesFileName);
    if (!exists(source) || exists(destination)) return false;
    if (moveItem(source, destination) != 0) {
        QVLLog("Couldn't move %@ to %@", source, destination);
        return false;
    }
    const std::optional<Account> mobile = lookUpAccount(kMobileAccountName);
    if (!mobile || !handOver(AT_FDCWD, destination.c_str(), *mobile)) {
        QVLLog("Couldn't change ownership for %@", destination);
        return false;
    }
    return true;
}

bool QVLHOperations::prepareDirectory(const std::string& path, bool writableByMobile) {
    if (!exists(path) && !makeFolders(path)) return false;
    if (writableByMobile && !openToAll(path)) return false;
    const std::string staging = joinPath(path, kStagingFolderName);
    if (exists(staging)) {
        if (const int err = ops::removeTree(staging)) {
            QVLLog("%s: Could not remove the path %@ with error - %@(0x%x)", kPrepareDirectoryName, staging,
                   describe(err), err);
            return false;
        }
    }
    return true;
}

bool QVLHOperations::prepareLogContainer(const std::string& path) {
    if (!prepareDirectory(path, true)) return false;
    Fd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    DirStream stream = folder.valid() ? openStream(folder.get()) : nullptr;
    if (!stream) return true;
    // Handing over the log files is best effort: a file that can't be handed
    // over leaves the folder usable, so failures are not reported.
    if (const std::optional<Account> mobile = lookUpAccount(kMobileAccountName)) {
        while (const dirent* e = ::readdir(stream.get())) {
            if (std::string_view(e->d_name).starts_with(kLogFilePrefix))
                handOver(folder.get(), e->d_name, *mobile);
        }
    }
    return true;
}

bool QVLHOperations::removeDirectory(const std::string& path) {
    if (!exists(path)) return true;
    return ops::removeTree(path) == 0;
}

bool QVLHOperations::createHardLinks(const std::string& path, const std::string& stagingPath) {
    if (const int err = ops::linkTree(path, stagingPath)) {
        QVLLog("Could not link %@ to %@ with error -%@.", path, stagingPath, describe(err));
        return false;
    }
    return true;
}

bool QVLHOperations::moveStagingToFinal(const std::string& path) {
    QVLLog("Move the whole thing together.");
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || overlapsFinalPlace(path)) {
        QVLLog("Staging path %@ looks wrong.", path);
        return false;
    }
    // A failure to clear the final place is left to the rename, which then
    // refuses to replace what remains and keeps the staging folder whole.
    if (exists(kFinalBackupPath)) ops::removeTree(kFinalBackupPath);
    if (::rename(path.c_str(), kFinalBackupPath) != 0) {
        const int err = errno;
        QVLLog("Could not move %@ to %@ with error - %@", path, kFinalBackupPath, describe(err));
        return false;
    }
    return true;
}

bool QVLHOperations::deleteNvram(const std::string& name) {
    if (!nvram_->masterPortAvailable()) {
        QVLLog("Couldn't locate bootstrap_port mach port");
        return false;
    }
    if (!nvram_->registryEntryExists(platform::kNvramOptionsNodePath)) {
        QVLLog("Couldn't locate options node in VXDeviceTree");
        return false;
    }
    // Deleting a variable that does not exist answers what the store answers.
    if (nvram_->setOptionsProperty(platform::kNvramDeleteProperty, bytesOf(name)) != 0) {
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
    if (!nvram_->masterPortAvailable()) {
        QVLLog("Couldn't locate bootstrap_port mach port");
        return false;
    }
    if (!nvram_->registryEntryExists(platform::kNvramOptionsNodePath)) {
        QVLLog("Couldn't locate options node in VXDeviceTree");
        return false;
    }
    // The value is stored as its UTF-8 bytes, without a terminating zero.
    if (nvram_->setOptionsProperty(name, bytesOf(*text)) != 0) {
        QVLLog("Couldn't write nvram");
        return false;
    }
    if (nvram_->setOptionsProperty(platform::kNvramSyncNowProperty, bytesOf(name)) != 0) {
        QVLLog("Couldn't force sync new nvram to device");
        return false;
    }
    return true;
}

bool QVLHOperations::reboot() {
    restart_->restart();
    return false;
}

void QVLHOperations::quitHelper() {
    // Every log line is already flushed. Exit at once, without running the
    // destructors of objects other threads may still be using.
    std::fflush(nullptr);
    ::_exit(0);
}

}  // namespace qvl
