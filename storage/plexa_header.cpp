// The volume manager's 4096-byte header: creation, CRC, validation, reading
// from a device, the consistency check, the repair and the chunk lookup.
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <vector>

#include "storage/plexa.h"
#include "storage/plexa_device.h"
#include "storage/plexa_format.h"

using namespace qvl::plexa;
namespace hdr = qvl::plexa::header;

namespace {

// Chunk map keys are (partition << 12) | offset with bits 10 and 11 clear;
// an entry with those bits set is taken as an offset past any partition.
constexpr uint16_t kOffsetMask = 0x3FF;
constexpr uint16_t kEntryOffsetBits = 0xFFF;
constexpr uint32_t kMaxDeviceBlock = 1u << 20;

// Prints one message line; answers false (complain) or -1 (fail) so that a
// check can report and return in one statement.
__attribute__((format(printf, 1, 2))) bool complain(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    return false;
}
__attribute__((format(printf, 1, 2))) int fail(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    return -1;
}

uint16_t chunkKey(size_t p, size_t offset) {
    return uint16_t((p << 12) | (offset & kOffsetMask));
}

bool hasType(const uint8_t* h, const uint8_t type[16]) {
    return std::memcmp(h + hdr::kType, type, 16) == 0;
}
bool isKnownType(const uint8_t* h) {
    return hasType(h, hdr::kTypeWithCRC) || hasType(h, hdr::kTypeWithoutCRC);
}

uint64_t recordStart(const uint8_t* h, size_t p) {
    return loadLE64(hdr::record(h, p) + hdr::kRecordStart);
}
uint64_t recordEnd(const uint8_t* h, size_t p) {
    return loadLE64(hdr::record(h, p) + hdr::kRecordEnd);
}
uint64_t recordLength(const uint8_t* h, size_t p) {
    uint64_t s = recordStart(h, p), e = recordEnd(h, p);
    return e > s ? e - s : 0;
}
// Chunk offsets a partition of `length` bytes uses: 0 to the result - 1.
uint64_t chunksFor(uint64_t length, const PlexaMediaProperties& g) {
    return (length >> g.chunkShift) + ((length & (uint64_t(g.chunkSize) - 1)) != 0);
}
bool offsetBeyond(uint16_t entry, size_t p, const uint8_t* h, const PlexaMediaProperties& g) {
    return uint64_t(entry & kEntryOffsetBits) * g.chunkSize >= recordLength(h, p);
}

bool nullArguments(const PlexaMediaProperties* properties, const void* header) {
    if (!properties) {
        std::fputs("plexa: NULL media properties\n", stderr);
        return true;
    }
    if (!header) {
        std::fputs("plexa: NULL header buffer\n", stderr);
        return true;
    }
    return false;
}

// ---- check ----

// How often each key appears among entries 1 to chunkCount - 1.
using KeyCounts = std::array<uint16_t, hdr::kMaxPartitions * 1024>;
void countKeys(const uint8_t* h, const PlexaMediaProperties& g, KeyCounts& counts) {
    counts.fill(0);
    for (uint32_t i = 1; i < g.chunkCount; i++) {
        uint16_t e = hdr::chunkEntry(h, i);
        if ((e >> 12) < hdr::kMaxPartitions && (e & 0xC00) == 0)
            counts[(e >> 12) * 1024 + (e & kOffsetMask)]++;
    }
}

bool checkPartition(const uint8_t* h, const PlexaMediaProperties& g, size_t p, const KeyCounts& counts) {
    const uint8_t* r = hdr::record(h, p);
    const uint64_t base = hdr::kPartitionBaseFixed + 2 * uint64_t(g.blockSize);
    const uint64_t start = recordStart(h, p), end = recordEnd(h, p);
    int pi = int(p);
    if (isAllZero(r + hdr::kRecordType, 16)) return complain("plexa: partition %d has type zero\n", pi);
    if (isAllZero(r + hdr::kRecordIdentity, 16))
        return complain("plexa: partition %d has identity zero\n", pi);
    if (start < base) return complain("plexa: partition %d starts too low\n", pi);
    if (end > base + g.partitionSpace) return complain("plexa: partition %d ends too high\n", pi);
    if (start >= end) return complain("plexa: partition %d start/end not in order\n", pi);
    if ((start | end) & ((uint64_t(1) << g.blockShift) - 1))
        return complain("plexa: partition %d start/end not block aligned\n", pi);
    for (size_t q = 0; q < p; q++) {
        if (start < recordEnd(h, q) && recordStart(h, q) < end)
            return complain("plexa: partition %d overlaps partition %d\n", pi, int(q));
    }
    // The bounds above keep the partition inside partitionSpace, so its
    // offsets stay below chunkCount - 8 and fit the 10-bit field.
    const uint64_t chunks = chunksFor(end - start, g);
    for (uint64_t c = 0; c < chunks; c++) {
        if (counts[p * 1024 + c] != 1)
            return complain("plexa: partition %d missing chunk 0x%04x\n", pi, unsigned(c));
    }
    return true;
}

bool checkChunkMap(const uint8_t* h, const PlexaMediaProperties& g, uint32_t count) {
    if (hdr::chunkEntry(h, 0) != hdr::kChunkReserved)
        return complain("plexa: chunk zero not marked reserved\n");
    for (uint32_t i = 1; i < g.chunkCount; i++) {
        uint16_t e = hdr::chunkEntry(h, i);
        if (e == hdr::kChunkFree) continue;
        if (uint32_t(e >> 12) >= count)
            return complain("plexa: chunk 0x%04x claims nonexistent partition (0x%04x)\n", i, e);
        if (offsetBeyond(e, e >> 12, h, g))
            return complain("plexa: chunk 0x%04x assigned to invalid partition offset (0x%04x)\n", i, e);
    }
    for (uint32_t i = g.chunkCount; i < hdr::kChunkMapEntries; i++) {
        uint16_t e = hdr::chunkEntry(h, i);
        if (e != hdr::kChunkInvalid) return complain("plexa: chunk 0x%04x not invalid (0x%04x)\n", i, e);
    }
    return true;
}

// ---- repair ----

enum class Verdict { good, bad, refused };

// Reports the first rule partition p breaks; true when it breaks none.
bool partitionBounds(const uint8_t* h, const PlexaMediaProperties& g, size_t p) {
    const uint8_t* r = hdr::record(h, p);
    const uint64_t base = hdr::kPartitionBaseFixed + (uint64_t(2) << g.blockShift);
    const uint64_t start = recordStart(h, p), end = recordEnd(h, p);
    int pi = int(p);
    if (isAllZero(r + hdr::kRecordType, 16) || isAllZero(r + hdr::kRecordIdentity, 16))
        return complain("plexa: found null partition type/identity\n");
    if (start >= end) return complain("plexa: partition %d start/end not in order\n", pi);
    if (start < base) return complain("plexa: partition %d starts too low\n", pi);
    if (end > base + g.partitionSpace) return complain("plexa: partition %d ends too high\n", pi);
    if ((start | end) & (uint64_t(g.blockSize) - 1))
        return complain("plexa: partition %d start/end not block aligned\n", pi);
    if (p >= 1 && start < recordEnd(h, p - 1))
        return complain("plexa: partition %d out of order or overlapping\n", pi);
    return true;
}

// Keeps the first map entry of each of the partition's offsets, frees (or,
// strictly, refuses) further ones, and truncates the partition at its first
// missing offset. The scan stops there: a later gap must never move the end
// out again past the first one.
Verdict repairChunks(uint8_t* h, const PlexaMediaProperties& g, size_t p, bool strict) {
    const uint64_t start = recordStart(h, p);
    const uint64_t chunks = chunksFor(recordEnd(h, p) - start, g);
    // first[o]: the map entry that keeps offset o; further entries with the
    // same key are chained from duplicates[o] through nextDuplicate.
    std::array<int16_t, 1024> first, duplicates, nextDuplicate;
    first.fill(-1);
    duplicates.fill(-1);
    nextDuplicate.fill(-1);
    std::array<int16_t, 1024> lastDuplicate;  // read only once set
    for (uint32_t i = 1; i < g.chunkCount; i++) {
        uint16_t e = hdr::chunkEntry(h, i);
        if ((e >> 12) != p || (e & 0xC00) != 0 || (e & kOffsetMask) >= chunks) continue;
        const size_t o = e & kOffsetMask;
        if (first[o] < 0) {
            first[o] = int16_t(i);
        } else {
            if (duplicates[o] < 0)
                duplicates[o] = int16_t(i);
            else
                nextDuplicate[size_t(lastDuplicate[o])] = int16_t(i);
            lastDuplicate[o] = int16_t(i);
        }
    }
    for (uint64_t c = 0; c < chunks; c++) {
        if (first[c] < 0) {
            if (strict) {
                std::fprintf(stderr, "plexa: partition %d missing chunk 0x%04x\n", int(p), unsigned(c));
                return Verdict::refused;
            }
            if (c == 0) return Verdict::bad;
            storeLE64(hdr::record(h, p) + hdr::kRecordEnd, start + c * g.chunkSize);
            std::fprintf(stderr, "plexa: truncated partition %d\n", int(p));
            return Verdict::good;
        }
        for (int16_t i = duplicates[c]; i >= 0; i = nextDuplicate[size_t(i)]) {
            if (strict) {
                std::fprintf(stderr, "plexa: partition %d duplicate chunk 0x%04x\n", int(p), unsigned(c));
                return Verdict::refused;
            }
            hdr::setChunkEntry(h, size_t(i), hdr::kChunkFree);
        }
    }
    return Verdict::good;
}

bool repairPartitions(uint8_t* h, const PlexaMediaProperties& g, bool strict) {
    const uint32_t count = loadLE32(h + hdr::kPartitionCount);
    for (size_t p = 0; p < count; p++) {
        Verdict v = partitionBounds(h, g, p) ? repairChunks(h, g, p, strict) : Verdict::bad;
        if (v == Verdict::refused) return false;
        if (v == Verdict::good) continue;
        if (strict) {
            std::fputs("plexa: partition table corrupt\n", stderr);
            return false;
        }
        std::fputs("plexa: deleting partition(s) and fixing partition count\n", stderr);
        storeLE32(h + hdr::kPartitionCount, uint32_t(p));
        std::memset(hdr::record(h, p), 0, (hdr::kMaxPartitions - p) * hdr::kRecordSize);
        break;
    }
    return true;
}

void reclaimChunks(uint8_t* h, const PlexaMediaProperties& g) {
    if (hdr::chunkEntry(h, 0) != hdr::kChunkReserved) {
        std::fputs("plexa: fixing chunk0 assignment\n", stderr);
        hdr::setChunkEntry(h, 0, hdr::kChunkReserved);
    }
    const uint32_t count = loadLE32(h + hdr::kPartitionCount);
    for (uint32_t i = 1; i < g.chunkCount; i++) {
        uint16_t e = hdr::chunkEntry(h, i);
        if (e == hdr::kChunkFree) continue;
        const uint32_t p = e >> 12;
        if (p >= count)
            std::fprintf(stderr, "plexa: reclaiming chunk 0x%04x not assigned to valid partition\n", i);
        else if (offsetBeyond(e, p, h, g))
            std::fprintf(stderr, "plexa: reclaiming chunk 0x%04x off the end of partition %u\n", i, p);
        else
            continue;
        hdr::setChunkEntry(h, i, hdr::kChunkFree);
    }
}

// ---- lookup ----

int lookupChunk(const PlexaMediaProperties* properties, const uint8_t* header, int partitionIndex,
                uint64_t offset, uint16_t* chunk) {
    if (!properties || !header || !chunk) return -1;
    if (!geometryUsable(properties)) return -1;
    if (partitionIndex < 0 || partitionIndex > 7) return -1;
    const size_t p = size_t(partitionIndex);
    const uint64_t start = recordStart(header, p), end = recordEnd(header, p);
    if (start >= end || offset >= end - start) return -1;
    // No partition offset reaches chunkCount, and one past the 10-bit field
    // would alias offset 0 of the same partition, so both are refused.
    const uint64_t c = offset >> properties->chunkShift;
    if (c >= properties->chunkCount || c > kOffsetMask) return -1;
    const uint16_t key = chunkKey(p, size_t(c));
    for (size_t i = 0; i < hdr::kChunkMapEntries; i++) {
        if (hdr::chunkEntry(header, i) == key) {
            *chunk = uint16_t(i);
            return 0;
        }
    }
    return -1;
}

}  // namespace

