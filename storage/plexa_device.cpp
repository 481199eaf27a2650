#include "storage/plexa_device.h"

#include <linux/fs.h>
#include <stddef.h>  // size_t, used by the BLK* request numbers
#include <sys/ioctl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace qvl::plexa {

bool deviceBlockSize(int fd, uint32_t* blockSize) {
    struct stat st;
    if (fstat(fd, &st) != 0) return false;
    if (S_ISREG(st.st_mode)) {
        *blockSize = kImageBlockSize;
        return true;
    }
    int size = 0;
    if (!S_ISBLK(st.st_mode)) {
        errno = ENOTBLK;
        return false;
    }
    if (ioctl(fd, BLKSSZGET, &size) != 0) return false;
    if (size <= 0) {
        errno = EINVAL;
        return false;
    }
    *blockSize = uint32_t(size);
    return true;
}

bool deviceBlockCount(int fd, uint32_t blockSize, uint64_t* blockCount) {
    if (blockSize == 0) {
        errno = EINVAL;
        return false;
    }
    struct stat st;
    if (fstat(fd, &st) != 0) return false;
    uint64_t bytes = 0;
    if (S_ISREG(st.st_mode)) {
        bytes = uint64_t(st.st_size);
    } else if (!S_ISBLK(st.st_mode)) {
        errno = ENOTBLK;
        return false;
    } else if (ioctl(fd, BLKGETSIZE64, &bytes) != 0) {
        return false;
    }
    *blockCount = bytes / blockSize;
    return true;
}

size_t deviceRead(int fd, uint8_t* buffer, size_t size, uint64_t offset) {
    size_t done = 0;
    while (done < size) {
        ssize_t n = pread(fd, buffer + done, size - done, off_t(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += size_t(n);
    }
    return done;
}

bool randomBytes(uint8_t* out, size_t size) {
    size_t got = 0;
    while (got < size) {
        ssize_t n = getrandom(out + got, size - got, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        got += size_t(n);
    }
    return true;
}

}  // namespace qvl::plexa
