#include "platform/fs/LinuxFileSystem.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/fs.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>

#include "base/DescriptorIO.h"
#include "platform/fs/FileAccess.h"
#include "platform/fs/FileTree.h"
#include "platform/fs/ItemBeneath.h"

namespace qvl::platform {
namespace {

// Account database records are small; a larger one is refused.
constexpr size_t kMaxAccountRecordSize = 1 << 20;

// Turns an errno result of the helpers into this interface's -1 with errno.
int posixResult(int err) {
    if (err == 0) return 0;
    errno = err;
    return -1;
}

UniqueFd descriptorResult(int err, UniqueFd fd) {
    if (err != 0) errno = err;
    return fd;
}

ItemType typeFromMode(mode_t mode) {
    switch (mode & S_IFMT) {
        case S_IFREG:
            return ItemType::kRegular;
        case S_IFDIR:
            return ItemType::kDirectory;
        case S_IFLNK:
            return ItemType::kSymbolicLink;
        case S_IFSOCK:
            return ItemType::kSocket;
        case S_IFCHR:
            return ItemType::kCharacterSpecial;
        case S_IFBLK:
            return ItemType::kBlockSpecial;
        case S_IFIFO:
            return ItemType::kFifo;
        default:
            return ItemType::kUnknown;
    }
}

ItemType typeFromDirent(unsigned char type) {
    switch (type) {
        case DT_REG:
            return ItemType::kRegular;
        case DT_DIR:
            return ItemType::kDirectory;
        case DT_LNK:
            return ItemType::kSymbolicLink;
        case DT_SOCK:
            return ItemType::kSocket;
        case DT_CHR:
            return ItemType::kCharacterSpecial;
        case DT_BLK:
            return ItemType::kBlockSpecial;
        case DT_FIFO:
            return ItemType::kFifo;
        default:
            return ItemType::kUnknown;
    }
}

// Only regular files and folders are opened for their flags: opening a
// device or a fifo can have side effects, and links have no flags of their own.
bool immutableFlagByIoctl(int folderFd, const std::string& path, ItemType type) {
    if (type != ItemType::kRegular && type != ItemType::kDirectory) return false;
    // An empty path names the open item itself.
    UniqueFd opened(path.empty() ? -1
                                 : ::openat(folderFd, path.c_str(),
                                            O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
    const int fd = path.empty() ? folderFd : opened.get();
    if (fd < 0) return false;
    int flags = 0;
    if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0) return false;
    return (flags & FS_IMMUTABLE_FL) != 0;
}

int statWithFlags(int folderFd, const std::string& path, int flags, ItemStat* out) {
    struct statx stx {};
    if (::statx(folderFd, path.c_str(), flags | AT_STATX_SYNC_AS_STAT, STATX_BASIC_STATS | STATX_BTIME,
                &stx) != 0) {
        return -1;
    }
    ItemStat st;
    st.type = typeFromMode(stx.stx_mode);
    st.permissions = stx.stx_mode & 07777;
    st.uid = stx.stx_uid;
    st.gid = stx.stx_gid;
    st.size = stx.stx_size;
    st.linkCount = stx.stx_nlink;
    st.device = makedev(stx.stx_dev_major, stx.stx_dev_minor);
    st.inode = stx.stx_ino;
    st.modification = {static_cast<time_t>(stx.stx_mtime.tv_sec), static_cast<long>(stx.stx_mtime.tv_nsec)};
    if (stx.stx_mask & STATX_BTIME) {
        st.birth =
            timespec{static_cast<time_t>(stx.stx_btime.tv_sec), static_cast<long>(stx.stx_btime.tv_nsec)};
    }
    if (stx.stx_attributes_mask & STATX_ATTR_IMMUTABLE) {
        st.immutable = (stx.stx_attributes & STATX_ATTR_IMMUTABLE) != 0;
    } else {
        st.immutable = immutableFlagByIoctl(folderFd, path, st.type);
    }
    *out = st;
    return 0;
}

// Runs one reentrant account lookup, growing its buffer while the record
// does not fit. `lookup` copies out what it needs before the buffer goes.
template <class Entry, class Lookup>
void lookupAccount(Lookup lookup) {
    long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    size_t size = suggested > 0 ? static_cast<size_t>(suggested) : 1024;
    for (;;) {
        auto buffer = std::make_unique<char[]>(size);
        Entry entry{};
        Entry* result = nullptr;
        int rc = lookup(&entry, buffer.get(), size, &result);
        if (rc != ERANGE || size >= kMaxAccountRecordSize) return;
        size *= 2;
    }
}

}  // namespace

LinuxFileSystem& LinuxFileSystem::sharedInstance() {
    static LinuxFileSystem port;
    return port;
}

int LinuxFileSystem::statItem(const std::string& path, ItemStat* out) {
    return statWithFlags(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, out);
}

int LinuxFileSystem::statFollowingLinks(const std::string& path, ItemStat* out) {
    return statWithFlags(AT_FDCWD, path, 0, out);
}

int LinuxFileSystem::setImmutableFlag(const std::string& path, bool immutable) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
    if (fd.get() < 0) return -1;
    int flags = 0;
    if (::ioctl(fd.get(), FS_IOC_GETFLAGS, &flags) != 0) {
        // A file system without flags has nothing to clear.
        if (!immutable && (errno == ENOTTY || errno == EOPNOTSUPP)) return 0;
        return -1;
    }
    int wanted = immutable ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
    if (wanted == flags) return 0;
    return ::ioctl(fd.get(), FS_IOC_SETFLAGS, &wanted);
}

std::optional<std::string> LinuxFileSystem::protectionClass(const std::string& path) {
    char value[kMaxProtectionClassLength];
    ssize_t n = ::lgetxattr(path.c_str(), kProtectionClassAttribute, value, sizeof(value));
    if (n < 0) return std::nullopt;
    return std::string(value, static_cast<size_t>(n));
}

int LinuxFileSystem::setProtectionClass(const std::string& path, const std::string& protectionClass) {
    return ::lsetxattr(path.c_str(), kProtectionClassAttribute, protectionClass.data(),
                       protectionClass.size(), 0);
}

int LinuxFileSystem::readLink(const std::string& path, std::string* out) {
    std::string text(PATH_MAX, '\0');
    ssize_t n = ::readlink(path.c_str(), text.data(), text.size());
    if (n < 0) return -1;
    if (static_cast<size_t>(n) >= text.size()) {
        errno = ENAMETOOLONG;
        return -1;
    }
    text.resize(static_cast<size_t>(n));
    *out = std::move(text);
    return 0;
}

int LinuxFileSystem::listDirectory(const std::string& path, std::vector<DirectoryEntry>* out) {
    // O_NOFOLLOW: a folder swapped for a link during a walk is not followed.
    const UniqueFd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder.valid()) return -1;
    return listFolder(folder.get(), out);
}