int plexaCreateHeader(const PlexaMediaProperties* properties, uint8_t* header) {
    return plexaCreateHeaderWithFlags(properties, header, 0, 0);
}

int plexaCreateHeaderWithFlags(const PlexaMediaProperties* properties, uint8_t* header, uint32_t flags0,
                               uint32_t flags1) {
    if (nullArguments(properties, header)) return -1;
    if (!geometryUsable(properties)) return -1;
    const PlexaMediaProperties& g = *properties;
    // Built aside and copied at the end, so a failure leaves the caller's buffer alone.
    uint8_t h[hdr::kSize] = {};
    uint8_t* r = hdr::record(h, 0);
    if (!randomUUID(h + hdr::kGUID) || !randomUUID(r + hdr::kRecordIdentity)) {
        std::fputs("plexa: cannot generate a header identifier\n", stderr);
        return -1;
    }
    std::memcpy(h + hdr::kType, hdr::kTypeWithCRC, 16);
    storeLE64(h + hdr::kMediaSize, g.mediaSize);
    storeLE32(h + hdr::kPartitionCount, 1);
    storeLE32(h + hdr::kFlags0, flags0);
    storeLE32(h + hdr::kFlags1, flags1);

    const uint64_t start = hdr::kPartitionBaseFixed + 2 * uint64_t(g.blockSize);
    std::memcpy(r + hdr::kRecordType, kHFSPlusType, 16);
    storeLE64(r + hdr::kRecordStart, start);
    storeLE64(r + hdr::kRecordEnd, start + g.partitionSpace);
    static constexpr char kName[] = "Plexa";
    for (size_t i = 0; i < sizeof kName; i++) storeLE16(r + hdr::kRecordName + 2 * i, uint16_t(kName[i]));

    hdr::setChunkEntry(h, 0, hdr::kChunkReserved);
    const uint64_t used = chunksFor(g.partitionSpace, g);
    for (uint32_t i = 1; i < g.chunkCount; i++)
        hdr::setChunkEntry(h, i, i <= used ? uint16_t((i - 1) & kOffsetMask) : hdr::kChunkFree);
    for (uint32_t i = g.chunkCount; i < hdr::kChunkMapEntries; i++)
        hdr::setChunkEntry(h, i, hdr::kChunkInvalid);
    std::memcpy(header, h, sizeof h);
    return 0;
}

