// FileSystem: the one door to the host's files, folders, links, owners, modes
// and attributes. Everything above platform/ reaches the file system through
// this interface, handed in at construction (a Services struct or a
// constructor argument), so a test can put in a faulty one;
// LinuxFileSystem::sharedInstance() is the real one.
//
// Conventions, as for the POSIX calls underneath: a call answering int gives
// 0 for success and -1 with errno set on failure; a call answering a UniqueFd
// gives an invalid one with errno set. Every descriptor is close-on-exec.
// Calls act on the item itself and never follow a final symbolic link,
// except where a name or an option says otherwise.
//
// Extended attributes are the platform's: the `user.` namespace, named
// without the prefix; names of other namespaces are never listed, and writing
// a name writes `user.` + name. The data-protection class of an item lives in
// the attribute "trusted.ostrel.protection-class".
//
// For folders that another user can write:
//   - openRegularFile opens without following a link at the name and without
//     blocking (a fifo or a device there can't stall the caller), then checks
//     that a regular file was opened (and, if asked, one of this process's
//     user with no other hard link);
//   - writeFileAtomically replaces a file whole or not at all: a new
//     temporary file (O_EXCL) in the same folder, fsync, rename; the name
//     itself is never followed, so a link planted there is replaced, not
//     written through;
//   - openFolderBeneath walks a relative path below a base folder one name at
//     a time without following any link and refuses "..", so a client's path
//     can't lead out of the base; the *At calls then work on one name of the
//     folder it opened;
//   - openItemBeneath does the same for any item below an open folder and
//     gives a path to it that later renames can't redirect.
//
// Thread-safety: the Linux file system keeps no state and may be used from
// any thread.
#pragma once

#include <fcntl.h>
#include <sys/types.h>
#include <time.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/FolderAccess.h"
#include "base/UniqueFd.h"

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

// An item below a folder, reached by openItemBeneath: `folder` holds the
// folder that contains it, and `path` names the item's entry in that very
// folder for the path calls of this interface (valid while `folder` is held).
struct ItemBeneath {
    UniqueFd folder;
    std::string path;
};

struct DirectoryEntry {
    std::string name;
    ItemType type = ItemType::kUnknown;  // kUnknown when the directory did not say
};

// How openRegularFile opens (see base/FolderAccess.h): never blocking,
// refusing anything but a regular file, and a link at the name unless asked.
using RegularFileOptions = qvl::RegularFileOptions;

class FileSystem {
  public:
    // The attribute that holds an item's data-protection class.
    static constexpr const char* kProtectionClassAttribute = "trusted.ostrel.protection-class";
    // Longest protection class read back; longer values are not classes.
    static constexpr size_t kMaxProtectionClassLength = 255;

    virtual ~FileSystem() = default;

    // ---- Items and their attributes.
    virtual int statItem(const std::string& path, ItemStat* out) = 0;
    // Like statItem, but a final symbolic link is followed.
    virtual int statFollowingLinks(const std::string& path, ItemStat* out) = 0;
    virtual int setImmutableFlag(const std::string& path, bool immutable) = 0;
    // The protection class, or nullopt when the item carries none.
    virtual std::optional<std::string> protectionClass(const std::string& path) = 0;
    virtual int setProtectionClass(const std::string& path, const std::string& protectionClass) = 0;
    // listxattr/getxattr/setxattr over the `user.` namespace, prefix removed.
    // A null buffer asks for the size; these answer a size or -1.
    virtual ssize_t listExtendedAttributes(const std::string& path, char* buffer, size_t size) = 0;
    virtual ssize_t getExtendedAttribute(const std::string& path, const std::string& name, void* buffer,
                                         size_t size) = 0;
    virtual int setExtendedAttribute(const std::string& path, const std::string& name, const void* value,
                                     size_t size) = 0;
    virtual int readLink(const std::string& path, std::string* out) = 0;
    virtual int changeOwner(const std::string& path, uint32_t uid, uint32_t gid) = 0;  // lchown
    // The mode of the item itself; a link has none (EOPNOTSUPP).
    virtual int changeMode(const std::string& path, uint32_t mode) = 0;
    virtual int setModificationTime(const std::string& path, const timespec& when) = 0;
    // The path with every link resolved (realpath(3)).
    virtual int resolvedPath(const std::string& path, std::string* out) = 0;

