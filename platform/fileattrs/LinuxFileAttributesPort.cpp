#include "platform/fileattrs/LinuxFileAttributesPort.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/fs.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>

#include "base/UniqueFd.h"

namespace qvl::platform {
namespace {

constexpr std::string_view kUserPrefix = "user.";
// The kernel caps a name list at 64 KiB; anything larger is refused.
constexpr size_t kMaxNameListSize = 1 << 20;
// Account database records are small; a larger one is refused.
constexpr size_t kMaxAccountRecordSize = 1 << 20;

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
bool immutableFlagByIoctl(const std::string& path, ItemType type) {
    if (type != ItemType::kRegular && type != ItemType::kDirectory) return false;
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
    if (fd.get() < 0) return false;
    int flags = 0;
    if (::ioctl(fd.get(), FS_IOC_GETFLAGS, &flags) != 0) return false;
    return (flags & FS_IMMUTABLE_FL) != 0;
}

int statWithFlags(const std::string& path, int flags, ItemStat* out) {
    struct statx stx {};
    if (::statx(AT_FDCWD, path.c_str(), flags | AT_STATX_SYNC_AS_STAT, STATX_BASIC_STATS | STATX_BTIME,
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
        st.immutable = immutableFlagByIoctl(path, st.type);
    }
    *out = st;
    return 0;
}

// Reads the whole raw name list of `path` into `list`.
int rawNameList(const std::string& path, std::string* list) {
    char small[4096];
    ssize_t n = ::llistxattr(path.c_str(), small, sizeof(small));
    if (n >= 0) {
        list->assign(small, static_cast<size_t>(n));
        return 0;
    }
    if (errno != ERANGE) return -1;
    // The list outgrew the stack buffer; it may keep changing while we look.
    for (int attempt = 0; attempt < 4; ++attempt) {
        ssize_t size = ::llistxattr(path.c_str(), nullptr, 0);
        if (size < 0) return -1;
        if (static_cast<size_t>(size) > kMaxNameListSize) {
            errno = E2BIG;
            return -1;
        }
        list->assign(static_cast<size_t>(size), '\0');
        n = ::llistxattr(path.c_str(), list->data(), list->size());
        if (n >= 0) {
            list->resize(static_cast<size_t>(n));
            return 0;
        }
        if (errno != ERANGE) return -1;
    }
    return -1;
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

LinuxFileAttributesPort& LinuxFileAttributesPort::sharedInstance() {
    static LinuxFileAttributesPort port;
    return port;
}

int LinuxFileAttributesPort::statItem(const std::string& path, ItemStat* out) {
    return statWithFlags(path, AT_SYMLINK_NOFOLLOW, out);
}

int LinuxFileAttributesPort::statFollowingLinks(const std::string& path, ItemStat* out) {
    return statWithFlags(path, 0, out);
}

int LinuxFileAttributesPort::setImmutableFlag(const std::string& path, bool immutable) {
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

std::optional<std::string> LinuxFileAttributesPort::protectionClass(const std::string& path) {
    char value[kMaxProtectionClassLength];
    ssize_t n = ::lgetxattr(path.c_str(), kProtectionClassAttribute, value, sizeof(value));
    if (n < 0) return std::nullopt;
    return std::string(value, static_cast<size_t>(n));
}

int LinuxFileAttributesPort::setProtectionClass(const std::string& path, const std::string& protectionClass) {
    return ::lsetxattr(path.c_str(), kProtectionClassAttribute, protectionClass.data(),
                       protectionClass.size(), 0);
}

ssize_t LinuxFileAttributesPort::listExtendedAttributes(const std::string& path, char* buffer, size_t size) {
    std::string raw;
    if (rawNameList(path, &raw) != 0) return -1;
    std::string names;
    for (size_t pos = 0; pos < raw.size();) {
        size_t end = raw.find('\0', pos);
        if (end == std::string::npos) end = raw.size();
        std::string_view name(raw.data() + pos, end - pos);
        if (name.size() > kUserPrefix.size() && name.starts_with(kUserPrefix)) {
            names.append(name.substr(kUserPrefix.size()));
            names.push_back('\0');
        }
        pos = end + 1;
    }
    if (buffer == nullptr) return static_cast<ssize_t>(names.size());
    if (names.size() > size) {
        errno = ERANGE;
        return -1;
    }
    std::memcpy(buffer, names.data(), names.size());
    return static_cast<ssize_t>(names.size());
}

ssize_t LinuxFileAttributesPort::getExtendedAttribute(const std::string& path, const std::string& name,
                                                      void* buffer, size_t size) {
    const std::string fullName = std::string(kUserPrefix) + name;
    return ::lgetxattr(path.c_str(), fullName.c_str(), buffer, buffer ? size : 0);
}

int LinuxFileAttributesPort::setExtendedAttribute(const std::string& path, const std::string& name,
                                                  const void* value, size_t size) {
    const std::string fullName = std::string(kUserPrefix) + name;
    return ::lsetxattr(path.c_str(), fullName.c_str(), value, size, 0);
}

int LinuxFileAttributesPort::readLink(const std::string& path, std::string* out) {
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

int LinuxFileAttributesPort::listDirectory(const std::string& path, std::vector<DirectoryEntry>* out) {
    // O_NOFOLLOW: a folder swapped for a link during a walk is not followed.
    int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return -1;
    DIR* dir = ::fdopendir(fd);
    if (dir == nullptr) {
        int saved = errno;
        ::close(fd);
        errno = saved;
        return -1;
    }
    std::unique_ptr<DIR, int (*)(DIR*)> closer(dir, ::closedir);
    std::vector<DirectoryEntry> entries;
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(dir);
        if (entry == nullptr) {
            if (errno != 0) return -1;
            break;
        }
        std::string_view name(entry->d_name);
        if (name == "." || name == "..") continue;
        entries.push_back({std::string(name), typeFromDirent(entry->d_type)});
    }
    *out = std::move(entries);
    return 0;
}

int LinuxFileAttributesPort::openForReading(const std::string& path, uint64_t* size) {
    constexpr int kFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    // Reading for a digest should not change access times; only the owner or
    // root may ask for that, so fall back to a plain open.
    int fd = ::open(path.c_str(), kFlags | O_NOATIME);
    if (fd < 0 && errno == EPERM) fd = ::open(path.c_str(), kFlags);
    if (fd < 0) return -1;
    // Only a regular file has content that ends: a fifo or a device would
    // block or never stop.
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        errno = EINVAL;
        return -1;
    }
    if (size) *size = static_cast<uint64_t>(st.st_size);
    return fd;
}

ssize_t LinuxFileAttributesPort::read(int fd, void* buffer, size_t size) {
    for (;;) {
        ssize_t n = ::read(fd, buffer, size);
        if (n >= 0 || errno != EINTR) return n;
    }
}

void LinuxFileAttributesPort::adviseSequential(int fd) {
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
}

void LinuxFileAttributesPort::adviseDone(int fd, off_t offset, off_t length) {
    ::posix_fadvise(fd, offset, length, POSIX_FADV_DONTNEED);
}

void LinuxFileAttributesPort::prefetch(const std::string& path, off_t length) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC | O_NOATIME));
    if (fd.get() >= 0) ::posix_fadvise(fd.get(), 0, length, POSIX_FADV_WILLNEED);
}

int LinuxFileAttributesPort::close(int fd) {
    return ::close(fd);
}

int LinuxFileAttributesPort::changeOwner(const std::string& path, uint32_t uid, uint32_t gid) {
    return ::lchown(path.c_str(), uid, gid);
}

int LinuxFileAttributesPort::changeMode(const std::string& path, uint32_t mode) {
    return ::fchmodat(AT_FDCWD, path.c_str(), mode, AT_SYMLINK_NOFOLLOW);
}

int LinuxFileAttributesPort::setModificationTime(const std::string& path, const timespec& when) {
    const timespec times[2] = {{0, UTIME_OMIT}, when};
    return ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

std::optional<std::string> LinuxFileAttributesPort::userName(uint32_t uid) {
    std::optional<std::string> name;
    lookupAccount<passwd>([&](passwd* entry, char* buffer, size_t size, passwd** result) {
        int rc = ::getpwuid_r(uid, entry, buffer, size, result);
        if (rc == 0 && *result) name = (*result)->pw_name;
        return rc;
    });
    return name;
}

std::optional<std::string> LinuxFileAttributesPort::groupName(uint32_t gid) {
    std::optional<std::string> name;
    lookupAccount<group>([&](group* entry, char* buffer, size_t size, group** result) {
        int rc = ::getgrgid_r(gid, entry, buffer, size, result);
        if (rc == 0 && *result) name = (*result)->gr_name;
        return rc;
    });
    return name;
}

std::optional<uint32_t> LinuxFileAttributesPort::userID(const std::string& name) {
    std::optional<uint32_t> id;
    lookupAccount<passwd>([&](passwd* entry, char* buffer, size_t size, passwd** result) {
        int rc = ::getpwnam_r(name.c_str(), entry, buffer, size, result);
        if (rc == 0 && *result) id = (*result)->pw_uid;
        return rc;
    });
    return id;
}

std::optional<uint32_t> LinuxFileAttributesPort::groupID(const std::string& name) {
    std::optional<uint32_t> id;
    lookupAccount<group>([&](group* entry, char* buffer, size_t size, group** result) {
        int rc = ::getgrnam_r(name.c_str(), entry, buffer, size, result);
        if (rc == 0 && *result) id = (*result)->gr_gid;
        return rc;
    });
    return id;
}

}  // namespace qvl::platform