// Entries are read straight from the folder's descriptor: a directory
// stream would first copy the descriptor and look at it three more times,
// which a walk would pay for every folder.
int LinuxFileSystem::listFolder(int folderFd, std::vector<DirectoryEntry>* out) {
    // An earlier listing may have left the read position at the end.
    if (::lseek(folderFd, 0, SEEK_SET) != 0) return -1;
    alignas(dirent64) char buffer[32768];
    std::vector<DirectoryEntry> entries;
    for (;;) {
        const ssize_t n = ::getdents64(folderFd, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -1;
        if (n == 0) break;
        constexpr size_t kNameOffset = offsetof(dirent64, d_name);
        for (size_t pos = 0; pos < static_cast<size_t>(n);) {
            const auto* entry = reinterpret_cast<const dirent64*>(buffer + pos);
            const size_t length = entry->d_reclen;
            if (length <= kNameOffset || length > static_cast<size_t>(n) - pos) {
                errno = EIO;  // not what the kernel writes
                return -1;
            }
            pos += length;
            const std::string_view name(entry->d_name, ::strnlen(entry->d_name, length - kNameOffset));
            if (name == "." || name == "..") continue;
            entries.push_back({std::string(name), typeFromDirent(entry->d_type)});
        }
    }
    *out = std::move(entries);
    return 0;
}

UniqueFd LinuxFileSystem::openFolder(const std::string& path) {
    UniqueFd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st;
    // The kernel says ENOTDIR for a link; it is a link all the same.
    if (!folder.valid() && errno == ENOTDIR && ::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode))
        errno = ELOOP;
    return folder;
}

