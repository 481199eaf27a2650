#include "base/DescriptorIO.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace qvl {
namespace {

constexpr size_t kPiece = 1 << 16;

int lastError() {
    return errno != 0 ? errno : EIO;
}

}  // namespace

int readAll(int fd, uint64_t limit, std::vector<uint8_t>* out) {
    std::vector<uint8_t> bytes;
    // A regular file says how much is coming; the loop still reads to the
    // end, since the file may grow or shrink meanwhile.
    struct stat st {};
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        if (static_cast<uint64_t>(st.st_size) > limit) return EFBIG;
        bytes.reserve(static_cast<size_t>(st.st_size) + 1);
    }
    size_t done = 0;
    for (;;) {
        if (bytes.size() - done == 0) {
            if (done > limit) return EFBIG;
            // One byte past the limit is enough to tell that there is more;
            // within the room reserved for a regular file, one byte past its
            // size is enough to tell that it has ended (a whole piece would
            // move the bytes read so far to a larger buffer).
            const uint64_t room = limit - done;
            const size_t spare = bytes.capacity() - done;
            const size_t piece = spare > 0 && spare < kPiece ? spare : kPiece;
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
