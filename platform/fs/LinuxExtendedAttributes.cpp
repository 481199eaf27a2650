// LinuxFileSystem, its extended attributes: the device's attributes are the
// host's "user." namespace, by path (links themselves, never their targets)
// or through a descriptor the walk already holds.
#include <sys/xattr.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "platform/fs/LinuxFileSystem.h"

namespace qvl::platform {
namespace {

constexpr std::string_view kUserPrefix = "user.";
// The kernel caps a name list at 64 KiB; anything larger is refused.
constexpr size_t kMaxNameListSize = 1 << 20;

// Reads a whole raw name list through `list` (a listxattr call taking a
// buffer and its size): most items have a short list or none, so one call
// into a stack buffer comes first. The list may keep changing while we look.
template <class List>
int rawNameList(List list, std::string* out) {
    char small[4096];
    ssize_t n = list(small, sizeof(small));
    if (n >= 0) {
        out->assign(small, static_cast<size_t>(n));
        return 0;
    }
    if (errno != ERANGE) return -1;
    for (int attempt = 0; attempt < 4; ++attempt) {
        const ssize_t size = list(nullptr, 0);
        if (size < 0) return -1;
        if (static_cast<size_t>(size) > kMaxNameListSize) {
            errno = E2BIG;
            return -1;
        }
        out->assign(static_cast<size_t>(size), '\0');
        n = list(out->data(), out->size());
        if (n >= 0) {
            out->resize(static_cast<size_t>(n));
            return 0;
        }
        if (errno != ERANGE) return -1;
    }
    return -1;
}

// The names of a raw list that lie in the "user." namespace, without the
// prefix, each ended by NUL.
std::string userNames(std::string_view raw) {
    std::string names;
    for (size_t pos = 0; pos < raw.size();) {
        size_t end = raw.find('\0', pos);
        if (end == std::string_view::npos) end = raw.size();
        const std::string_view name = raw.substr(pos, end - pos);
        if (name.size() > kUserPrefix.size() && name.starts_with(kUserPrefix)) {
            names.append(name.substr(kUserPrefix.size()));
            names.push_back('\0');
        }
        pos = end + 1;
    }
    return names;
}

std::string userAttribute(const std::string& name) {
    return std::string(kUserPrefix) + name;
}

}  // namespace

ssize_t LinuxFileSystem::listExtendedAttributes(const std::string& path, char* buffer, size_t size) {
    std::string raw;
    auto list = [&](char* into, size_t length) { return ::llistxattr(path.c_str(), into, length); };
    if (rawNameList(list, &raw) != 0) return -1;
    const std::string names = userNames(raw);
    if (buffer == nullptr) return static_cast<ssize_t>(names.size());
    if (names.size() > size) {
        errno = ERANGE;
        return -1;
    }
    std::memcpy(buffer, names.data(), names.size());
    return static_cast<ssize_t>(names.size());
}

ssize_t LinuxFileSystem::getExtendedAttribute(const std::string& path, const std::string& name, void* buffer,
                                              size_t size) {
    return ::lgetxattr(path.c_str(), userAttribute(name).c_str(), buffer, buffer ? size : 0);
}

int LinuxFileSystem::setExtendedAttribute(const std::string& path, const std::string& name, const void* value,
                                          size_t size) {
    return ::lsetxattr(path.c_str(), userAttribute(name).c_str(), value, size, 0);
}

int LinuxFileSystem::extendedAttributeNamesOf(int fd, std::string* names) {
    std::string raw;
    auto list = [fd](char* into, size_t length) { return ::flistxattr(fd, into, length); };
    if (rawNameList(list, &raw) != 0) return -1;
    *names = userNames(raw);
    return 0;
}

int LinuxFileSystem::extendedAttributeNamesAndProtectionClassOf(int fd, std::string* names,
                                                                std::optional<std::string>* protectionClass) {
    std::string raw;
    auto list = [fd](char* into, size_t length) { return ::flistxattr(fd, into, length); };
    if (rawNameList(list, &raw) != 0) {
        const int err = errno;
        *protectionClass = protectionClassOf(fd);
        errno = err;
        return -1;
    }
    *names = userNames(raw);
    bool listed = false;
    for (size_t pos = 0; pos < raw.size() && !listed;) {
        size_t end = raw.find('\0', pos);
        if (end == std::string::npos) end = raw.size();
        listed = std::string_view(raw).substr(pos, end - pos) == kProtectionClassAttribute;
        pos = end + 1;
    }
    *protectionClass = listed ? protectionClassOf(fd) : std::nullopt;
    return 0;
}

int LinuxFileSystem::extendedAttributeOf(int fd, const std::string& name, size_t limit,
                                         std::vector<uint8_t>* value) {
    const std::string fullName = userAttribute(name);
    // Values are mostly small: one call into a stack buffer first.
    uint8_t small[1024];
    ssize_t n = ::fgetxattr(fd, fullName.c_str(), small, sizeof(small));
    if (n >= 0) {
        value->assign(small, small + n);
        return 0;
    }
    if (errno != ERANGE) return -1;
    const ssize_t size = ::fgetxattr(fd, fullName.c_str(), nullptr, 0);
    if (size < 0) return -1;
    if (static_cast<size_t>(size) > limit) {
        errno = E2BIG;
        return -1;
    }
    std::vector<uint8_t> bytes(static_cast<size_t>(size));
    n = ::fgetxattr(fd, fullName.c_str(), bytes.data(), bytes.size());
    if (n < 0) return -1;
    bytes.resize(static_cast<size_t>(n));
    *value = std::move(bytes);
    return 0;
}

}  // namespace qvl::platform
