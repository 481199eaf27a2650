#include "platform/fs/FileTree.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>

#include "base/UniqueFd.h"

namespace qvl::platform {
namespace {

using Fd = UniqueFd;

constexpr int kDirOpenFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

int lastError() {
    return errno != 0 ? errno : EIO;
}

bool isDotOrDotDot(const char* name) {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

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

std::string parentOf(std::string_view path) {
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    const size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) return ".";
    if (slash == 0) return "/";
    return std::string(path.substr(0, slash));
}

std::string resolved(const std::string& path) {
    char buf[PATH_MAX];
    return ::realpath(path.c_str(), buf) ? std::string(buf) : std::string();
}

// Linking a folder into itself would never end: refuse a new path whose
// parent is the folder or lies inside it.
int refuseNestedTarget(const std::string& folder, const std::string& newPath) {
    const std::string parent = resolved(parentOf(newPath));
    if (parent.empty()) return lastError();
    const std::string source = resolved(folder);
    if (source.empty()) return lastError();
    if (source == "/" || parent == source || parent.starts_with(source + "/")) return EINVAL;
    return 0;
}

int linkFolder(const std::string& existing, const std::string& newPath, const struct stat& st) {
    if (int err = refuseNestedTarget(existing, newPath)) return err;
    Fd src(::open(existing.c_str(), kDirOpenFlags));
    if (!src.valid()) return lastError();
    if (::mkdir(newPath.c_str(), 0700) != 0) return lastError();
    int err = 0;
    Fd dst(::open(newPath.c_str(), kDirOpenFlags));
    if (!dst.valid()) err = lastError();
    if (err == 0) err = linkContents(src.get(), dst.get(), 1);
    if (err == 0 && ::fchmod(dst.get(), st.st_mode & 07777) != 0) err = lastError();
    if (err != 0) removeTree(newPath);
    return err;
}

int removeContents(int dirFd, dev_t device, int depth);

int removeEntry(int dirFd, const char* name, dev_t device, int depth) {
    struct stat st;
    if (::fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return errno == ENOENT ? 0 : lastError();
    if (!S_ISDIR(st.st_mode)) return ::unlinkat(dirFd, name, 0) == 0 ? 0 : lastError();
    if (st.st_dev != device) return EXDEV;
    if (depth >= kMaxTreeDepth) return ELOOP;
    Fd child(::openat(dirFd, name, kDirOpenFlags));
    if (!child.valid()) return lastError();
    if (int err = removeContents(child.get(), device, depth + 1)) return err;
    return ::unlinkat(dirFd, name, AT_REMOVEDIR) == 0 ? 0 : lastError();
}

int removeContents(int dirFd, dev_t device, int depth) {
    return forEachEntry(dirFd, [&](const char* name) { return removeEntry(dirFd, name, device, depth); });
}

}  // namespace

int linkTree(const std::string& existing, const std::string& newPath) {
    struct stat st;
    if (::lstat(existing.c_str(), &st) != 0) return lastError();
    if (S_ISDIR(st.st_mode)) return linkFolder(existing, newPath, st);
    return ::linkat(AT_FDCWD, existing.c_str(), AT_FDCWD, newPath.c_str(), 0) == 0 ? 0 : lastError();
}

DirStream openStream(int folderFd) {
    const int copy = ::fcntl(folderFd, F_DUPFD_CLOEXEC, 0);
    if (copy < 0) return nullptr;
    DIR* d = ::fdopendir(copy);
    if (!d) ::close(copy);
    return DirStream(d);
}

int removeTree(const std::string& path) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) return lastError();
    if (!S_ISDIR(st.st_mode)) return ::unlink(path.c_str()) == 0 ? 0 : lastError();
    Fd dir(::open(path.c_str(), kDirOpenFlags));
    if (!dir.valid()) return lastError();
    if (int err = removeContents(dir.get(), st.st_dev, 1)) return err;
    return ::rmdir(path.c_str()) == 0 ? 0 : lastError();
}

}  // namespace qvl::platform
