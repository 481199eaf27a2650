#include "base/DescriptorIO.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "base/Errno.h"

namespace qvl {
namespace {

constexpr size_t kPiece = 1 << 16;

// Past this size a buffer is worth backing with huge pages.
constexpr size_t kHugePageThreshold = 2u << 20;
constexpr uintptr_t kHugePage = 2u << 20;

}  // namespace

void adviseHugePages(void* start, size_t size) {
    if (size < kHugePageThreshold) return;
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(start) + kHugePage - 1) & ~(kHugePage - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(start) + size) & ~(kHugePage - 1);
    if (end > begin) ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

int readAll(int fd, uint64_t limit, std::vector<uint8_t>* out) {
    std::vector<uint8_t> bytes;
    // A regular file says how much is coming; the loop still reads to the
    // end, since the file may grow or shrink meanwhile.
    struct stat st {};
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        if (static_cast<uint64_t>(st.st_size) > limit) return EFBIG;
        bytes.reserve(static_cast<size_t>(st.st_size) + 1);
        adviseHugePages(bytes.data(), bytes.capacity());
    }
    size_t done = 0;
    for (;;) {
        if (bytes.size() - done == 0) {
            if (done > limit) return EFBIG;
            // One byte past the limit is enough to tell that there is more;
            // the room reserved for a regular file (its size and one byte
            // more, to tell that it has ended) is read in one call, and only
            // past it does the buffer grow by pieces.
            const uint64_t room = limit - done;
            const size_t spare = bytes.capacity() - done;
            const size_t piece = spare > 0 ? spare : kPiece;
            bytes.resize(done + (room >= piece ? piece : static_cast<size_t>(room) + 1));
        }
        const ssize_t n = ::read(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return lastError();
        }
        if (n == 0) break;
        done += static_cast<size_t>(n);
    }
    if (done > limit) return EFBIG;
    bytes.resize(done);
    *out = std::move(bytes);
    return 0;
}

int writeAll(int fd, std::span<const uint8_t> bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return lastError();
        }
        done += static_cast<size_t>(n);
    }
    return 0;
}

}  // namespace qvl
