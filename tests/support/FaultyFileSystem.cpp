#include "tests/support/FaultyFileSystem.h"

#include <cerrno>

namespace qvl::testing {

bool FaultyFileSystem::fails(const PathHook& hook, const std::string& path) const {
    if (!hook || !hook(path)) return false;
    errno = errnoToSet;
    return true;
}

int FaultyFileSystem::statItem(const std::string& path, platform::ItemStat* out) {
    return fails(failStat, path) ? -1 : LinuxFileSystem::statItem(path, out);
}

ssize_t FaultyFileSystem::listExtendedAttributes(const std::string& path, char* buffer, size_t size) {
    if (fails(buffer ? failListExtendedAttributes : failFirstListExtendedAttributes, path)) return -1;
    return LinuxFileSystem::listExtendedAttributes(path, buffer, size);
}

ssize_t FaultyFileSystem::getExtendedAttribute(const std::string& path, const std::string& name, void* buffer,
                                               size_t size) {
    if (failGetExtendedAttribute && failGetExtendedAttribute(name, buffer == nullptr)) {
        errno = errnoToSet;
        return -1;
    }
    return LinuxFileSystem::getExtendedAttribute(path, name, buffer, size);
}

int FaultyFileSystem::listDirectory(const std::string& path, std::vector<platform::DirectoryEntry>* out) {
    return fails(failListDirectory, path) ? -1 : LinuxFileSystem::listDirectory(path, out);
}

UniqueFd FaultyFileSystem::openForReading(const std::string& path, uint64_t* size) {
    return fails(failOpen, path) ? UniqueFd() : LinuxFileSystem::openForReading(path, size);
}

ssize_t FaultyFileSystem::read(int fd, void* buffer, size_t size) {
    if (++reads == failReadNumber) {
        errno = errnoToSet;
        return -1;
    }
    return LinuxFileSystem::read(fd, buffer, size);
}

void FaultyFileSystem::adviseDone(int fd, off_t offset, off_t length) {
    doneAdvice.emplace_back(offset, length);
    LinuxFileSystem::adviseDone(fd, offset, length);
}

int FaultyFileSystem::writeFileAtomically(const std::string& path, std::span<const uint8_t> bytes,
                                          std::optional<uint32_t> mode) {
    return fails(failWrite, path) ? -1 : LinuxFileSystem::writeFileAtomically(path, bytes, mode);
}

}  // namespace qvl::testing
