// Media geometry, GUID byte order, text and random identifiers of the volume library.
#include <bit>
#include <cstdio>

#include "storage/plexa.h"
#include "storage/plexa_device.h"
#include "storage/plexa_format.h"

namespace qvl::plexa {
namespace {

constexpr uint64_t kMaxMediaSize = uint64_t(1) << 42;
constexpr uint32_t kMinBlockSize = 4096;
constexpr uint32_t kMaxBlockSize = 16384;
// Chunk 0 plus the 7 spare chunks are not partition space.
constexpr uint32_t kNonPartitionChunks = 8;

enum class Derivation { ok, tooLarge, blockTooSmall, blockTooLarge, tooSmall };

struct Derived {
    PlexaMediaProperties properties{};
    bool chunkSmallerThanBlock = false;
};

// The whole derivation, silent, so that plexaInitMediaGeometry and the sanity
// check of the header functions agree by construction.
Derivation derive(uint64_t mediaSize, uint32_t blockSize, Derived& out) {
    if (mediaSize > kMaxMediaSize) return Derivation::tooLarge;
    if (blockSize < kMinBlockSize) return Derivation::blockTooSmall;
    if (blockSize > kMaxBlockSize) return Derivation::blockTooLarge;
    // An empty medium has no chunk size at all (the formula below would ask
    // for a 2^54-byte chunk).
    if (mediaSize == 0) return Derivation::tooSmall;
    uint32_t chunkShift = uint32_t(std::bit_width((mediaSize - 1) >> 10));
    // Above 2 TiB a chunk would be 4 GiB, which the 32-bit chunkSize can't hold.
    if (chunkShift >= 32) return Derivation::tooLarge;
    uint32_t chunkCount = uint32_t(mediaSize >> chunkShift);
    // With 8 chunks or fewer there is no partition space; the subtraction
    // below would wrap around into an enormous one.
    if (chunkCount <= kNonPartitionChunks) return Derivation::tooSmall;

    PlexaMediaProperties& p = out.properties;
    p.mediaSize = mediaSize;
    p.blockSize = blockSize;
    p.blockShift = uint32_t(std::bit_width(blockSize) - 1);
    p.chunkShift = chunkShift;
    p.chunkSize = uint32_t(1) << chunkShift;
    p.chunkCount = chunkCount;
    p.partitionSpace = uint64_t(chunkCount - kNonPartitionChunks) << chunkShift;
    out.chunkSmallerThanBlock = p.chunkSize < blockSize;
    return Derivation::ok;
}

const char* rejectionMessage(Derivation d) {
    switch (d) {
        case Derivation::tooLarge:
            return "plexa: media too large\n";
        case Derivation::blockTooSmall:
            return "plexa: media block size too small\n";
        case Derivation::blockTooLarge:
            return "plexa: media block size too large\n";
        case Derivation::tooSmall:
            return "plexa: media too small\n";
        case Derivation::ok:
            break;
    }
    return "";
}

}  // namespace

bool geometryUsable(const PlexaMediaProperties* properties) {
    Derived d;
    const PlexaMediaProperties& p = *properties;
    const PlexaMediaProperties& e = d.properties;
    // Field by field: the record has tail padding that nobody initialises.
    if (derive(p.mediaSize, p.blockSize, d) == Derivation::ok && p.partitionSpace == e.partitionSpace &&
        p.chunkCount == e.chunkCount && p.blockShift == e.blockShift && p.chunkSize == e.chunkSize &&
        p.chunkShift == e.chunkShift)
        return true;
    std::fputs("plexa: inconsistent media properties\n", stderr);
    return false;
}

void guidSwapByteOrder(const uint8_t in[16], uint8_t out[16]) {
    static constexpr uint8_t kOrder[16] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
    uint8_t tmp[16];
    for (int i = 0; i < 16; i++) tmp[i] = in[kOrder[i]];
    std::memcpy(out, tmp, 16);
}

std::string guidText(const uint8_t guid[16]) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (int i = 0; i < 16; i++) {
        if (i == 4 || i == 6 || i == 8 || i == 10) out += '-';
        out += kHex[guid[i] >> 4];
        out += kHex[guid[i] & 0xF];
    }
    return out;
}

bool parseGuidText(std::string_view text, uint8_t out[16]) {
    if (text.size() != 36) return false;
    uint8_t guid[16];
    size_t pos = 0;
    for (int i = 0; i < 16; i++) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            if (text[pos++] != '-') return false;
        }
        int value = 0;
        for (int half = 0; half < 2; half++) {
            const char c = text[pos++];
            const int digit = c >= '0' && c <= '9'   ? c - '0'
                              : c >= 'a' && c <= 'f' ? c - 'a' + 10
                              : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                     : -1;
            if (digit < 0) return false;
            value = value << 4 | digit;
        }
        guid[i] = uint8_t(value);
    }
    std::memcpy(out, guid, 16);
    return true;
}

bool randomUUID(uint8_t out[16]) {
    uint8_t bytes[16];
    if (!randomBytes(bytes, sizeof bytes)) return false;
    bytes[6] = uint8_t((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = uint8_t((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
    std::memcpy(out, bytes, 16);
    return true;
}

}  // namespace qvl::plexa

using namespace qvl::plexa;

int plexaInitMediaGeometry(PlexaMediaProperties* properties, uint64_t mediaSize, uint32_t blockSize) {
    if (!properties) {
        std::fputs("plexa: NULL media properties\n", stderr);
        return -1;
    }
    // Stored before any check, so a rejected record still says what was asked.
    properties->blockSize = blockSize;
    properties->mediaSize = mediaSize;
    Derived d;
    Derivation result = derive(mediaSize, blockSize, d);
    if (result != Derivation::ok) {
        std::fputs(rejectionMessage(result), stderr);
        return -1;
    }
    // Chunks smaller than a block still work for the table adjustment; only
    // the header's chunk arithmetic suffers, so this is a warning.
    if (d.chunkSmallerThanBlock) std::fputs("plexa: media too small\n", stderr);
    *properties = d.properties;
    return 0;
}
