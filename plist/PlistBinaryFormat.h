// Layout of the binary ("bplist00") property-list encoding, shared by its
// reader and its writer.
//
// A file is the 8-byte magic, the objects, an offset table giving the position
// of every object, and a 32-byte trailer (6 unused bytes, offset width,
// reference width, object count, top object, offset table position; integers
// big-endian). Containers hold references: indices into the offset table.
//
// Thread-safety: constants only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace qvl::plist::detail {

inline constexpr std::string_view kMagic = "bplist00";
inline constexpr size_t kHeaderSize = 8;
inline constexpr size_t kTrailerSize = 32;

// Object markers (high nibble of the first byte).
enum Marker : uint8_t {
    kSingleton = 0x0,  // null, false, true, fill
    kInt = 0x1,
    kReal = 0x2,
    kDate = 0x3,
    kData = 0x4,
    kASCIIString = 0x5,
    kUTF16String = 0x6,
    kUTF8String = 0x7,
    kUID = 0x8,
    kArray = 0xA,
    kOrderedSet = 0xB,
    kSet = 0xC,
    kDict = 0xD,
};
inline constexpr uint8_t kFalse = 0x08, kTrue = 0x09, kFill = 0x0F;
inline constexpr uint8_t kCountFollows = 0x0F;

}  // namespace qvl::plist::detail
