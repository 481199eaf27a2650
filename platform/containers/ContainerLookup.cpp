#include "platform/containers/ContainerLookup.h"

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/QVLLog.h"

namespace qvl::platform {
namespace {

const char* classFolder(ContainerClass containerClass) {
    switch (containerClass) {
        case ContainerClass::kSystemData:
            return "Data/System";
        case ContainerClass::kSystemGroup:
            return "Shared/SystemGroup";
    }
    return nullptr;
}

bool isDirectory(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Creates every missing folder of `path` (mode 0755). The container root and
// its class folders are made like the containers themselves.
bool makeFolders(const std::string& path) {
    std::string partial;
    size_t pos = 0;
    while (pos != std::string::npos) {
        pos = path.find('/', pos + 1);
        partial = path.substr(0, pos);
        if (partial.empty() || isDirectory(partial)) continue;
        if (mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) {
            QVLLog("Cannot create container folder %s: %s", partial, std::strerror(errno));
            return false;
        }
    }
    return isDirectory(path);
}

}  // namespace

FileContainerLookup& FileContainerLookup::sharedInstance() {
    static FileContainerLookup lookup;
    return lookup;
}

FileContainerLookup::FileContainerLookup(std::string root, bool readOnly)
    : root_(std::move(root)), readOnly_(readOnly) {}

bool FileContainerLookup::validIdentifier(std::string_view identifier) {
    return !identifier.empty() && identifier.size() <= 255 && identifier != "." && identifier != ".." &&
           identifier.find('/') == std::string_view::npos && identifier.find('\0') == std::string_view::npos;
}

std::optional<ContainerInfo> FileContainerLookup::containerPath(std::string_view identifier,
                                                                ContainerClass containerClass) {
    const char* folder = classFolder(containerClass);
    if (!folder || !validIdentifier(identifier)) return std::nullopt;

    ContainerInfo info;
    info.path = root_ + "/" + folder + "/" + std::string(identifier);
    struct stat st {};
    if (lstat(info.path.c_str(), &st) == 0) {
        // Something that is not a folder can't be a container; never replace it.
        if (!S_ISDIR(st.st_mode)) return std::nullopt;
        info.existed = true;
        return info;
    }
    if (errno != ENOENT) return std::nullopt;
    info.existed = false;
    if (readOnly()) return info;

    if (!makeFolders(info.path)) return std::nullopt;
    // The owner and mode are fixed whatever the caller's umask or user.
    if (chmod(info.path.c_str(), 0755) != 0 || lchown(info.path.c_str(), 0, 0) != 0) {
        // A non-root tool can't give the folder to root; the container is
        // still usable, so report it as made.
        if (errno != EPERM) {
            QVLLog("Cannot set the owner of container %s: %s", info.path, std::strerror(errno));
            return std::nullopt;
        }
    }
    return info;
}

std::optional<bool> FileContainerLookup::excludedFromBackup(const std::string& path) {
    if (!isDirectory(path)) return std::nullopt;
    char value[8];
    const ssize_t n = lgetxattr(path.c_str(), kExcludeAttribute, value, sizeof value);
    if (n < 0) {
        // No attribute (or no xattr support) means "not excluded".
        if (errno == ENODATA || errno == ENOTSUP) return false;
        // A value longer than the buffer is not "1".
        if (errno == ERANGE) return false;
        return std::nullopt;
    }
    return n == 1 && value[0] == '1';
}

}  // namespace qvl::platform
