#include "tools/plexactl/Image.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "storage/plexa_device.h"

namespace qvl::plexactl {

void complain(const char* format, ...) {
    std::fputs("plexactl: ", stderr);
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fputc('\n', stderr);
}

std::optional<Image> Image::open(const std::string& path, bool writable) {
    int fd = ::open(path.c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC);
    if (fd < 0) {
        complain("%s: cannot open: %s", path.c_str(), std::strerror(errno));
        return std::nullopt;
    }
    uint32_t blockSize = 0;
    uint64_t blocks = 0;
    if (!plexa::deviceBlockSize(fd, &blockSize) || !plexa::deviceBlockCount(fd, blockSize, &blocks)) {
        complain("%s: not a disk image or block device: %s", path.c_str(), std::strerror(errno));
        ::close(fd);
        return std::nullopt;
    }
    uint64_t mediaSize = 0;
    if (__builtin_mul_overflow(blocks, uint64_t(blockSize), &mediaSize)) {
        complain("%s: size out of range", path.c_str());
        ::close(fd);
        return std::nullopt;
    }
    return Image(path, fd, blockSize, mediaSize);
}

std::optional<Image> Image::create(const std::string& path, uint64_t size) {
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) {
        complain("%s: cannot create: %s", path.c_str(), std::strerror(errno));
        return std::nullopt;
    }
    if (ftruncate(fd, off_t(size)) != 0) {
        complain("%s: cannot make it %llu bytes: %s", path.c_str(), (unsigned long long)size, std::strerror(errno));
        ::close(fd);
        ::unlink(path.c_str());
        return std::nullopt;
    }
    return Image(path, fd, plexa::kImageBlockSize, size);
}

Image::Image(Image&& other) noexcept
    : path_(std::move(other.path_)),
      fd_(other.fd_),
      blockSize_(other.blockSize_),
      mediaSize_(other.mediaSize_) {
    other.fd_ = -1;
}

Image::~Image() {
    if (fd_ >= 0) ::close(fd_);
}

bool Image::read(uint64_t offset, uint8_t* buffer, size_t size, const char* what) const {
    size_t done = 0;
    while (done < size) {
        ssize_t n = pread(fd_, buffer + done, size - done, off_t(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            complain("%s: cannot read %s: %s", path_.c_str(), what, std::strerror(errno));
            return false;
        }
        if (n == 0) {
            complain("%s: too short to hold %s", path_.c_str(), what);
            return false;
        }
        done += size_t(n);
    }
    return true;
}

bool Image::write(uint64_t offset, const uint8_t* buffer, size_t size, const char* what) const {
    size_t done = 0;
    while (done < size) {
        ssize_t n = pwrite(fd_, buffer + done, size - done, off_t(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            complain("%s: cannot write %s: %s", path_.c_str(), what,
                     n < 0 ? std::strerror(errno) : "short write");
            return false;
        }
        done += size_t(n);
    }
    return true;
}

bool Image::sync() const {
    if (fsync(fd_) == 0) return true;
    complain("%s: cannot flush: %s", path_.c_str(), std::strerror(errno));
    return false;
}

}  // namespace qvl::plexactl
