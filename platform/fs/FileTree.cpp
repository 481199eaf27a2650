#include "platform/fs/FileTree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "base/Errno.h"
#include "base/UniqueFd.h"

namespace qvl::platform {
namespace {

using Fd = UniqueFd;

constexpr int kDirOpenFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
// Folders climbed from a destination before giving up: more than a path can hold.
constexpr int kMaxClimb = 4096;

// Calls `visit(name)` for every entry but "." and "..", stopping at the
// first non-zero result.
template <class Visit>
int forEachEntry(int dirFd, Visit visit) {
    DirStream stream = openStream(dirFd);
    if (!stream) return lastError();
    for (;;) {
        errno = 0;
        const dirent* e = ::readdir(stream.get());
        if (!e) return errno;
        if (isDotOrDotDot(e->d_name)) continue;
        if (int err = visit(e->d_name)) return err;
    }
}

int linkContents(int srcDir, int dstDir, int depth);

int linkEntry(int srcDir, int dstDir, const char* name, int depth) {
    struct stat st;
    if (::fstatat(srcDir, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return lastError();
    if (!S_ISDIR(st.st_mode)) {
        // Without AT_SYMLINK_FOLLOW a symbolic link is linked as itself.
        return ::linkat(srcDir, name, dstDir, name, 0) == 0 ? 0 : lastError();
    }
    if (depth >= kMaxTreeDepth) return ELOOP;
    // Created private and opened up to the original's mode once filled.
    if (::mkdirat(dstDir, name, 0700) != 0) return lastError();
    Fd src(::openat(srcDir, name, kDirOpenFlags));
    if (!src.valid()) return lastError();
    Fd dst(::openat(dstDir, name, kDirOpenFlags));
    if (!dst.valid()) return lastError();
    if (int err = linkContents(src.get(), dst.get(), depth + 1)) return err;
    return ::fchmod(dst.get(), st.st_mode & 07777) == 0 ? 0 : lastError();
}

int linkContents(int srcDir, int dstDir, int depth) {
    return forEachEntry(srcDir, [&](const char* name) { return linkEntry(srcDir, dstDir, name, depth); });
}

bool sameItem(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Linking a folder into itself would never end: refuse a destination folder
// that is the source folder or lies inside it, found by climbing from the
// destination through ".." up to the root.
int refuseNestedTarget(int sourceFd, int toFolderFd) {
    struct stat source, here, parent;
    if (::fstat(sourceFd, &source) != 0 || ::fstat(toFolderFd, &here) != 0) return lastError();
    Fd current;
    for (int level = 0; level < kMaxClimb; ++level) {
        if (sameItem(here, source)) return EINVAL;
        Fd up(::openat(current.valid() ? current.get() : toFolderFd, "..", kDirOpenFlags));
        if (!up.valid() || ::fstat(up.get(), &parent) != 0) return lastError();
        if (sameItem(parent, here)) return 0;  // the root
        current = std::move(up);
        here = parent;
    }
    return ELOOP;
}

}  // namespace

int linkTreeAt(int fromFolderFd, const std::string& fromName, int toFolderFd, const std::string& toName) {
    struct stat st;
    if (::fstatat(fromFolderFd, fromName.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return lastError();
    if (!S_ISDIR(st.st_mode))
        return ::linkat(fromFolderFd, fromName.c_str(), toFolderFd, toName.c_str(), 0) == 0 ? 0 : lastError();
    Fd src;
    if (int err = openFolderAt(fromFolderFd, fromName, false, 0, &src)) return err;
    if (int err = refuseNestedTarget(src.get(), toFolderFd)) return err;
    if (::mkdirat(toFolderFd, toName.c_str(), 0700) != 0) return lastError();
    Fd dst;
    int err = openFolderAt(toFolderFd, toName, false, 0, &dst);
    if (err == 0) err = linkContents(src.get(), dst.get(), 1);
    if (err == 0 && ::fchmod(dst.get(), st.st_mode & 07777) != 0) err = lastError();
    if (err != 0) {
        dst.reset();
        removeTreeAt(toFolderFd, toName);
    }
    return err;
}

int removeTree(const std::string& path) {
    std::string_view trimmed(path);
    while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.remove_suffix(1);
    const size_t slash = trimmed.rfind('/');
    std::string folder = ".";
    if (slash != std::string_view::npos) folder = slash == 0 ? "/" : std::string(trimmed.substr(0, slash));
    const std::string name(slash == std::string_view::npos ? trimmed : trimmed.substr(slash + 1));
    Fd dir(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir.valid()) return lastError();
    return removeTreeAt(dir.get(), name);
}

}  // namespace qvl::platform
