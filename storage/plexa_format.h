// On-disk layouts shared by the volume library's sources: little-endian field
// accessors over byte buffers, the GPT view's and the volume header's offsets,
// GUID byte-order helpers and the geometry sanity check. Internal to the
// library (and to plexactl, which prints what the library reads). Plain
// functions, no state: safe from any thread.
#ifndef QVL_STORAGE_PLEXA_FORMAT_H
#define QVL_STORAGE_PLEXA_FORMAT_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "storage/plexa.h"

namespace qvl::plexa {

// Little-endian integers at a byte offset; byte-wise so alignment and host
// order never matter.
inline uint16_t loadLE16(const uint8_t* p) {
    return uint16_t(p[0] | (p[1] << 8));
}
inline uint32_t loadLE32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
inline uint64_t loadLE64(const uint8_t* p) {
    return uint64_t(loadLE32(p)) | uint64_t(loadLE32(p + 4)) << 32;
}
inline void storeLE16(uint8_t* p, uint16_t v) {
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
}
inline void storeLE32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; i++) p[i] = uint8_t(v >> (8 * i));
}
inline void storeLE64(uint8_t* p, uint64_t v) {
    for (int i = 0; i < 8; i++) p[i] = uint8_t(v >> (8 * i));
}

inline bool isAllZero(const uint8_t* p, size_t n) {
    for (size_t i = 0; i < n; i++)
        if (p[i]) return false;
    return true;
}

// The GPT view: a 92-byte header image and an 8-entry table of 128 bytes.
namespace gpt {
constexpr size_t kHeaderSize = 92;
constexpr size_t kFirstUsableLBA = 40;
constexpr size_t kLastUsableLBA = 48;
constexpr size_t kEntryCount = 80;
constexpr size_t kMaxEntries = 8;
constexpr size_t kEntrySize = 128;
constexpr size_t kTableSize = kMaxEntries * kEntrySize;
constexpr size_t kTypeGUID = 0;
constexpr size_t kUniqueGUID = 16;
constexpr size_t kFirstLBA = 32;
constexpr size_t kLastLBA = 40;
constexpr size_t kAttributes = 48;
constexpr size_t kName = 56;
constexpr size_t kNameSize = 72;
// The volume manager's mark in the protective MBR's disk-signature field.
constexpr size_t kMBRSignatureOffset = 440;
constexpr uint32_t kMBRSignature = 0x506C7861;
// Blocks 0 to 2 hold the protective MBR, the header image and the table.
constexpr uint64_t kLowestUsableLBA = 3;

// True when the usable blocks lie between the table and the end of a disk of
// `blockCount` blocks. Packing keeps every partition inside the usable range,
// so a view that passes can never have a partition moved over blocks 0 to 2
// or past the end of the disk.
inline bool usableRangeFits(uint64_t firstUsable, uint64_t lastUsable, uint64_t blockCount) {
    return firstUsable >= kLowestUsableLBA && firstUsable <= lastUsable && lastUsable < blockCount;
}
}  // namespace gpt

// The volume manager's header.
namespace header {
constexpr size_t kSize = 4096;
constexpr size_t kType = 0;
constexpr size_t kGUID = 16;
constexpr size_t kMediaSize = 32;
constexpr size_t kPartitionCount = 40;
constexpr size_t kCRC = 44;
constexpr size_t kFlags0 = 48;
constexpr size_t kFlags1 = 52;
constexpr size_t kPartitions = 512;
constexpr size_t kMaxPartitions = 8;
constexpr size_t kRecordSize = 128;
constexpr size_t kRecordType = 0;
constexpr size_t kRecordIdentity = 16;
constexpr size_t kRecordStart = 32;
constexpr size_t kRecordEnd = 40;
constexpr size_t kRecordAttributes = 48;
constexpr size_t kRecordName = 56;
constexpr size_t kRecordNameSize = 72;
constexpr size_t kChunkMap = 2048;
constexpr size_t kChunkMapEntries = 1024;
// The partition address space begins after chunk 0's fixed area.
constexpr uint64_t kPartitionBaseFixed = 16384;

constexpr uint16_t kChunkReserved = 0xF000;
constexpr uint16_t kChunkFree = 0xF111;
constexpr uint16_t kChunkInvalid = 0xF3FF;

// Big-endian (RFC 4122) forms of the two header types.
constexpr uint8_t kTypeWithCRC[16] = {0x6A, 0x90, 0x88, 0xCF, 0x8A, 0xFD, 0x63, 0x0A,
                                      0xE3, 0x51, 0xE2, 0x48, 0x87, 0xE0, 0xB9, 0x8B};
constexpr uint8_t kTypeWithoutCRC[16] = {0xB1, 0x89, 0xA5, 0x19, 0x4F, 0x59, 0x4B, 0x1D,
                                         0xAD, 0x44, 0x1E, 0x12, 0x7A, 0xAF, 0x45, 0x39};

inline uint8_t* record(uint8_t* h, size_t p) {
    return h + kPartitions + p * kRecordSize;
}
inline const uint8_t* record(const uint8_t* h, size_t p) {
    return h + kPartitions + p * kRecordSize;
}
inline uint16_t chunkEntry(const uint8_t* h, size_t i) {
    return loadLE16(h + kChunkMap + 2 * i);
}
inline void setChunkEntry(uint8_t* h, size_t i, uint16_t v) {
    storeLE16(h + kChunkMap + 2 * i, v);
}
}  // namespace header

// HFS Plus partition type 48465300-0000-11AA-AA11-00306543ECAC, big-endian form.
constexpr uint8_t kHFSPlusType[16] = {0x48, 0x46, 0x53, 0x00, 0x00, 0x00, 0x11, 0xAA,
                                      0xAA, 0x11, 0x00, 0x30, 0x65, 0x43, 0xEC, 0xAC};

// GPT stores the first three GUID fields little-endian; the conversion is its
// own inverse.
void guidSwapByteOrder(const uint8_t in[16], uint8_t out[16]);

// The 36-character 8-4-4-4-12 text of a big-endian GUID, upper-case hex.
std::string guidText(const uint8_t guid[16]);
// The big-endian GUID of such a text, in either case; false on anything else.
bool parseGuidText(std::string_view text, uint8_t out[16]);

// A random (version 4) UUID in big-endian form; false when the kernel's
// random source fails.
bool randomUUID(uint8_t out[16]);

// True when `properties` is exactly what plexaInitMediaGeometry derives from
// its mediaSize and blockSize. The header functions index the chunk map and
// shift by these fields, so a record from anywhere else is refused rather than
// trusted; prints "plexa: inconsistent media properties\n" when it isn't.
bool geometryUsable(const PlexaMediaProperties* properties);

}  // namespace qvl::plexa

#endif  // QVL_STORAGE_PLEXA_FORMAT_H
