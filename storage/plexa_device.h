// The volume library's one window on the host: the block size and block count
// of an open disk device or disk image, reads from it, and the kernel's random
// source. Kept behind this narrow interface so the rest of the library is
// plain memory work. Stateless; thread-safe.
#ifndef QVL_STORAGE_PLEXA_DEVICE_H
#define QVL_STORAGE_PLEXA_DEVICE_H

#include <cstddef>
#include <cstdint>

namespace qvl::plexa {

// Images are addressed in blocks of this size, as the device would be.
constexpr uint32_t kImageBlockSize = 4096;

// A block device answers with its logical sector size; a regular file with
// kImageBlockSize. Anything else fails (errno tells why).
bool deviceBlockSize(int fd, uint32_t* blockSize);

// Whole blocks of `blockSize` on the device or image.
bool deviceBlockCount(int fd, uint32_t blockSize, uint64_t* blockCount);

// Reads `size` bytes at `offset`; answers how many arrived, fewer only when
// the device ends or fails first.
size_t deviceRead(int fd, uint8_t* buffer, size_t size, uint64_t offset);

// Fills `out` from the kernel's random source; false when it fails.
bool randomBytes(uint8_t* out, size_t size);

}  // namespace qvl::plexa

#endif  // QVL_STORAGE_PLEXA_DEVICE_H
