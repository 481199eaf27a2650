// Random headers over random geometries through the check, the repair and the
// chunk lookup. Beyond memory safety it holds the repair to two promises: a
// successful repair leaves nothing for a second repair to do, and a header
// that passes the check with its partitions in address order is not touched.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "fuzz/plexa/fuzz_quiet.h"
#include "storage/plexa.h"
#include "storage/plexa_format.h"

using namespace qvl::plexa;

namespace {

struct Input {
    const uint8_t* data;
    size_t size;
    uint64_t take(size_t n) {
        uint64_t v = 0;
        for (size_t i = 0; i < n && size; i++, data++, size--) v |= uint64_t(*data) << (8 * i);
        return v;
    }
};

bool partitionsInAddressOrder(const uint8_t* h) {
    uint32_t count = loadLE32(h + header::kPartitionCount);
    for (uint32_t p = 1; p < count && p < header::kMaxPartitions; p++)
        if (loadLE64(header::record(h, p) + header::kRecordStart) <
            loadLE64(header::record(h, p - 1) + header::kRecordEnd))
            return false;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    silenceLibraryMessages();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in{data, size};
    const uint64_t mediaSize = in.take(6);                    // up to 256 TiB, past every limit
    const uint32_t rawBlockSize = uint32_t(in.take(2)) << 2;  // any size, rejected or not
    const unsigned selector = unsigned(in.take(1)) & 3;
    const uint32_t blockSize = selector == 3 ? rawBlockSize : 4096u << selector;
    const int strict = int(in.take(1) & 1);
    const uint64_t probe = in.take(8);

    PlexaMediaProperties g{};
    if (plexaInitMediaGeometry(&g, mediaSize, blockSize) != 0) {
        // A record the library didn't make must be refused, not trusted.
        g.chunkShift = uint32_t(probe);
        g.chunkCount = uint32_t(probe >> 32);
        uint8_t h[header::kSize] = {};
        if (plexaCheckHeader(&g, h) == 0 || plexaRepairHeader(&g, h, strict) == 0) abort();
        return 0;
    }

    // Exactly 4096 bytes on the heap, so any read past the header is caught.
    auto h = std::make_unique<uint8_t[]>(header::kSize);
    if (in.size >= header::kSize) {
        std::memcpy(h.get(), in.data, header::kSize);
    } else {
        // Short inputs patch a fresh header, to reach the deeper checks.
        if (plexaCreateHeader(&g, h.get()) != 0) abort();
        for (size_t i = 0; i + 3 <= in.size; i += 3)
            h[(in.data[i] | in.data[i + 1] << 8) % header::kSize] = in.data[i + 2];
    }

    // Truncation and alignment only line up when chunks are whole blocks of
    // a power-of-two size; the promises are held to such media.
    const bool regular = (g.blockSize & (g.blockSize - 1)) == 0 && g.chunkSize >= g.blockSize;
    const bool consistent = plexaCheckHeader(&g, h.get()) == 0;
    auto repaired = std::make_unique<uint8_t[]>(header::kSize);
    std::memcpy(repaired.get(), h.get(), header::kSize);
    if (plexaRepairHeader(&g, repaired.get(), strict) == 0 && regular) {
        if (consistent && partitionsInAddressOrder(h.get()) &&
            std::memcmp(repaired.get(), h.get(), header::kSize) != 0)
            abort();
        auto again = std::make_unique<uint8_t[]>(header::kSize);
        std::memcpy(again.get(), repaired.get(), header::kSize);
        if (plexaRepairHeader(&g, again.get(), 1) != 0 ||
            std::memcmp(again.get(), repaired.get(), header::kSize) != 0)
            abort();
    }

    for (int p = -1; p <= 8; p++) {
        uint16_t chunk = 0;
        if (plexaChunkContainingPartitionByte(&g, h.get(), p, probe % (g.partitionSpace + 1), &chunk) == 0 &&
            header::chunkEntry(h.get(), chunk) >> 12 != unsigned(p))
            abort();
        plexaChunkContainingPartitionBlock(&g, h.get(), p, probe, &chunk);
    }
    plexaValidateHeader(h.get());
    return 0;
}
