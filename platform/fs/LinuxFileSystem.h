// LinuxFileSystem: FileSystem over Linux system calls (statx, the *xattr
// calls that do not follow links, FS_IOC_*FLAGS, posix_fadvise, the *at()
// calls over folder descriptors). The calls are virtual so that a test can
// derive a file system that fails one of them.
//
// Thread-safety: keeps no state; any thread may use it.
#pragma once

#include "platform/fs/FileSystem.h"

namespace qvl::platform {

class LinuxFileSystem : public FileSystem {
  public:
    static LinuxFileSystem& sharedInstance();

    int statItem(const std::string& path, ItemStat* out) override;
    int statFollowingLinks(const std::string& path, ItemStat* out) override;
    int setImmutableFlag(const std::string& path, bool immutable) override;
    std::optional<std::string> protectionClass(const std::string& path) override;
    int setProtectionClass(const std::string& path, const std::string& protectionClass) override;
    ssize_t listExtendedAttributes(const std::string& path, char* buffer, size_t size) override;
    ssize_t getExtendedAttribute(const std::string& path, const std::string& name, void* buffer,
                                 size_t size) override;
    int setExtendedAttribute(const std::string& path, const std::string& name, const void* value,
                             size_t size) override;
    int readLink(const std::string& path, std::string* out) override;
    int changeOwner(const std::string& path, uint32_t uid, uint32_t gid) override;
    int changeMode(const std::string& path, uint32_t mode) override;
    int setModificationTime(const std::string& path, const timespec& when) override;
    int resolvedPath(const std::string& path, std::string* out) override;

    int listDirectory(const std::string& path, std::vector<DirectoryEntry>* out) override;

    UniqueFd openFolder(const std::string& path) override;
    UniqueFd openFolderBeneath(const std::string& base, const std::string& relative, bool create,
                               uint32_t mode) override;
    UniqueFd openFolderAt(int folderFd, const std::string& name, bool create, uint32_t mode) override;
    int statItemAt(int folderFd, const std::string& name, ItemStat* out) override;
    int openItemBeneath(int baseFd, const std::string& relative, ItemBeneath* out) override;
    int listFolder(int folderFd, std::vector<DirectoryEntry>* out) override;
    int changeOwnerAt(int folderFd, const std::string& name, uint32_t uid, uint32_t gid) override;
    int changeModeAt(int folderFd, const std::string& name, uint32_t mode) override;
    int removeTreeAt(int folderFd, const std::string& name) override;
    int linkTreeAt(int fromFolderFd, const std::string& fromName, int toFolderFd,
                   const std::string& toName) override;
    int moveItemAt(int fromFolderFd, const std::string& fromName, int toFolderFd, const std::string& toName,
                   bool replace) override;

    UniqueFd openRegularFile(const std::string& path, const RegularFileOptions& options) override;
    int readFile(const std::string& path, uint64_t limit, std::vector<uint8_t>* out,
                 const RegularFileOptions& options) override;
    int writeFileAtomically(const std::string& path, std::span<const uint8_t> bytes,
                            std::optional<uint32_t> mode) override;
    int writeFileAtomicallyFrom(const std::string& path, const ContentProducer& produce,
                                std::optional<uint32_t> mode) override;
    UniqueFd openForReading(const std::string& path, uint64_t* size) override;
    ssize_t read(int fd, void* buffer, size_t size) override;
    ssize_t readWithoutWaiting(int fd, void* buffer, size_t size) override;
    void adviseReadOnce(int fd) override;
    void prefetch(const std::string& path, off_t length) override;

    int typeAndSizeAt(int folderFd, const std::string& name, ItemType* type, uint64_t* size) override;
    UniqueFd openItemAt(int folderFd, const std::string& name, ItemType type) override;
    int statOpenItem(int fd, ItemStat* out) override;
    std::optional<std::string> protectionClassOf(int fd) override;
    int extendedAttributeNamesOf(int fd, std::string* names) override;
    int extendedAttributeNamesAndProtectionClassOf(int fd, std::string* names,
                                                   std::optional<std::string>* protectionClass) override;
    int extendedAttributeOf(int fd, const std::string& name, size_t limit,
                            std::vector<uint8_t>* value) override;
    void prefetchAt(int folderFd, const std::string& name, off_t length) override;
    UniqueFd openAndPrefetchAt(int folderFd, const std::string& name, off_t length) override;

    std::optional<std::string> userName(uint32_t uid) override;
    std::optional<std::string> groupName(uint32_t gid) override;
    std::optional<uint32_t> userID(const std::string& name) override;
    std::optional<uint32_t> groupID(const std::string& name) override;
};

}  // namespace qvl::platform
