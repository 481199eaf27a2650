// FileAttributesPort: the narrow file-system interface under file metadata,
// digests and directory manifests. Every call acts on the item itself and
// never follows a final symbolic link, except where a name says otherwise.
//
// The calls mirror the POSIX ones they wrap: -1 with errno set on failure.
// Extended attributes are the platform's: the `user.` namespace, named
// without the prefix; names of other namespaces are never listed, and writing
// a name writes `user.` + name. The data-protection class of an item lives in
// the attribute "trusted.ostrel.protection-class".
//
// Tests swap in a faulty port with ScopedFileAttributesPort; everything else
// uses FileAttributesPort::current(), the Linux port unless swapped.
//
// Thread-safety: the Linux port keeps no state and may be used from any
// thread. Swapping is for tests and must happen while no other thread uses
// the port.
#pragma once

#include <sys/types.h>
#include <time.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qvl::platform {

enum class ItemType : uint8_t {
    kUnknown,
    kRegular,
    kDirectory,
    kSymbolicLink,
    kSocket,
    kCharacterSpecial,
    kBlockSpecial,
    kFifo,
};

struct ItemStat {
    ItemType type = ItemType::kUnknown;
    uint32_t permissions = 0;  // set-user-ID, set-group-ID, sticky and access bits
    uint32_t uid = 0;
    uint32_t gid = 0;
    uint64_t size = 0;
    uint64_t linkCount = 0;
    uint64_t device = 0;
    uint64_t inode = 0;
    timespec modification{};
    std::optional<timespec> birth;  // only where the file system records one
    bool immutable = false;         // false where the file system has no such flag
};

struct DirectoryEntry {
    std::string name;
    ItemType type = ItemType::kUnknown;  // kUnknown when the directory did not say
};

class FileAttributesPort {
  public:
    // The attribute that holds an item's data-protection class.
    static constexpr const char* kProtectionClassAttribute = "trusted.ostrel.protection-class";
    // Longest protection class read back; longer values are not classes.
    static constexpr size_t kMaxProtectionClassLength = 255;

    virtual ~FileAttributesPort() = default;

    // The port in use.
    static FileAttributesPort& current();

    virtual int statItem(const std::string& path, ItemStat* out) = 0;
    // Like statItem, but a final symbolic link is followed.
    virtual int statFollowingLinks(const std::string& path, ItemStat* out) = 0;
    virtual int setImmutableFlag(const std::string& path, bool immutable) = 0;
    // The protection class, or nullopt when the item carries none.
    virtual std::optional<std::string> protectionClass(const std::string& path) = 0;
    virtual int setProtectionClass(const std::string& path, const std::string& protectionClass) = 0;

    // listxattr/getxattr/setxattr over the `user.` namespace, prefix removed.
    // A null buffer asks for the size.
    virtual ssize_t listExtendedAttributes(const std::string& path, char* buffer, size_t size) = 0;
    virtual ssize_t getExtendedAttribute(const std::string& path, const std::string& name, void* buffer,
                                         size_t size) = 0;
    virtual int setExtendedAttribute(const std::string& path, const std::string& name, const void* value,
                                     size_t size) = 0;

    virtual int readLink(const std::string& path, std::string* out) = 0;
    // Entries of a directory in the file system's order, without "." and "..".
    virtual int listDirectory(const std::string& path, std::vector<DirectoryEntry>* out) = 0;

    // Opens a regular file for reading (links followed), close-on-exec; any
    // other kind of item fails with EINVAL. `size` (may be null) receives the
    // file's size at opening.
    virtual int openForReading(const std::string& path, uint64_t* size) = 0;
    virtual ssize_t read(int fd, void* buffer, size_t size) = 0;
    // Advice that the file is read once from start to end, and that the
    // pages of [offset, offset + length) are no longer needed.
    virtual void adviseSequential(int fd) = 0;
    virtual void adviseDone(int fd, off_t offset, off_t length) = 0;
    // Asks the kernel to start reading the first `length` bytes of a regular
    // file that will be read soon, without waiting for them.
    virtual void prefetch(const std::string& path, off_t length) = 0;
    virtual int close(int fd) = 0;

    virtual int changeOwner(const std::string& path, uint32_t uid, uint32_t gid) = 0;  // lchown
    virtual int changeMode(const std::string& path, uint32_t mode) = 0;  // mode of the item, link included
    virtual int setModificationTime(const std::string& path, const timespec& when) = 0;

    // Account names and ids; nullopt when the system has no such account.
    virtual std::optional<std::string> userName(uint32_t uid) = 0;
    virtual std::optional<std::string> groupName(uint32_t gid) = 0;
    virtual std::optional<uint32_t> userID(const std::string& name) = 0;
    virtual std::optional<uint32_t> groupID(const std::string& name) = 0;
};

// Makes `port` the current port for its lifetime (tests only).
class ScopedFileAttributesPort {
  public:
    explicit ScopedFileAttributesPort(FileAttributesPort& port);
    ~ScopedFileAttributesPort();
    ScopedFileAttributesPort(const ScopedFileAttributesPort&) = delete;
    ScopedFileAttributesPort& operator=(const ScopedFileAttributesPort&) = delete;

  private:
    FileAttributesPort* previous_;
};

}  // namespace qvl::platform
