// LinuxFileAttributesPort: FileAttributesPort over Linux system calls
// (statx, the *xattr calls that do not follow links, FS_IOC_*FLAGS,
// posix_fadvise). Every descriptor it opens is close-on-exec.
//
// Thread-safety: keeps no state; any thread may use it.
#pragma once

#include "platform/fileattrs/FileAttributesPort.h"

namespace qvl::platform {

// The port over Linux system calls.
class LinuxFileAttributesPort : public FileAttributesPort {
  public:
    static LinuxFileAttributesPort& sharedInstance();

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
    int listDirectory(const std::string& path, std::vector<DirectoryEntry>* out) override;
    int openForReading(const std::string& path, uint64_t* size) override;
    ssize_t read(int fd, void* buffer, size_t size) override;
    void adviseSequential(int fd) override;
    void adviseDone(int fd, off_t offset, off_t length) override;
    void prefetch(const std::string& path, off_t length) override;
    int close(int fd) override;
    int changeOwner(const std::string& path, uint32_t uid, uint32_t gid) override;
    int changeMode(const std::string& path, uint32_t mode) override;
    int setModificationTime(const std::string& path, const timespec& when) override;
    std::optional<std::string> userName(uint32_t uid) override;
    std::optional<std::string> groupName(uint32_t gid) override;
    std::optional<uint32_t> userID(const std::string& name) override;
    std::optional<uint32_t> groupID(const std::string& name) override;
};

}  // namespace qvl::platform