int plexaSetHeaderCRC(uint8_t* header) {
    if (!header) return -1;
    if (!hasType(header, hdr::kTypeWithCRC)) return 0;
    static constexpr uint8_t kZeroField[4] = {};
    uLong crc = crc32(0, header, hdr::kCRC);
    crc = crc32(crc, kZeroField, sizeof kZeroField);
    crc = crc32(crc, header + hdr::kCRC + 4, hdr::kSize - hdr::kCRC - 4);
    storeLE32(header + hdr::kCRC, uint32_t(crc));
    return int(uint32_t(crc));
}

int plexaValidateHeader(uint8_t* header) {
    if (!header) return -1;
    if (hasType(header, hdr::kTypeWithCRC)) {
        const uint32_t stored = loadLE32(header + hdr::kCRC);
        return uint32_t(plexaSetHeaderCRC(header)) == stored ? 0 : -1;
    }
    return hasType(header, hdr::kTypeWithoutCRC) ? 0 : -2;
}

int plexaAcquireHeader(const PlexaMediaProperties* properties, uint8_t* header, int fd) {
    if (!properties || !header) return -1;
    if (!geometryUsable(properties)) return -1;
    uint32_t deviceBlock = 0;
    uint64_t blockCount = 0;
    if (!deviceBlockSize(fd, &deviceBlock) || deviceBlock > kMaxDeviceBlock) {
        std::fputs("plexa: block size acquisition error\n", stderr);
        return -1;
    }
    if (!deviceBlockCount(fd, deviceBlock, &blockCount)) {
        std::fputs("plexa: block count acquisition error\n", stderr);
        return -1;
    }
    // One device block, but never less than the header itself.
    const size_t unit = std::max<size_t>(deviceBlock, hdr::kSize);
    std::vector<uint8_t> block(unit);
    struct Copy {
        const char* name;
        bool placed;
        uint64_t offset;
    };
    // With chunks smaller than a block there is no room for a backup copy.
    const bool backupPlaced = properties->chunkSize >= properties->blockSize;
    const Copy copies[] = {{"main", true, 0},
                           {"backup", backupPlaced, uint64_t(properties->chunkSize) - properties->blockSize}};
    bool corrupt = false, seen = false;
    for (const Copy& copy : copies) {
        std::fill(block.begin(), block.end(), 0);
        if (!copy.placed || deviceRead(fd, block.data(), unit, copy.offset) < unit) {
            std::fprintf(stderr, "plexa: failed to read %s header\n", copy.name);
            continue;
        }
        std::memcpy(header, block.data(), hdr::kSize);
        int v = plexaValidateHeader(header);
        if (v == 0) return 0;
        if (v == -1) corrupt = true;
        seen = true;
    }
    if (corrupt)
        std::fputs("plexa: media header corrupt\n", stderr);
    else if (seen)
        std::fputs("plexa: media header not found or not supported\n", stderr);
    else
        std::fputs("plexa: could not read media header\n", stderr);
    return -1;
}

