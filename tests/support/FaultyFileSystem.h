// FaultyFileSystem: the Linux file system with hooks, for tests of how the
// layers above meet a failing call. A hook that is set is asked first and,
// when it answers true, the call fails with EIO.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "platform/fs/LinuxFileSystem.h"

namespace qvl::testing {

class FaultyFileSystem : public platform::LinuxFileSystem {
  public:
    using Hook = std::function<bool(const std::string& pathOrName, bool sizeQuery)>;
    Hook failStat, failListDirectory, failOpen;
    Hook failListExtendedAttributes, failGetExtendedAttribute;  // told whether the size is asked
    int failReadNumber = 0;  // fails the n-th read (counting from 1) when set
    int writeError = 0;      // when set, writeFileAtomically(From) fails with it and writes nothing
    int reads = 0;

    // Calls on an open folder or item are hooked by the path they reach.
    int statItem(const std::string& path, platform::ItemStat* out) override;
    int statItemAt(int folderFd, const std::string& name, platform::ItemStat* out) override;
    int typeAndSizeAt(int folderFd, const std::string& name, platform::ItemType* type,
                      uint64_t* size) override;
    int statOpenItem(int fd, platform::ItemStat* out) override;
    int listFolder(int folderFd, std::vector<platform::DirectoryEntry>* out) override;
    ssize_t listExtendedAttributes(const std::string& path, char* buffer, size_t size) override;
    ssize_t getExtendedAttribute(const std::string& path, const std::string& name, void* buffer,
                                 size_t size) override;
    int listDirectory(const std::string& path, std::vector<platform::DirectoryEntry>* out) override;
    UniqueFd openForReading(const std::string& path, uint64_t* size) override;
    ssize_t read(int fd, void* buffer, size_t size) override;
    int writeFileAtomically(const std::string& path, std::span<const uint8_t> bytes,
                            std::optional<uint32_t> mode) override;
    // With writeError set, the content is still made (and dropped).
    int writeFileAtomicallyFrom(const std::string& path, const ContentProducer& produce,
                                std::optional<uint32_t> mode) override;
};

}  // namespace qvl::testing