    // ---- Folders and trees.
    // Entries of a directory in the file system's order, without "." and "..".
    virtual int listDirectory(const std::string& path, std::vector<DirectoryEntry>* out) = 0;

    // ---- Folders by descriptor, for work in folders that another user can
    // write: each call takes an open folder and one name in it, never follows
    // a link at that name and can't be redirected between two calls.
    // Opens a folder; a link at the path is refused (ELOOP).
    virtual UniqueFd openFolder(const std::string& path) = 0;
    // Opens the folder at `relative` below the folder `base` (whose own path
    // is trusted): names are taken one at a time, "." and empty ones skipped,
    // ".." refused (EXDEV), a link refused (ELOOP). With `create`, missing
    // folders are made with `mode` on the way.
    virtual UniqueFd openFolderBeneath(const std::string& base, const std::string& relative, bool create,
                                       uint32_t mode) = 0;
    // The folder `name`; a link is ELOOP. With `create`, made with `mode` when missing.
    virtual UniqueFd openFolderAt(int folderFd, const std::string& name, bool create, uint32_t mode) = 0;
    virtual int statItemAt(int folderFd, const std::string& name, ItemStat* out) = 0;
    // Reaches the item at `relative` below the open folder `baseFd`: the
    // folders on the way are opened one name at a time, "." and empty names
    // skipped, ".." refused (EXDEV), a link refused (ELOOP); the last name
    // is not opened at all, so a link there is the item itself. A relative
    // path of no names is the base folder itself.
    virtual int openItemBeneath(int baseFd, const std::string& relative, ItemBeneath* out) = 0;
    virtual int listFolder(int folderFd, std::vector<DirectoryEntry>* out) = 0;
    // The owner of the entry `name` of an open folder; a link is changed
    // itself, never its target. Anything but a folder with another hard
    // link is refused (EMLINK): its other name may lie anywhere on the volume.
    virtual int changeOwnerAt(int folderFd, const std::string& name, uint32_t uid, uint32_t gid) = 0;
    // The mode of the entry itself, a folder or a regular file with no other
    // hard link (EMLINK); a link has none (EOPNOTSUPP), anything else is
    // EINVAL. Never blocks on a fifo.
    virtual int changeModeAt(int folderFd, const std::string& name, uint32_t mode) = 0;
    // Removes the entry with everything in it, on its own file system only,
    // at any depth (see base/FolderAccess.h).
    virtual int removeTreeAt(int folderFd, const std::string& name) = 0;
    // Creates `toName` as a hard link of `fromName`; a folder is linked as a
    // new folder of links (see FileTree.h). All or nothing.
    virtual int linkTreeAt(int fromFolderFd, const std::string& fromName, int toFolderFd,
                           const std::string& toName) = 0;
    // renameat(2): with `replace`, a file or an empty folder at the new name
    // is replaced; without, nothing there ever is (EEXIST).
    virtual int moveItemAt(int fromFolderFd, const std::string& fromName, int toFolderFd,
                           const std::string& toName, bool replace) = 0;

