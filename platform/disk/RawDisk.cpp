#include "platform/disk/RawDisk.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace qvl::platform {

namespace {

template <class Transfer>
ssize_t transferAll(Transfer transfer, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t n = transfer(done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return done ? ssize_t(done) : -1;
        if (n == 0) break;
        done += size_t(n);
    }
    return ssize_t(done);
}

}  // namespace

RawDisk& RawDisk::sharedInstance() {
    static RawDisk disk;
    return disk;
}

int RawDisk::open(const std::string& path, Access access) {
    const int fd = ::open(path.c_str(), (access == Access::writeBack ? O_RDWR : O_RDONLY) | O_CLOEXEC);
    if (fd < 0 || access == Access::read) return fd;
    // Linux lets a read-only block device be opened for writing and refuses
    // only the writes; the device refuses the open, and so does this layer.
    int readOnly = 0;
    if (ioctl(fd, BLKROGET, &readOnly) == 0 && readOnly) {
        ::close(fd);
        errno = EROFS;
        return -1;
    }
    // Not waiting: a tool that holds the disk exclusively may hold it for
    // long, and the helper must answer its client rather than hang. Such an
    // open fails (EWOULDBLOCK) and the caller writes nothing.
    if (flock(fd, LOCK_SH | LOCK_NB) != 0) {
        const int saved = errno;
        ::close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

std::optional<bool> RawDisk::isBlockDevice(int fd) {
    struct stat st;
    if (fstat(fd, &st) != 0) return std::nullopt;
    return S_ISBLK(st.st_mode);
}

bool RawDisk::blockSize(int fd, uint32_t* size) {
    int sectorSize = 0;
    if (ioctl(fd, BLKSSZGET, &sectorSize) != 0) return false;
    if (sectorSize <= 0) {
        errno = EINVAL;
        return false;
    }
    *size = uint32_t(sectorSize);
    return true;
}

bool RawDisk::blockCount(int fd, uint64_t* count) {
    uint32_t size = 0;
    uint64_t bytes = 0;
    if (!blockSize(fd, &size) || ioctl(fd, BLKGETSIZE64, &bytes) != 0) return false;
    *count = bytes / size;
    return true;
}

ssize_t RawDisk::readAt(int fd, void* buffer, size_t size, uint64_t offset) {
    auto* bytes = static_cast<uint8_t*>(buffer);
    return transferAll([&](size_t done) { return pread(fd, bytes + done, size - done, off_t(offset + done)); },
                       size);
}

ssize_t RawDisk::writeAt(int fd, const void* buffer, size_t size, uint64_t offset) {
    const auto* bytes = static_cast<const uint8_t*>(buffer);
    return transferAll(
        [&](size_t done) { return pwrite(fd, bytes + done, size - done, off_t(offset + done)); }, size);
}

void RawDisk::close(int fd) {
    if (fd >= 0) ::close(fd);
}

void RawDisk::syncAll() {
    sync();
}

}  // namespace qvl::platform