UniqueFd LinuxFileSystem::openFolderBeneath(const std::string& base, const std::string& relative, bool create,
                                            uint32_t mode) {
    UniqueFd folder;
    const int err = platform::openFolderBeneath(base, relative, create, mode, &folder);
    return descriptorResult(err, std::move(folder));
}

UniqueFd LinuxFileSystem::openFolderAt(int folderFd, const std::string& name, bool create, uint32_t mode) {
    UniqueFd folder;
    const int err = qvl::openFolderAt(folderFd, name, create, mode, &folder);
    return descriptorResult(err, std::move(folder));
}

int LinuxFileSystem::statItemAt(int folderFd, const std::string& name, ItemStat* out) {
    return statWithFlags(folderFd, name, AT_SYMLINK_NOFOLLOW, out);
}

int LinuxFileSystem::openItemBeneath(int baseFd, const std::string& relative, ItemBeneath* out) {
    return posixResult(platform::openItemBeneath(baseFd, relative, out));
}

// The owner and mode of a client's entry are changed through a descriptor of
// the entry checked first, so that what is changed is what was checked. A
// file with another hard link is refused: its other name may be anywhere on
// the volume, in a folder the client could never change.
int LinuxFileSystem::changeOwnerAt(int folderFd, const std::string& name, uint32_t uid, uint32_t gid) {
    // O_PATH opens the entry itself, a link included, without reading it.
    const UniqueFd entry(::openat(folderFd, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat st;
    if (!entry.valid() || ::fstat(entry.get(), &st) != 0) return -1;
    if (!S_ISDIR(st.st_mode) && st.st_nlink > 1) return posixResult(EMLINK);
    return ::fchownat(entry.get(), "", uid, gid, AT_EMPTY_PATH);
}

int LinuxFileSystem::changeModeAt(int folderFd, const std::string& name, uint32_t mode) {
    // Opening a fifo without blocking has no effect on it; a device can't be
    // in a folder of the data volume that a client could have put it in.
    UniqueFd entry(
        ::openat(folderFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!entry.valid()) return posixResult(errno == ELOOP ? EOPNOTSUPP : errno);  // links have no mode
    struct stat st;
    if (::fstat(entry.get(), &st) != 0) return -1;
    if (!S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode)) return posixResult(EINVAL);
    if (S_ISREG(st.st_mode) && st.st_nlink > 1) return posixResult(EMLINK);
    return ::fchmod(entry.get(), mode);
}

int LinuxFileSystem::removeTreeAt(int folderFd, const std::string& name) {
    return posixResult(qvl::removeTreeAt(folderFd, name));
}

int LinuxFileSystem::linkTreeAt(int fromFolderFd, const std::string& fromName, int toFolderFd,
                                const std::string& toName) {
    return posixResult(platform::linkTreeAt(fromFolderFd, fromName, toFolderFd, toName));
}

int LinuxFileSystem::moveItemAt(int fromFolderFd, const std::string& fromName, int toFolderFd,
                                const std::string& toName, bool replace) {
    const char* from = fromName.c_str();
    const char* to = toName.c_str();
    if (replace) return ::renameat(fromFolderFd, from, toFolderFd, to);
    if (::renameat2(fromFolderFd, from, toFolderFd, to, RENAME_NOREPLACE) == 0) return 0;
    // File systems without the no-replace flag get a plain rename after a look.
    if (errno != EINVAL) return -1;
    struct stat st;
    if (::fstatat(toFolderFd, to, &st, AT_SYMLINK_NOFOLLOW) == 0) return posixResult(EEXIST);
    return ::renameat(fromFolderFd, from, toFolderFd, to);
}

UniqueFd LinuxFileSystem::openRegularFile(const std::string& path, const RegularFileOptions& options) {
    UniqueFd file;
    const int err = openRegularFileAt(AT_FDCWD, path, options, &file);
    return descriptorResult(err, std::move(file));
}

int LinuxFileSystem::readFile(const std::string& path, uint64_t limit, std::vector<uint8_t>* out,
                              const RegularFileOptions& options) {
    UniqueFd file;
    if (const int err = openRegularFileAt(AT_FDCWD, path, options, &file)) return posixResult(err);
    return posixResult(readAll(file.get(), limit, out));
}

int LinuxFileSystem::writeFileAtomically(const std::string& path, std::span<const uint8_t> bytes,
                                         std::optional<uint32_t> mode) {
    return posixResult(platform::writeFileAtomically(path, bytes, mode));
}

int LinuxFileSystem::writeFileAtomicallyFrom(const std::string& path, const ContentProducer& produce,
                                             std::optional<uint32_t> mode) {
    return posixResult(platform::writeFileAtomicallyFrom(path, produce, mode));
}

UniqueFd LinuxFileSystem::openForReading(const std::string& path, uint64_t* size) {
    constexpr int kFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    // Reading for a digest should not change access times; only the owner or
    // root may ask for that, so fall back to a plain open.
    UniqueFd fd(::open(path.c_str(), kFlags | O_NOATIME));
    if (!fd.valid() && errno == EPERM) fd.reset(::open(path.c_str(), kFlags));
    if (!fd.valid()) return fd;
    // Only a regular file has content that ends: a fifo or a device would
    // block or never stop.
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        errno = EINVAL;
        return UniqueFd();
    }
    if (size) *size = static_cast<uint64_t>(st.st_size);
    return fd;
}

ssize_t LinuxFileSystem::read(int fd, void* buffer, size_t size) {
    for (;;) {
        ssize_t n = ::read(fd, buffer, size);
        if (n >= 0 || errno != EINTR) return n;
    }
}

ssize_t LinuxFileSystem::readWithoutWaiting(int fd, void* buffer, size_t size) {
    iovec piece{buffer, size};
    for (;;) {
        const ssize_t n = ::preadv2(fd, &piece, 1, -1, RWF_NOWAIT);
        if (n >= 0) return n;
        if (errno == EINTR) continue;
        // Where the flag is not known, nothing says the bytes are in memory.
        if (errno == EOPNOTSUPP || errno == EINVAL) errno = EAGAIN;
        return -1;
    }
}

void LinuxFileSystem::adviseReadOnce(int fd) {
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    // Pages read through the descriptor are not marked as used again, so
    // they are the first to go; a kernel before 6.3 ignores the advice.
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_NOREUSE);
}