int plexaCheckHeader(const PlexaMediaProperties* properties, const uint8_t* header) {
    if (nullArguments(properties, header)) return -1;
    if (!geometryUsable(properties)) return -1;
    const PlexaMediaProperties& g = *properties;
    if (!isKnownType(header)) return fail("plexa: media header mismatch\n");
    if (loadLE64(header + hdr::kMediaSize) != g.mediaSize) return fail("plexa: media size mismatch\n");
    const uint32_t count = loadLE32(header + hdr::kPartitionCount);
    if (count > hdr::kMaxPartitions) return fail("plexa: illegal partition count\n");
    KeyCounts counts;
    countKeys(header, g, counts);
    for (size_t p = 0; p < count; p++)
        if (!checkPartition(header, g, p, counts)) return -1;
    for (size_t p = count; p < hdr::kMaxPartitions; p++) {
        if (!isAllZero(hdr::record(header, p), hdr::kRecordAttributes))
            return fail("plexa: partition %d orphaned\n", int(p));
    }
    return checkChunkMap(header, g, count) ? 0 : -1;
}

int plexaRepairHeader(const PlexaMediaProperties* properties, uint8_t* header, int strict) {
    if (nullArguments(properties, header)) return -1;
    if (!geometryUsable(properties)) return -1;
    const PlexaMediaProperties& g = *properties;
    if (!isKnownType(header)) return fail("plexa: media header mismatch\n");
    const uint64_t mediaSize = loadLE64(header + hdr::kMediaSize);
    if (mediaSize != g.mediaSize) {
        if (mediaSize > g.mediaSize && strict)
            return fail("plexa: media size smaller than required by header\n");
        std::fputs("plexa: adjusting header media size\n", stderr);
        storeLE64(header + hdr::kMediaSize, g.mediaSize);
    }
    if (loadLE32(header + hdr::kPartitionCount) > hdr::kMaxPartitions) {
        std::fputs("plexa: fixing illegal partition count\n", stderr);
        storeLE32(header + hdr::kPartitionCount, hdr::kMaxPartitions);
    }
    if (!repairPartitions(header, g, strict != 0)) return -1;
    reclaimChunks(header, g);
    return 0;
}

int plexaChunkContainingPartitionByte(const PlexaMediaProperties* properties, const uint8_t* header,
                                      int partitionIndex, uint64_t offset, uint16_t* chunk) {
    return lookupChunk(properties, header, partitionIndex, offset, chunk);
}

int plexaChunkContainingPartitionBlock(const PlexaMediaProperties* properties, const uint8_t* header,
                                       int partitionIndex, uint64_t block, uint16_t* chunk) {
    if (!properties) return -1;
    uint64_t offset = 0;
    if (__builtin_mul_overflow(block, uint64_t(properties->blockSize), &offset)) return -1;
    return lookupChunk(properties, header, partitionIndex, offset, chunk);
}
