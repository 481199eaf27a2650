#include "tests/support/FaultyFileSystem.h"

#include <unistd.h>

#include <cerrno>

namespace qvl::testing {
namespace {

bool fails(const FaultyFileSystem::Hook& hook, const std::string& pathOrName, bool sizeQuery = false) {
    if (!hook || !hook(pathOrName, sizeQuery)) return false;
    errno = EIO;
    return true;
}

// The path an open descriptor reaches, and a name in it when given.
std::string pathOf(int fd, const std::string& name = std::string()) {
    char target[4096];
    const ssize_t n = ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof(target));
    const std::string path = n > 0 ? std::string(target, static_cast<size_t>(n)) : std::string();
    return name.empty() ? path : path + "/" + name;
}

}  // namespace

int FaultyFileSystem::statItemAt(int folderFd, const std::string& name, platform::ItemStat* out) {
    return fails(failStat, pathOf(folderFd, name)) ? -1 : LinuxFileSystem::statItemAt(folderFd, name, out);
}

int FaultyFileSystem::typeAndSizeAt(int folderFd, const std::string& name, platform::ItemType* type,
                                    uint64_t* size) {
    if (fails(failStat, pathOf(folderFd, name))) return -1;
    return LinuxFileSystem::typeAndSizeAt(folderFd, name, type, size);
}

int FaultyFileSystem::statOpenItem(int fd, platform::ItemStat* out) {
    return fails(failStat, pathOf(fd)) ? -1 : LinuxFileSystem::statOpenItem(fd, out);
}

int FaultyFileSystem::listFolder(int folderFd, std::vector<platform::DirectoryEntry>* out) {
    return fails(failListDirectory, pathOf(folderFd)) ? -1 : LinuxFileSystem::listFolder(folderFd, out);
}

int FaultyFileSystem::statItem(const std::string& path, platform::ItemStat* out) {
    return fails(failStat, path) ? -1 : LinuxFileSystem::statItem(path, out);
}

ssize_t FaultyFileSystem::listExtendedAttributes(const std::string& path, char* buffer, size_t size) {
    if (fails(failListExtendedAttributes, path, buffer == nullptr)) return -1;
    return LinuxFileSystem::listExtendedAttributes(path, buffer, size);
}

ssize_t FaultyFileSystem::getExtendedAttribute(const std::string& path, const std::string& name, void* buffer,
                                               size_t size) {
    if (fails(failGetExtendedAttribute, name, buffer == nullptr)) return -1;
    return LinuxFileSystem::getExtendedAttribute(path, name, buffer, size);
}

int FaultyFileSystem::listDirectory(const std::string& path, std::vector<platform::DirectoryEntry>* out) {
    return fails(failListDirectory, path) ? -1 : LinuxFileSystem::listDirectory(path, out);
}

UniqueFd FaultyFileSystem::openForReading(const std::string& path, uint64_t* size) {
    return fails(failOpen, path) ? UniqueFd() : LinuxFileSystem::openForReading(path, size);
}

ssize_t FaultyFileSystem::read(int fd, void* buffer, size_t size) {
    if (++reads != failReadNumber) return LinuxFileSystem::read(fd, buffer, size);
    errno = EIO;
    return -1;
}

int FaultyFileSystem::writeFileAtomically(const std::string& path, std::span<const uint8_t> bytes,
                                          std::optional<uint32_t> mode) {
    if (writeError == 0) return LinuxFileSystem::writeFileAtomically(path, bytes, mode);
    errno = writeError;
    return -1;
}

int FaultyFileSystem::writeFileAtomicallyFrom(const std::string& path, const ContentProducer& produce,
                                              std::optional<uint32_t> mode) {
    if (writeError == 0) return LinuxFileSystem::writeFileAtomicallyFrom(path, produce, mode);
    const int err = produce([](std::span<const uint8_t>) { return 0; });
    errno = err != 0 ? err : writeError;
    return -1;
}

}  // namespace qvl::testing
