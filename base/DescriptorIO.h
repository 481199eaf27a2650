// DescriptorIO: whole reads and writes through an open descriptor, the one
// place where short transfers and interrupted calls are dealt with. Every
// read of a whole file in the system goes through readAll, with a bound the
// caller chooses, so that no input can make us allocate without limit.
//
// Results are errno values: 0 for success.
//
// Thread-safety: reentrant; the descriptor is the caller's.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace qvl {

// Reads from `fd` until its end. EFBIG when it holds more than `limit`
// bytes; otherwise the errno of a failed read. `out` is replaced only on
// success.
int readAll(int fd, uint64_t limit, std::vector<uint8_t>* out);

// Writes every byte of `bytes`.
int writeAll(int fd, std::span<const uint8_t> bytes);

// Asks for huge pages for the untouched room of a large buffer (2 MiB or
// more), so that filling it costs one page fault per 2 MiB instead of one
// per 4 KiB. Only advice: where it is not taken, nothing changes.
void adviseHugePages(void* start, size_t size);

}  // namespace qvl
