// File digests: the SHA-1 of a file's bytes as carried in manifest records,
// a stand-alone digest routine that reports its progress, and the text form
// of a digest.
//
// fileHash reads 256 KiB at a time with one buffer and tells the kernel not
// to keep the pages it has read of a file larger than that, so that digesting
// a whole partition does not flood the page cache; a smaller file is read
// with one call. createFileDigest reads 64 KiB at a time.
//
// Files are read through the FileSystem given.
//
// Thread-safety: every function is reentrant; the SHA-1 implementation is
// looked up once, thread-safely.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "plist/PlistValue.h"

namespace qvl {

namespace platform {
class FileSystem;
}

inline constexpr size_t kQVLDigestLength = 20;
inline constexpr size_t kQVLFileHashPieceSize = 262144;
inline constexpr size_t kQVLFileDigestBufferSize = 65536;

// Called with (context, fraction done, unused value that is always -1.0);
// a non-zero answer stops the digest.
using digestProgressHandler = int (*)(void* context, float fraction, float unused);

// The 20-byte SHA-1 of the regular file at `path`; nullopt, logged, when it
// cannot be opened or read.
std::optional<plist::Data> fileHash(const std::string& path, platform::FileSystem& files);

// The same for a file already open at offset 0, whose size at opening was
// `size`; `path` names it in log lines. With `fromDisk`, it is set to
// whether the first bytes had to be waited for (not yet in memory).
std::optional<plist::Data> fileHashOfOpenFile(int fd, uint64_t size, const std::string& path,
                                              platform::FileSystem& files, bool* fromDisk = nullptr);

// Folders have no digest: always nullopt.
std::optional<plist::Data> directoryHash(const std::string& path);

// The digest of the file at `path` with the named algorithm ("SHA-1" is the
// only one). `expectedSize` (0 when unknown) scales the fractions given to
// `handler`: 0.0 first, one per piece read, 1.0 last.
std::optional<plist::Data> createFileDigest(const std::string& path, const std::string& algorithm,
                                            int64_t expectedSize, digestProgressHandler handler,
                                            void* context, platform::FileSystem& files);

// 40 lower-case hexadecimal digits; nullopt, logged, when `digest` is not 20 bytes.
std::optional<std::string> createDigestHexString(const plist::Data& digest);

}  // namespace qvl