    // ---- Files.
    virtual UniqueFd openRegularFile(const std::string& path, const RegularFileOptions& options) = 0;
    // The whole content of a regular file opened with `options`; EFBIG when
    // it holds more than `limit` bytes. `out` is replaced only on success.
    virtual int readFile(const std::string& path, uint64_t limit, std::vector<uint8_t>* out,
                         const RegularFileOptions& options) = 0;
    // Replaces `path` with `bytes`, whole or not at all. `mode` is the new
    // file's; without one, a regular file at the name keeps its mode (looked
    // at without following a link) and a new one gets 0644.
    virtual int writeFileAtomically(const std::string& path, std::span<const uint8_t> bytes,
                                    std::optional<uint32_t> mode) = 0;
    // Takes the bytes of a file being written, in order; answers 0 or an
    // errno value.
    using ByteSink = std::function<int(std::span<const uint8_t>)>;
    using ContentProducer = std::function<int(const ByteSink&)>;
    // The same for content made while the file is written, so that a large
    // one is never held whole: `produce` hands the bytes to the sink it is
    // given and answers 0, or an errno value that abandons the new file (the
    // old one stays; that value is the error). This default gathers the
    // bytes and writes them at once.
    virtual int writeFileAtomicallyFrom(const std::string& path, const ContentProducer& produce,
                                        std::optional<uint32_t> mode) {
        std::vector<uint8_t> bytes;
        const int err = produce([&](std::span<const uint8_t> chunk) {
            bytes.insert(bytes.end(), chunk.begin(), chunk.end());
            return 0;
        });
        if (err != 0) {
            errno = err;
            return -1;
        }
        return writeFileAtomically(path, bytes, mode);
    }
    // For digests: a regular file opened for reading (links followed,
    // without changing its access time where allowed); `size` (may be null)
    // receives its size at opening.
    virtual UniqueFd openForReading(const std::string& path, uint64_t* size) = 0;
    virtual ssize_t read(int fd, void* buffer, size_t size) = 0;
    // The same, but -1 with EAGAIN at once where the first bytes would have
    // to come from the disk (or where the file system can't tell): a walk
    // learns so whether fetching ahead pays.
    virtual ssize_t readWithoutWaiting(int fd, void* buffer, size_t size) = 0;
    // Advice that the file is read once from start to end: read far ahead,
    // and let the pages read from the disk go before the ones in use. Pages
    // already in memory stay: a walk must not evict what others keep there.
    virtual void adviseReadOnce(int fd) = 0;
    // Asks the kernel to start reading the first `length` bytes of a regular
    // file that will be read soon, without waiting for them.
    virtual void prefetch(const std::string& path, off_t length) = 0;

    // ---- Walks: items named relative to an open folder, so that a walk
    // does not resolve each item's whole path again, and attributes read
    // through a descriptor already open for the content.
    // Only the type and size, for summing sizes ahead of a walk.
    virtual int typeAndSizeAt(int folderFd, const std::string& name, ItemType* type, uint64_t* size) = 0;
    // Opens the regular file or folder `name` for reading (never following a
    // link, never blocking, access times kept where allowed); any other type
    // is EINVAL, and an item of another type at the name fails the open.
    virtual UniqueFd openItemAt(int folderFd, const std::string& name, ItemType type) = 0;
    virtual int statOpenItem(int fd, ItemStat* out) = 0;
    virtual std::optional<std::string> protectionClassOf(int fd) = 0;
    // The `user.` attribute names of an open item, prefix removed, each
    // followed by a NUL; `names` is replaced only on success.
    virtual int extendedAttributeNamesOf(int fd, std::string* names) = 0;
    // Both of the above from one look at the item's name list: the class is
    // read only when the list holds its attribute (a process that may not
    // list it may not read it either). `protectionClass` is set even when
    // the names can't be listed (-1).
    virtual int extendedAttributeNamesAndProtectionClassOf(int fd, std::string* names,
                                                           std::optional<std::string>* protectionClass) = 0;
    // One attribute's value; E2BIG when it holds more than `limit` bytes.
    virtual int extendedAttributeOf(int fd, const std::string& name, size_t limit,
                                    std::vector<uint8_t>* value) = 0;
    virtual void prefetchAt(int folderFd, const std::string& name, off_t length) = 0;
    // Opens the regular file `name` as openItemAt does and asks the kernel
    // to start reading its first `length` bytes; for a walk that reads the
    // file a little later through the same descriptor.
    virtual UniqueFd openAndPrefetchAt(int folderFd, const std::string& name, off_t length) = 0;

    // ---- Accounts: names and ids; nullopt when the system has no such account.
    virtual std::optional<std::string> userName(uint32_t uid) = 0;
    virtual std::optional<std::string> groupName(uint32_t gid) = 0;
    virtual std::optional<uint32_t> userID(const std::string& name) = 0;
    virtual std::optional<uint32_t> groupID(const std::string& name) = 0;
};

}  // namespace qvl::platform
