// The volume library's one window on the host: the block size and block count
// of an open disk device or disk image. Kept behind this narrow interface so
// the rest of the library is plain memory work. Stateless; thread-safe.
#ifndef QVL_STORAGE_PLEXA_DEVICE_H
#define QVL_STORAGE_PLEXA_DEVICE_H

#include <cstdint>

namespace qvl::plexa {

// Images are addressed in blocks of this size, as the device would be.
constexpr uint32_t kImageBlockSize = 4096;

// A block device answers with its logical sector size; a regular file with
// kImageBlockSize. Anything else fails (errno tells why).
bool deviceBlockSize(int fd, uint32_t* blockSize);

// Whole blocks of `blockSize` on the device or image.
bool deviceBlockCount(int fd, uint32_t blockSize, uint64_t* blockCount);

}  // namespace qvl::plexa

#endif  // QVL_STORAGE_PLEXA_DEVICE_H