void LinuxFileSystem::prefetch(const std::string& path, off_t length) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC | O_NOATIME));
    if (fd.get() >= 0) ::posix_fadvise(fd.get(), 0, length, POSIX_FADV_WILLNEED);
}

int LinuxFileSystem::changeOwner(const std::string& path, uint32_t uid, uint32_t gid) {
    return ::lchown(path.c_str(), uid, gid);
}

int LinuxFileSystem::changeMode(const std::string& path, uint32_t mode) {
    return ::fchmodat(AT_FDCWD, path.c_str(), mode, AT_SYMLINK_NOFOLLOW);
}

int LinuxFileSystem::resolvedPath(const std::string& path, std::string* out) {
    char buffer[PATH_MAX];
    if (!::realpath(path.c_str(), buffer)) return -1;
    *out = buffer;
    return 0;
}

int LinuxFileSystem::setModificationTime(const std::string& path, const timespec& when) {
    const timespec times[2] = {{0, UTIME_OMIT}, when};
    return ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

std::optional<std::string> LinuxFileSystem::userName(uint32_t uid) {
    std::optional<std::string> name;
    lookupAccount<passwd>([&](passwd* entry, char* buffer, size_t size, passwd** result) {
        int rc = ::getpwuid_r(uid, entry, buffer, size, result);
        if (rc == 0 && *result) name = (*result)->pw_name;
        return rc;
    });
    return name;
}

std::optional<std::string> LinuxFileSystem::groupName(uint32_t gid) {
    std::optional<std::string> name;
    lookupAccount<group>([&](group* entry, char* buffer, size_t size, group** result) {
        int rc = ::getgrgid_r(gid, entry, buffer, size, result);
        if (rc == 0 && *result) name = (*result)->gr_name;
        return rc;
    });
    return name;
}

std::optional<uint32_t> LinuxFileSystem::userID(const std::string& name) {
    std::optional<uint32_t> id;
    lookupAccount<passwd>([&](passwd* entry, char* buffer, size_t size, passwd** result) {
        int rc = ::getpwnam_r(name.c_str(), entry, buffer, size, result);
        if (rc == 0 && *result) id = (*result)->pw_uid;
        return rc;
    });
    return id;
}

std::optional<uint32_t> LinuxFileSystem::groupID(const std::string& name) {
    std::optional<uint32_t> id;
    lookupAccount<group>([&](group* entry, char* buffer, size_t size, group** result) {
        int rc = ::getgrnam_r(name.c_str(), entry, buffer, size, result);
        if (rc == 0 && *result) id = (*result)->gr_gid;
        return rc;
    });
    return id;
}

int LinuxFileSystem::typeAndSizeAt(int folderFd, const std::string& name, ItemType* type, uint64_t* size) {
    struct statx stx {};
    if (::statx(folderFd, name.c_str(), AT_SYMLINK_NOFOLLOW | AT_STATX_SYNC_AS_STAT, STATX_TYPE | STATX_SIZE,
                &stx) != 0) {
        return -1;
    }
    *type = typeFromMode(stx.stx_mode);
    *size = stx.stx_size;
    return 0;
}

UniqueFd LinuxFileSystem::openItemAt(int folderFd, const std::string& name, ItemType type) {
    if (type != ItemType::kRegular && type != ItemType::kDirectory) {
        errno = EINVAL;
        return UniqueFd();
    }
    const int flags = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC |
                      (type == ItemType::kDirectory ? O_DIRECTORY : 0);
    // As for openForReading: access times stay as they are where allowed.
    UniqueFd fd(::openat(folderFd, name.c_str(), flags | O_NOATIME));
    if (!fd.valid() && errno == EPERM) fd.reset(::openat(folderFd, name.c_str(), flags));
    return fd;
}

int LinuxFileSystem::statOpenItem(int fd, ItemStat* out) {
    return statWithFlags(fd, "", AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW, out);
}

std::optional<std::string> LinuxFileSystem::protectionClassOf(int fd) {
    char value[kMaxProtectionClassLength];
    ssize_t n = ::fgetxattr(fd, kProtectionClassAttribute, value, sizeof(value));
    if (n < 0) return std::nullopt;
    return std::string(value, static_cast<size_t>(n));
}

void LinuxFileSystem::prefetchAt(int folderFd, const std::string& name, off_t length) {
    UniqueFd fd(::openat(folderFd, name.c_str(),
                         O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC | O_NOATIME));
    if (fd.get() >= 0) ::posix_fadvise(fd.get(), 0, length, POSIX_FADV_WILLNEED);
}

UniqueFd LinuxFileSystem::openAndPrefetchAt(int folderFd, const std::string& name, off_t length) {
    UniqueFd fd = openItemAt(folderFd, name, ItemType::kRegular);
    if (fd.valid()) ::posix_fadvise(fd.get(), 0, length, POSIX_FADV_WILLNEED);
    return fd;
}

}  // namespace qvl::platform
