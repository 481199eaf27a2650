// The trailer of a binary property list and the failures of its lookups.

#include "plist/PlistBinaryObjectTable.h"

#include "plist/PlistCodec.h"

namespace qvl::plist::detail {

namespace {

// Bound on what a document may decode to, in values plus payload bytes:
// kExpansion per byte of the file, and at least kExpansionFloor.
constexpr uint64_t kExpansion = 32;
constexpr uint64_t kExpansionFloor = 1 << 16;

}  // namespace

bool BinaryObjectTable::readTrailer() {
    if (b_.size() < kHeaderSize + 1 + kTrailerSize)
        return failed(ReadError::kCorrupt, "file of " + std::to_string(b_.size()) +
                                               " bytes is too short for a header, an object and a trailer");
    const uint8_t* t = b_.data() + b_.size() - kTrailerSize;
    offsetSize_ = t[6];
    refSize_ = t[7];
    numObjects_ = readBE(t + 8, 8);
    top_ = readBE(t + 16, 8);
    offsetTable_ = readBE(t + 24, 8);
    const uint64_t tableEnd = b_.size() - kTrailerSize;
    if (offsetSize_ < 1 || offsetSize_ > 8)
        return failed(ReadError::kCorrupt,
                      "trailer: offset width " + std::to_string(offsetSize_) + " is not between 1 and 8");
    if (refSize_ < 1 || refSize_ > 8)
        return failed(ReadError::kCorrupt,
                      "trailer: reference width " + std::to_string(refSize_) + " is not between 1 and 8");
    if (offsetTable_ <= kHeaderSize || offsetTable_ > tableEnd)
        return failed(ReadError::kCorrupt, "trailer: offset table position " + std::to_string(offsetTable_) +
                                               " is outside the file");
    if (numObjects_ == 0 || numObjects_ > (tableEnd - offsetTable_) / offsetSize_)
        return failed(ReadError::kCorrupt,
                      "trailer: " + std::to_string(numObjects_) + " objects do not fit the offset table");
    if (top_ >= numObjects_)
        return failed(ReadError::kCorrupt, "trailer: top object " + std::to_string(top_) +
                                               " is out of range (" + std::to_string(numObjects_) +
                                               " objects)");
    // What a document may expand to when it references the same objects
    // many times, counted in values plus payload bytes. A file that shares
    // only keys and scalars stays far below it; one built to blow up
    // (containers referencing each other in layers) is refused.
    budget_ = kExpansion * static_cast<uint64_t>(b_.size()) + kExpansionFloor;
    return true;
}

bool BinaryObjectTable::failed(int code, std::string message) {
    fail(error_, code, "binary property list: " + std::move(message));
    return false;
}

bool BinaryObjectTable::overBudget() {
    return failed(ReadError::kCorrupt, "the objects expand to more than " +
                                           std::to_string(kExpansion * b_.size() + kExpansionFloor) +
                                           " values and bytes");
}

std::string BinaryObjectTable::at(uint64_t ref, uint64_t offset) {
    return "object " + std::to_string(ref) + " at offset " + std::to_string(offset) + ": ";
}

std::string BinaryObjectTable::hex(uint8_t byte) {
    static constexpr char digits[] = "0123456789abcdef";
    return {digits[byte >> 4], digits[byte & 0xF]};
}

}  // namespace qvl::plist::detail
