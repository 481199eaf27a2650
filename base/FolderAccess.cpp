#include "base/FolderAccess.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "base/Errno.h"

namespace qvl {
namespace {

// O_NONBLOCK: whatever was swapped in at the name, the open never waits on it.
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

// Why opening `name` of `folderFd` as a folder failed: a link there reads as
// ELOOP (the kernel says ENOTDIR for it).
int folderOpenError(int folderFd, const char* name) {
    const int err = lastError();
    struct stat st;
    if (err == ENOTDIR && ::fstatat(folderFd, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode))
        return ELOOP;
    return err;
}

struct Identity {
    dev_t device;
    ino_t inode;
    bool operator==(const Identity&) const = default;
};

int identityOf(int fd, Identity* out) {
    struct stat st;
    if (::fstat(fd, &st) != 0) return lastError();
    *out = {st.st_dev, st.st_ino};
    return 0;
}

// Removes what it can of the folder's entries: files and links, empty
// folders. At the first folder that still holds something, stops and names
// it in `full`, for the walk to go down into. The folder is read from its
// start, so entries that came back after an earlier pass are seen too.
int clearFolder(int folderFd, dev_t device, std::string* full) {
    DirStream stream = openStream(folderFd);
    if (!stream) return lastError();
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(stream.get());
        if (!entry) return errno;
        const char* name = entry->d_name;
        if (isDotOrDotDot(name)) continue;
        struct stat st;
        if (::fstatat(folderFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT) continue;  // gone meanwhile
            return lastError();
        }
        if (!S_ISDIR(st.st_mode)) {
            if (::unlinkat(folderFd, name, 0) != 0 && errno != ENOENT) return lastError();
            continue;
        }
        if (st.st_dev != device) return EXDEV;
        if (::unlinkat(folderFd, name, AT_REMOVEDIR) == 0) continue;
        if (errno != ENOTEMPTY && errno != EEXIST) return lastError();
        *full = name;
        return 0;
    }
}

}  // namespace

int openRegularFileAt(int folderFd, const std::string& name, const RegularFileOptions& options,
                      UniqueFd* out) {
    int flags = options.access | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    if (!options.followLinks) flags |= O_NOFOLLOW;
    if (options.create) flags |= O_CREAT | (options.exclusive ? O_EXCL : 0);
    UniqueFd fd(::openat(folderFd, name.c_str(), flags, options.mode));
    if (!fd.valid()) return lastError();
    struct stat st;
    if (::fstat(fd.get(), &st) != 0) return lastError();
    if (!S_ISREG(st.st_mode)) return EINVAL;
    if (options.requireOwnedBySelf && st.st_uid != ::geteuid()) return EPERM;
    if (options.requireSingleLink && st.st_nlink != 1) return EMLINK;
    *out = std::move(fd);
    return 0;
}

int openFolderAt(int folderFd, const std::string& name, bool create, uint32_t mode, UniqueFd* out) {
    UniqueFd folder(::openat(folderFd, name.c_str(), kFolderFlags));
    if (!folder.valid() && errno == ENOENT && create) {
        if (::mkdirat(folderFd, name.c_str(), mode) != 0 && errno != EEXIST) return lastError();
        folder.reset(::openat(folderFd, name.c_str(), kFolderFlags));
    }
    if (!folder.valid()) return folderOpenError(folderFd, name.c_str());
    *out = std::move(folder);
    return 0;
}

int removeTreeAt(int folderFd, const std::string& name) {
    struct stat st;
    if (::fstatat(folderFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return lastError();
    if (!S_ISDIR(st.st_mode)) return ::unlinkat(folderFd, name.c_str(), 0) == 0 ? 0 : lastError();
    UniqueFd current;
    if (int err = openFolderAt(folderFd, name, false, 0, &current)) return err;
    Identity here;
    if (int err = identityOf(current.get(), &here)) return err;
    const dev_t device = here.device;
    // The folders above the current one, outermost first: all the walk keeps.
    std::vector<Identity> above;
    for (;;) {
        std::string full;
        if (int err = clearFolder(current.get(), device, &full)) return err;
        if (!full.empty()) {
            UniqueFd child;
            if (int err = openFolderAt(current.get(), full, false, 0, &child)) return err;
            above.push_back(here);
            if (int err = identityOf(child.get(), &here)) return err;
            if (here.device != device) return EXDEV;
            current = std::move(child);
            continue;
        }
        if (above.empty()) break;
        // Back up through "..", which must still be the folder we came down
        // from: a folder moved elsewhere meanwhile must not lead the walk out.
        UniqueFd parent(::openat(current.get(), "..", kFolderFlags));
        if (!parent.valid()) return lastError();
        if (int err = identityOf(parent.get(), &here)) return err;
        if (!(here == above.back())) return EBUSY;
        above.pop_back();
        current = std::move(parent);
    }
    return ::unlinkat(folderFd, name.c_str(), AT_REMOVEDIR) == 0 ? 0 : lastError();
}

DirStream openStream(int folderFd) {
    const int copy = ::fcntl(folderFd, F_DUPFD_CLOEXEC, 0);
    if (copy < 0) return nullptr;
    DIR* d = ::fdopendir(copy);
    if (!d) {
        ::close(copy);
        return nullptr;
    }
    // The copy shares the folder's read position, which an earlier listing
    // may have left at the end.
    ::rewinddir(d);
    return DirStream(d);
}

}  // namespace qvl
