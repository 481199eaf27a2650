// Partition adjustment over the GPT view: resize, create or delete one entry,
// then pack every entry in use back to back from the first usable block.
#include <cstdio>

#include "storage/plexa.h"
#include "storage/plexa_format.h"

using namespace qvl::plexa;

namespace {

using u128 = unsigned __int128;

uint8_t* entryAt(uint8_t* table, size_t i) {
    return table + i * gpt::kEntrySize;
}
uint64_t firstLBA(const uint8_t* e) {
    return loadLE64(e + gpt::kFirstLBA);
}
uint64_t lastLBA(const uint8_t* e) {
    return loadLE64(e + gpt::kLastLBA);
}

// Whole blocks for newSize bytes, rounded up, without the overflow of
// (newSize + blockSize - 1) near 2^64.
uint64_t blocksFor(uint64_t bytes, uint32_t blockSize) {
    return bytes / blockSize + (bytes % blockSize != 0);
}

bool fillNewEntry(uint8_t* entry, const uint8_t type[16], uint64_t lastUsable, uint64_t blocks) {
    uint8_t unique[16];
    if (!randomUUID(unique)) {
        std::fputs("plexa: cannot generate a partition GUID\n", stderr);
        return false;
    }
    static constexpr uint8_t kZero[16] = {};
    const uint8_t* bigEndianType = std::memcmp(type, kZero, 16) == 0 ? kHFSPlusType : type;
    guidSwapByteOrder(bigEndianType, entry + gpt::kTypeGUID);
    guidSwapByteOrder(unique, entry + gpt::kUniqueGUID);
    // "New" and one NUL; the rest of the name field and the attributes keep
    // whatever the slot held.
    static constexpr uint8_t kName[8] = {'N', 0, 'e', 0, 'w', 0, 0, 0};
    std::memcpy(entry + gpt::kName, kName, sizeof kName);
    // Provisionally after everything, so the new entry sorts last; packing
    // gives it its real place. A wrap here only happens on a corrupt header,
    // and packing reports it as an overflow.
    storeLE64(entry + gpt::kFirstLBA, lastUsable + 1);
    storeLE64(entry + gpt::kLastLBA, lastUsable + blocks);
    return true;
}

void deleteEntry(uint8_t* table, size_t index, size_t count) {
    std::memmove(entryAt(table, index), entryAt(table, index + 1), (count - index - 1) * gpt::kEntrySize);
    std::memset(entryAt(table, count - 1), 0, gpt::kEntrySize);
}

// Bubble sort of slot numbers by first LBA: swaps only on a strictly lower
// start, so entries that start together keep their table order.
void sortByFirstLBA(const uint8_t* table, size_t order[], size_t count) {
    for (size_t i = 0; i < count; i++) order[i] = i;
    for (bool swapped = true; swapped;) {
        swapped = false;
        for (size_t i = 0; i + 1 < count; i++) {
            if (firstLBA(table + order[i + 1] * gpt::kEntrySize) <
                firstLBA(table + order[i] * gpt::kEntrySize)) {
                size_t t = order[i];
                order[i] = order[i + 1];
                order[i + 1] = t;
                swapped = true;
            }
        }
    }
}

// Packs in sorted order and answers the block after the last partition. Wide
// arithmetic keeps a corrupt entry (last before first, or near 2^64) from
// wrapping around into a layout that looks as if it fits.
u128 pack(uint8_t* table, const size_t order[], size_t count, uint64_t firstUsable) {
    u128 next = firstUsable;
    for (size_t k = 0; k < count; k++) {
        uint8_t* e = entryAt(table, order[k]);
        uint64_t length = lastLBA(e) - firstLBA(e);
        u128 last = next + length;
        storeLE64(e + gpt::kFirstLBA, uint64_t(next));
        storeLE64(e + gpt::kLastLBA, uint64_t(last));
        next = last + 1;
    }
    return next;
}

}  // namespace

int plexaAdjustPartitionWithType(const PlexaMediaProperties* properties, uint8_t* gptHeader,
                                 uint8_t* entryTable, int partitionIndex, uint64_t newSize,
                                 const uint8_t type[16]) {
    if (!properties) {
        std::fputs("plexa: NULL media properties\n", stderr);
        return -1;
    }
    if (!gptHeader || !entryTable || !type) return -1;
    if (properties->blockSize == 0) {
        std::fputs("plexa: inconsistent media properties\n", stderr);
        return -1;
    }
    const uint64_t blocks = blocksFor(newSize, properties->blockSize);
    const uint32_t count = loadLE32(gptHeader + gpt::kEntryCount);
    if (partitionIndex < 0 || partitionIndex > 7 || uint32_t(partitionIndex) > count) {
        std::fprintf(stderr, "plexa: cannot adjust partition %d - out of range\n", partitionIndex);
        return -1;
    }
    // The view holds 8 entries; a header claiming more can't be ordered
    // without reading past the table, so it is refused, not capped.
    if (count > gpt::kMaxEntries) {
        std::fprintf(stderr, "plexa: partition count %u exceeds the %zu-entry table\n", count,
                     gpt::kMaxEntries);
        return -1;
    }
    const size_t index = size_t(partitionIndex);
    const uint64_t firstUsable = loadLE64(gptHeader + gpt::kFirstUsableLBA);
    const uint64_t lastUsable = loadLE64(gptHeader + gpt::kLastUsableLBA);
    size_t newCount = count;

    if (index == count) {
        if (blocks == 0) {
            std::fputs("plexa: cannot create zero-sized partition\n", stderr);
            return -1;
        }
        if (!fillNewEntry(entryAt(entryTable, index), type, lastUsable, blocks)) return -1;
        newCount = count + 1;
    } else if (blocks == 0) {
        deleteEntry(entryTable, index, count);
        newCount = count - 1;
    } else {
        uint8_t* e = entryAt(entryTable, index);
        storeLE64(e + gpt::kLastLBA, firstLBA(e) + blocks - 1);
    }

    size_t order[gpt::kMaxEntries];
    sortByFirstLBA(entryTable, order, newCount);
    const u128 next = pack(entryTable, order, newCount, firstUsable);
    const u128 limit = u128(lastUsable) + 1;
    if (next > limit) {
        u128 over = next - limit;
        unsigned long long shown = over > UINT64_MAX ? UINT64_MAX : (unsigned long long)over;
        std::fprintf(stderr, "plexa: new layout does not fit, overflows by 0x%llx blocks\n", shown);
        return -1;
    }
    storeLE32(gptHeader + gpt::kEntryCount, uint32_t(newCount));
    return 0;
}

int plexaAdjustPartition(const PlexaMediaProperties* properties, uint8_t* gptHeader, uint8_t* entryTable,
                         int partitionIndex, uint64_t newSize) {
    static constexpr uint8_t kDefaultType[16] = {};
    return plexaAdjustPartitionWithType(properties, gptHeader, entryTable, partitionIndex, newSize,
                                        kDefaultType);
}
