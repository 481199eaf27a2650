// A disk image or block device opened by plexactl: its descriptor (closed on
// destruction), its block size and size as the volume library sees them, and
// exact reads and writes. Errors are printed once, as one "plexactl: " line.
// One Image per thread; not shared.
#ifndef QVL_TOOLS_PLEXACTL_IMAGE_H
#define QVL_TOOLS_PLEXACTL_IMAGE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace qvl::plexactl {

// Prints "plexactl: " + the formatted message and a newline on standard error.
__attribute__((format(printf, 1, 2))) void complain(const char* format, ...);

class Image {
  public:
    static std::optional<Image> open(const std::string& path, bool writable);
    // A new image file of `size` bytes, all zero; an existing file is never
    // replaced.
    static std::optional<Image> create(const std::string& path, uint64_t size);

    Image(Image&& other) noexcept;
    Image& operator=(Image&&) = delete;
    Image(const Image&) = delete;
    ~Image();

    const std::string& path() const { return path_; }
    int fd() const { return fd_; }
    uint32_t blockSize() const { return blockSize_; }
    uint64_t mediaSize() const { return mediaSize_; }

    // False (with a message naming `what`) unless all `size` bytes were
    // transferred.
    bool read(uint64_t offset, uint8_t* buffer, size_t size, const char* what) const;
    bool write(uint64_t offset, const uint8_t* buffer, size_t size, const char* what) const;
    // Flushes written data to the medium.
    bool sync() const;

  private:
    Image(std::string path, int fd, uint32_t blockSize, uint64_t mediaSize)
        : path_(std::move(path)), fd_(fd), blockSize_(blockSize), mediaSize_(mediaSize) {}

    std::string path_;
    int fd_ = -1;
    uint32_t blockSize_ = 0;
    uint64_t mediaSize_ = 0;
};

}  // namespace qvl::plexactl

#endif  // QVL_TOOLS_PLEXACTL_IMAGE_H
