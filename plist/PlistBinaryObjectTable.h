// BinaryObjectTable: the layout of a binary ("bplist00") document as its
// reader sees it: the trailer, the offset table, where each object starts,
// what its marker says and how many bytes it may take. Every offset, count
// and reference is checked against the bytes before it is used, and the
// table keeps the budget of what the document may decode to, so that one
// built to expand (objects referenced many times over) is refused.
//
// Internal to plist/: the reader (PlistBinaryReader.cpp) decodes the values
// on top of it. The lookups are inline: they run once per object decoded.
//
// Thread-safety: one table per read; not shared.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <string>

#include "plist/PlistBinaryFormat.h"
#include "plist/PropertyList.h"

namespace qvl::plist::detail {

// The big-endian unsigned integer of `width` bytes (1 to 8) at `p`.
inline uint64_t readBE(const uint8_t* p, unsigned width) {
    switch (width) {  // the common widths without a loop
        case 1:
            return p[0];
        case 2:
            return static_cast<uint64_t>(p[0]) << 8 | p[1];
        case 4: {
            uint32_t v;
            std::memcpy(&v, p, 4);
            return __builtin_bswap32(v);
        }
        case 8: {
            uint64_t v;
            std::memcpy(&v, p, 8);
            return __builtin_bswap64(v);
        }
    }
    uint64_t v = 0;
    for (unsigned i = 0; i < width; ++i) v = (v << 8) | p[i];
    return v;
}

class BinaryObjectTable {
  public:
    // One object: where it stands, its marker and count, and where its body
    // starts.
    struct Body {
        uint64_t offset;  // of the marker
        uint8_t marker;
        uint64_t count;  // from the marker or the count object that follows it
        uint64_t start;  // first byte after the marker (and count)
    };

    // Failures are reported through `error` (which may be null).
    BinaryObjectTable(std::span<const uint8_t> bytes, ReadError* error) : b_(bytes), error_(error) {}

    // Reads and checks the trailer; false (and the error set) when the
    // document cannot be a binary property list.
    bool readTrailer();

    std::span<const uint8_t> bytes() const { return b_; }
    uint64_t objectCount() const { return numObjects_; }
    uint64_t top() const { return top_; }
    unsigned refSize() const { return refSize_; }
    // Where the object area ends: nothing of an object may reach past it.
    uint64_t objectsEnd() const { return offsetTable_; }
    uint64_t budget() const { return budget_; }

    // Sets the error to `message` (prefixed with the encoding's name) and
    // answers false.
    bool failed(int code, std::string message);
    // "object REF at offset OFFSET: ", the beginning of an object's error.
    static std::string at(uint64_t ref, uint64_t offset);
    static std::string hex(uint8_t byte);

    // Takes `units` (values plus payload bytes) from the budget.
    bool charge(uint64_t units) {
        if (units > budget_) return overBudget();
        budget_ -= units;
        return true;
    }

    // Finds object `ref` and reads its marker and count.
    bool locate(uint64_t ref, Body& body) {
        if (ref >= numObjects_)
            return failed(ReadError::kCorrupt, "reference " + std::to_string(ref) + " is out of range (" +
                                                   std::to_string(numObjects_) + " objects)");
        const uint64_t off = readBE(b_.data() + offsetTable_ + ref * offsetSize_, offsetSize_);
        if (off < kHeaderSize || off >= offsetTable_)
            return failed(ReadError::kCorrupt, "object " + std::to_string(ref) + " has offset " +
                                                   std::to_string(off) + " outside the object area");
        body.offset = off;
        body.marker = b_[off];
        body.count = body.marker & 0x0F;
        body.start = off + 1;
        const uint8_t kind = body.marker >> 4;
        const bool counted = kind == kData || kind == kASCIIString || kind == kUTF16String ||
                             kind == kUTF8String || kind == kArray || kind == kOrderedSet || kind == kSet ||
                             kind == kDict;
        if (!counted || body.count != kCountFollows) return true;
        // The count is an integer object right after the marker.
        if (off + 2 > offsetTable_) return failed(ReadError::kCorrupt, at(ref, off) + "count is cut off");
        const uint8_t countMarker = b_[off + 1];
        if ((countMarker >> 4) != kInt || (countMarker & 0x0F) > 3)
            return failed(ReadError::kCorrupt, at(ref, off) + "count is not a 1 to 8 byte integer");
        const unsigned width = 1u << (countMarker & 0x0F);
        if (off + 2 + width > offsetTable_)
            return failed(ReadError::kCorrupt, at(ref, off) + "count is cut off");
        body.count = readBE(b_.data() + off + 2, width);
        body.start = off + 2 + width;
        return true;
    }

    // Checks that `count` items of `itemSize` bytes fit between the body's
    // start and the offset table, before anything is allocated for them.
    bool fits(uint64_t ref, const Body& body, uint64_t itemSize) {
        const uint64_t left = offsetTable_ - body.start;
        if (body.count > left / itemSize)
            return failed(ReadError::kCorrupt, at(ref, body.offset) + "count " + std::to_string(body.count) +
                                                   " needs more than the " + std::to_string(left) +
                                                   " bytes left");
        return true;
    }

    // The `i`th reference of a container's body.
    uint64_t refAt(const Body& body, uint64_t i) const {
        return readBE(b_.data() + body.start + i * refSize_, refSize_);
    }

  private:
    bool overBudget();

    std::span<const uint8_t> b_;
    ReadError* error_;
    unsigned offsetSize_ = 0;
    unsigned refSize_ = 0;
    uint64_t numObjects_ = 0;
    uint64_t top_ = 0;
    uint64_t offsetTable_ = 0;
    uint64_t budget_ = 0;
};

}  // namespace qvl::plist::detail
