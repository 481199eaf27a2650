// RawDisk: the data disk as the resize driver reaches it. On the device the
// data disk is a character (raw) device; on Linux a block device stands in for
// it: its logical sector size is the block size (BLKSSZGET) and its size in
// bytes (BLKGETSIZE64) over that the block count.
//
// The calls mirror the POSIX ones they wrap: -1 (or false, or nullopt) with
// errno set on failure. Descriptors are close-on-exec. A write-back open also
// takes a shared lock (flock LOCK_SH) that lasts until the descriptor is
// closed, so that a tool holding the disk exclusively is never written under.
//
// Every call is virtual so that tests can put in a disk of their own that
// fails where they want; sharedInstance() is the Linux one.
//
// Thread-safety: keeps no state; may be used from any thread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace qvl::platform {

class RawDisk {
  public:
    enum class Access { read, writeBack };

    virtual ~RawDisk() = default;

    static RawDisk& sharedInstance();

    virtual int open(const std::string& path, Access access);
    // Whether the open node is a block device; nullopt when fstat fails.
    virtual std::optional<bool> isBlockDevice(int fd);
    virtual bool blockSize(int fd, uint32_t* size);
    virtual bool blockCount(int fd, uint64_t* count);
    // Transfers the whole buffer unless the device ends or fails first, and
    // answers how many bytes moved (-1 when the first attempt failed).
    virtual ssize_t readAt(int fd, void* buffer, size_t size, uint64_t offset);
    virtual ssize_t writeAt(int fd, const void* buffer, size_t size, uint64_t offset);
    virtual void close(int fd);
    // Flushes every file system and device (sync(2)).
    virtual void syncAll();
};

}  // namespace qvl::platform
