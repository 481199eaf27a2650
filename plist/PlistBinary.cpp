// The binary ("bplist00") encoding.
//
// Layout: the 8-byte magic, the objects, an offset table giving the position of
// every object, and a 32-byte trailer (6 unused bytes, offset width, reference
// width, object count, top object, offset table position; integers big-endian).
// Containers hold references: indices into the offset table.

#include <algorithm>
#include <bit>
#include <cstring>

#include "plist/PlistCodec.h"

namespace qvl::plist {

namespace detail {
namespace {

constexpr std::string_view kMagic = "bplist00";
constexpr size_t kHeaderSize = 8;
constexpr size_t kTrailerSize = 32;

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
constexpr uint8_t kFalse = 0x08, kTrue = 0x09, kFill = 0x0F;
constexpr uint8_t kCountFollows = 0x0F;

// Bound on what a document may decode to, in values plus payload bytes:
// kExpansion per byte of the file, and at least kExpansionFloor.
constexpr uint64_t kExpansion = 32;
constexpr uint64_t kExpansionFloor = 1 << 16;

uint64_t readBE(const uint8_t* p, unsigned width) {
    switch (width) {  // the common widths without a loop
        case 1:
            return p[0];
        case 2:
            return static_cast<uint64_t>(p[0]) << 8 | p[1];
        case 4: {
            uint32_t v;
            memcpy(&v, p, 4);
            return __builtin_bswap32(v);
        }
        case 8: {
            uint64_t v;
            memcpy(&v, p, 8);
            return __builtin_bswap64(v);
        }
    }
    uint64_t v = 0;
    for (unsigned i = 0; i < width; ++i) v = (v << 8) | p[i];
    return v;
}

std::string at(uint64_t ref, uint64_t offset) {
    return "object " + std::to_string(ref) + " at offset " + std::to_string(offset) + ": ";
}

class BinaryReader {
  public:
    BinaryReader(std::span<const uint8_t> bytes, ReadError* error) : b_(bytes), error_(error) {}

    std::optional<Value> run() {
        if (!parseTrailer()) return std::nullopt;
        Value top;
        if (!decode(top_, 0, top)) return std::nullopt;
        return top;
    }

  private:
    // A decoded position inside the object area, with the bytes of the body.
    struct Body {
        uint64_t offset;  // of the marker
        uint8_t marker;
        uint64_t count;  // from the marker or the count object that follows it
        uint64_t start;  // first byte after the marker (and count)
    };

    bool failed(int code, std::string message) {
        fail(error_, code, "binary property list: " + std::move(message));
        return false;
    }

    bool parseTrailer() {
        if (b_.size() < kHeaderSize + 1 + kTrailerSize)
            return failed(ReadError::kCorrupt,
                          "file of " + std::to_string(b_.size()) +
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
            return failed(ReadError::kCorrupt, "trailer: offset table position " +
                                                   std::to_string(offsetTable_) + " is outside the file");
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

    bool charge(uint64_t units) {
        if (units > budget_)
            return failed(ReadError::kCorrupt, "the objects expand to more than " +
                                                   std::to_string(kExpansion * b_.size() + kExpansionFloor) +
                                                   " values and bytes");
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

    bool decode(uint64_t ref, int depth, Value& out) {
        if (const std::string* cached = cachedString(ref)) {
            std::string s;
            if (!copyCached(*cached, s)) return false;
            out = Value(std::move(s));
            return true;
        }
        Body body;
        if (!locate(ref, body)) return false;
        switch (body.marker >> 4) {
            case kSingleton:
                return decodeSingleton(ref, body, out);
            case kInt:
                return decodeInteger(ref, body, out);
            case kReal:
                return decodeReal(ref, body, out);
            case kDate:
                return decodeDate(ref, body, out);
            case kData:
                return decodeData(ref, body, out);
            case kASCIIString:
            case kUTF16String: {
                std::string s;
                if (!decodeStringCached(ref, body, s)) return false;
                out = Value(std::move(s));
                return true;
            }
            case kArray:
            case kDict:
                return decodeContainer(ref, body, depth, out);
            case kUID:
                return failed(ReadError::kUnsupported, at(ref, body.offset) + "UID objects are not accepted");
            case kUTF8String:
            case kOrderedSet:
            case kSet:
                return failed(ReadError::kUnsupported, at(ref, body.offset) + "object kind 0x" +
                                                           hex(body.marker) + " is not accepted");
        }
        return failed(ReadError::kCorrupt, at(ref, body.offset) + "unknown marker 0x" + hex(body.marker));
    }

    static std::string hex(uint8_t byte) {
        static constexpr char digits[] = "0123456789abcdef";
        return {digits[byte >> 4], digits[byte & 0xF]};
    }

    bool decodeSingleton(uint64_t ref, const Body& body, Value& out) {
        if (body.marker == kFalse || body.marker == kTrue) {
            out = Value(body.marker == kTrue);
            return charge(1);
        }
        if (body.marker == kFill)
            return failed(ReadError::kUnsupported, at(ref, body.offset) + "fill objects are not accepted");
        if (body.marker == 0x00)
            return failed(ReadError::kUnsupported, at(ref, body.offset) + "null objects are not accepted");
        return failed(ReadError::kCorrupt, at(ref, body.offset) + "unknown marker 0x" + hex(body.marker));
    }

    bool decodeInteger(uint64_t ref, const Body& body, Value& out) {
        const unsigned sizeCode = body.marker & 0x0F;
        if (sizeCode > 4)
            return failed(ReadError::kCorrupt,
                          at(ref, body.offset) + "integer of 2^" + std::to_string(sizeCode) + " bytes");
        const unsigned width = 1u << sizeCode;
        if (body.start + width > offsetTable_)
            return failed(ReadError::kCorrupt, at(ref, body.offset) + "integer is cut off");
        const uint8_t* p = b_.data() + body.start;
        if (width < 8) {
            // 1, 2 and 4 byte integers are unsigned.
            out = Value(Integer::fromSigned(static_cast<int64_t>(readBE(p, width))));
        } else if (width == 8) {
            out = Value(Integer::fromSigned(static_cast<int64_t>(readBE(p, 8))));
        } else {
            // A 16-byte integer is two's complement. Values of the unsigned
            // 64-bit range (high half zero) are the ones writers produce; a
            // negative value that fits 64 bits (high half all ones) reads as
            // that value. Anything wider is out of the integer range.
            const uint64_t high = readBE(p, 8), low = readBE(p + 8, 8);
            if (high == 0)
                out = Value(Integer::fromUnsigned(low));
            else if (high == UINT64_MAX && (low >> 63) == 1)
                out = Value(Integer::fromSigned(static_cast<int64_t>(low)));
            else
                return failed(ReadError::kUnsupported,
                              at(ref, body.offset) + "16-byte integer outside -2^63 .. 2^64-1");
        }
        return charge(1);
    }

    bool decodeReal(uint64_t ref, const Body& body, Value& out) {
        const unsigned sizeCode = body.marker & 0x0F;
        if (sizeCode != 2 && sizeCode != 3)
            return failed(ReadError::kCorrupt,
                          at(ref, body.offset) + "real of 2^" + std::to_string(sizeCode) + " bytes");
        const unsigned width = 1u << sizeCode;
        if (body.start + width > offsetTable_)
            return failed(ReadError::kCorrupt, at(ref, body.offset) + "real is cut off");
        const uint64_t bits = readBE(b_.data() + body.start, width);
        if (width == 4)
            out = Value(static_cast<double>(std::bit_cast<float>(static_cast<uint32_t>(bits))));
        else
            out = Value(std::bit_cast<double>(bits));
        return charge(1);
    }

    bool decodeDate(uint64_t ref, const Body& body, Value& out) {
        if (body.marker != 0x33)
            return failed(ReadError::kCorrupt, at(ref, body.offset) + "date marker 0x" + hex(body.marker));
        if (body.start + 8 > offsetTable_)
            return failed(ReadError::kCorrupt, at(ref, body.offset) + "date is cut off");
        out = Value(Date{std::bit_cast<double>(readBE(b_.data() + body.start, 8))});
        return charge(1);
    }

    bool decodeData(uint64_t ref, const Body& body, Value& out) {
        if (!fits(ref, body, 1) || !charge(1 + body.count)) return false;
        const uint8_t* p = b_.data() + body.start;
        out = Value(Data(p, p + body.count));
        return true;
    }

    bool decodeString(uint64_t ref, const Body& body, std::string& out) {
        if ((body.marker >> 4) == kASCIIString) {
            if (!fits(ref, body, 1) || !charge(1 + body.count)) return false;
            const char* p = reinterpret_cast<const char*>(b_.data() + body.start);
            uint8_t high = 0;
            for (uint64_t i = 0; i < body.count; ++i) high |= static_cast<uint8_t>(p[i]);
            if (high & 0x80)
                return failed(ReadError::kCorrupt,
                              at(ref, body.offset) + "ASCII string holds non-ASCII bytes");
            out.assign(p, body.count);
            return true;
        }
        if (!fits(ref, body, 2) || !charge(1 + 3 * body.count)) return false;
        std::vector<uint16_t> units(body.count);
        const uint8_t* p = b_.data() + body.start;
        for (uint64_t i = 0; i < body.count; ++i)
            units[i] = static_cast<uint16_t>(p[2 * i] << 8 | p[2 * i + 1]);
        // An unpaired surrogate is refused rather than replaced: a key or path
        // that silently changed would no longer match what was signed.
        if (!appendUTF8FromUTF16(units.data(), units.size(), out))
            return failed(ReadError::kCorrupt,
                          at(ref, body.offset) + "UTF-16 string has an unpaired surrogate");
        return true;
    }

    // Keys and many string values repeat in every record of a manifest, and
    // writers store each text once: a string object is decoded once and
    // copied after that.
    // Only a string met a second time is kept, so unique texts (paths) are
    // not copied for nothing.
    const std::string* cachedString(uint64_t ref) const {
        if (ref >= keyCache_.size() || keyCache_[ref] == 0 || keyCache_[ref] == kSeenOnce) return nullptr;
        return &strings_[keyCache_[ref] - 1];
    }

    bool decodeStringCached(uint64_t ref, const Body& body, std::string& out) {
        if (!decodeString(ref, body, out)) return false;
        if (keyCache_.empty()) keyCache_.resize(numObjects_);
        if (keyCache_[ref] == 0) {
            keyCache_[ref] = kSeenOnce;
        } else if (strings_.size() < kSeenOnce - 1) {
            strings_.push_back(out);
            keyCache_[ref] = static_cast<uint32_t>(strings_.size());
        }
        return true;
    }

    bool copyCached(const std::string& cached, std::string& out) {
        if (!charge(1 + cached.size())) return false;
        out = cached;
        return true;
    }

    bool decodeKey(uint64_t ref, std::string& out) {
        if (const std::string* cached = cachedString(ref)) return copyCached(*cached, out);
        Body body;
        if (!locate(ref, body)) return false;
        const uint8_t kind = body.marker >> 4;
        if (kind != kASCIIString && kind != kUTF16String)
            return failed(ReadError::kCorrupt, at(ref, body.offset) + "dictionary key is not a string");
        return decodeStringCached(ref, body, out);
    }

    bool decodeContainer(uint64_t ref, const Body& body, int depth, Value& out) {
        const bool isDict = (body.marker >> 4) == kDict;
        for (uint64_t ancestor : ancestors_)
            if (ancestor == ref)
                return failed(ReadError::kCorrupt, at(ref, body.offset) + "container contains itself");
        if (depth + 1 > kMaxDepth)
            return failed(ReadError::kTooDeep,
                          at(ref, body.offset) + "nesting deeper than " + std::to_string(kMaxDepth));
        if (!fits(ref, body, isDict ? 2 * refSize_ : refSize_) || !charge(1)) return false;
        ancestors_.push_back(ref);
        const bool ok = isDict ? decodeDict(body, depth + 1, out) : decodeArray(body, depth + 1, out);
        ancestors_.pop_back();
        return ok;
    }

    uint64_t refAt(const Body& body, uint64_t i) const {
        return readBE(b_.data() + body.start + i * refSize_, refSize_);
    }

    bool decodeArray(const Body& body, int depth, Value& out) {
        Array items(body.count);
        for (uint64_t i = 0; i < body.count; ++i)
            if (!decode(refAt(body, i), depth, items[i])) return false;
        out = Value(std::move(items));
        return true;
    }

    bool decodeDict(const Body& body, int depth, Value& out) {
        std::vector<Dictionary::Entry> entries(body.count);
        for (uint64_t i = 0; i < body.count; ++i) {
            if (!decodeKey(refAt(body, i), entries[i].first)) return false;
            if (!decode(refAt(body, body.count + i), depth, entries[i].second)) return false;
        }
        out = Value(makeDictionary(std::move(entries)));
        return true;
    }

    std::span<const uint8_t> b_;
    ReadError* error_;
    unsigned offsetSize_ = 0;
    unsigned refSize_ = 0;
    uint64_t numObjects_ = 0;
    uint64_t top_ = 0;
    uint64_t offsetTable_ = 0;
    uint64_t budget_ = 0;
    std::vector<uint64_t> ancestors_;  // containers being decoded, to refuse cycles
    static constexpr uint32_t kSeenOnce = UINT32_MAX;
    std::vector<uint32_t> keyCache_;  // object -> 1 + its slot in strings_, kSeenOnce, or 0
    std::vector<std::string> strings_;
};

// ---------------------------------------------------------------------------
// Writer

unsigned widthFor(uint64_t maxValue) {
    // Only power-of-two widths: every reader accepts those.
    if (maxValue <= 0xFF) return 1;
    if (maxValue <= 0xFFFF) return 2;
    if (maxValue <= 0xFFFFFFFF) return 4;
    return 8;
}

void appendBE(std::string& out, uint64_t v, unsigned width) {
    for (unsigned i = width; i-- > 0;) out.push_back(static_cast<char>(v >> (8 * i)));
}

void appendInteger(std::string& out, const Integer& n) {
    if (n.isNegative()) {
        out.push_back(0x13);
        appendBE(out, n.bits, 8);
    } else if (n.bits > static_cast<uint64_t>(INT64_MAX)) {
        out.push_back(0x14);
        appendBE(out, 0, 8);
        appendBE(out, n.bits, 8);
    } else {
        const unsigned width = widthFor(n.bits);
        out.push_back(static_cast<char>(0x10 | std::countr_zero(width)));
        appendBE(out, n.bits, width);
    }
}

void appendMarker(std::string& out, uint8_t kind, uint64_t count) {
    if (count < kCountFollows) {
        out.push_back(static_cast<char>(kind << 4 | count));
        return;
    }
    out.push_back(static_cast<char>(kind << 4 | kCountFollows));
    appendInteger(out, Integer::fromSigned(static_cast<int64_t>(count)));
}

// A quick multiply-mix over 8-byte words; the finaliser in ObjectKey::hash
// spreads the result. Keys and paths are short, so this beats a general
// purpose byte hash by a wide margin.
uint64_t hashBytes(std::string_view s) {
    uint64_t h = s.size() * 0x9E3779B97F4A7C15ull;
    size_t i = 0;
    for (; i + 8 <= s.size(); i += 8) {
        uint64_t word;
        memcpy(&word, s.data() + i, 8);
        h = (h ^ word) * 0xFF51AFD7ED558CCDull;
        h ^= h >> 32;
    }
    uint64_t tail = 0;
    if (i < s.size()) memcpy(&tail, s.data() + i, s.size() - i);
    h = (h ^ tail) * 0xC4CEB9FE1A85EC53ull;
    return h ^ (h >> 29);
}

// What makes two objects the same for uniquing: strings by text, data by
// bytes, other scalars by kind and exact bits.
struct ObjectKey {
    enum Tag : uint8_t { kString, kData, kSigned, kWideUnsigned, kRealBits, kDateBits, kBool };
    Tag tag;
    uint64_t bits;           // scalars
    std::string_view bytes;  // strings and data
    bool operator==(const ObjectKey&) const = default;

    uint64_t hash() const {
        uint64_t h = tag == kString || tag == kData ? hashBytes(bytes) : bits;
        // splitmix64 finaliser: spreads close integers and doubles over the table.
        h += 0x9E3779B97F4A7C15ull * (tag + 1);
        h = (h ^ (h >> 30)) * 0xBF58476D1CE4E5B9ull;
        h = (h ^ (h >> 27)) * 0x94D049BB133111EBull;
        return h ^ (h >> 31);
    }
};

// Open-addressing set of object indices, looked up by object key. A slot is
// 8 bytes (high half of the hash, 1 + the index): far less memory and far
// fewer allocations than a node-based map, which matters with a million
// objects. The position comes from the top bits of the hash, which the slot
// keeps, so growing the table never hashes a key again.
class UniqueTable {
  public:
    // The index of an object equal to `key` (`keyAt` gives the key of an
    // index), or `fresh` after recording it.
    template <class KeyAt>
    uint64_t findOrAdd(const ObjectKey& key, uint64_t fresh, bool& added, const KeyAt& keyAt) {
        if (2 * (count_ + 1) > slots_.size()) grow();
        const uint64_t high = key.hash() & kHigh;
        const size_t mask = slots_.size() - 1;
        for (size_t i = high >> shift_;; i = (i + 1) & mask) {
            const uint64_t slot = slots_[i];
            if (slot == 0) {
                slots_[i] = high | (fresh + 1);
                ++count_;
                added = true;
                return fresh;
            }
            const uint64_t index = (slot & ~kHigh) - 1;
            if ((slot & kHigh) == high && keyAt(index) == key) {
                added = false;
                return index;
            }
        }
    }

  private:
    static constexpr uint64_t kHigh = 0xFFFFFFFF00000000ull;

    void grow() {
        std::vector<uint64_t> old = std::move(slots_);
        const size_t size = std::max<size_t>(64, old.size() * 2);
        slots_.assign(size, 0);
        shift_ = 64 - std::countr_zero(size);
        const size_t mask = size - 1;
        for (uint64_t slot : old) {
            if (slot == 0) continue;
            size_t i = (slot & kHigh) >> shift_;
            while (slots_[i] != 0) i = (i + 1) & mask;
            slots_[i] = slot;
        }
    }

    std::vector<uint64_t> slots_;
    size_t count_ = 0;
    int shift_ = 64;
};

class BinaryWriter {
  public:
    std::string run(const Value& top) {
        if (!flatten(top, 0)) return {};
        const unsigned refSize = widthFor(objects_.size() - 1);
        std::string out(kMagic);
        std::vector<uint64_t> offsets(objects_.size());
        for (size_t i = 0; i < objects_.size(); ++i) {
            offsets[i] = out.size();
            encode(objects_[i], refSize, out);
        }
        const uint64_t tablePosition = out.size();
        const unsigned offsetSize = widthFor(offsets.back());
        for (uint64_t off : offsets) appendBE(out, off, offsetSize);
        out.append(6, '\0');
        out.push_back(static_cast<char>(offsetSize));
        out.push_back(static_cast<char>(refSize));
        appendBE(out, objects_.size(), 8);
        appendBE(out, 0, 8);  // the top object is always written first
        appendBE(out, tablePosition, 8);
        return out;
    }

  private:
    struct Object {
        const Value* value;      // null for a dictionary key
        const std::string* key;  // the key text when `value` is null
        // Containers: where their references start in refs_. Non-ASCII
        // strings: 1 + their slot in utf16_. Otherwise 0.
        size_t extra;
    };

    // Adds `v` (and what it holds) to the object list; returns its index.
    std::optional<uint64_t> flatten(const Value& v, int depth) {
        if (v.isArray() || v.isDictionary()) return flattenContainer(v, depth);
        if (const std::string* s = v.asString()) return flattenString(*s, &v);
        return unique(keyOfValue(v), &v);
    }

    // The uniquing key of an object already in the list.
    ObjectKey keyOf(uint64_t index) const {
        const Object& o = objects_[index];
        if (!o.value) return {ObjectKey::kString, 0, *o.key};
        return keyOfValue(*o.value);
    }

    static ObjectKey keyOfValue(const Value& v) {
        switch (v.kind()) {
            case Kind::String:
                return {ObjectKey::kString, 0, *v.asString()};
            case Kind::Data: {
                const Data& d = *v.asData();
                return {ObjectKey::kData, 0, {reinterpret_cast<const char*>(d.data()), d.size()}};
            }
            case Kind::Integer: {
                const Integer& n = *v.asInteger();
                const bool wide = !n.isNegative() && n.bits > static_cast<uint64_t>(INT64_MAX);
                return {wide ? ObjectKey::kWideUnsigned : ObjectKey::kSigned, n.bits, {}};
            }
            case Kind::Real:
                return {ObjectKey::kRealBits, std::bit_cast<uint64_t>(*v.asReal()), {}};
            case Kind::Date:
                return {ObjectKey::kDateBits, std::bit_cast<uint64_t>(v.asDate()->secondsSince2001), {}};
            case Kind::Boolean:
                return {ObjectKey::kBool, *v.asBoolean() ? 1u : 0u, {}};
            case Kind::Array:
            case Kind::Dictionary:
                break;
        }
        return {};
    }

    std::optional<uint64_t> unique(const ObjectKey& key, const Value* v) {
        // Slots keep 32-bit indices.
        if (objects_.size() >= UINT32_MAX - 1) return std::nullopt;
        bool added;
        const uint64_t index =
            table_.findOrAdd(key, objects_.size(), added, [this](uint64_t i) { return keyOf(i); });
        if (added) objects_.push_back({v, nullptr, 0});
        return index;
    }

    std::optional<uint64_t> flattenString(const std::string& s, const Value* v) {
        if (objects_.size() >= UINT32_MAX - 1) return std::nullopt;
        bool added;
        const uint64_t index = table_.findOrAdd({ObjectKey::kString, 0, s}, objects_.size(), added,
                                                [this](uint64_t i) { return keyOf(i); });
        if (!added) return index;
        Object object{v, v ? nullptr : &s, 0};
        const bool ascii =
            std::all_of(s.begin(), s.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
        if (!ascii) {
            std::vector<uint16_t> units;
            if (!appendUTF16(s, units)) return std::nullopt;  // not UTF-8: cannot be encoded
            utf16_.push_back(std::move(units));
            object.extra = utf16_.size();
        }
        objects_.push_back(object);
        return index;
    }

    std::optional<uint64_t> flattenContainer(const Value& v, int depth) {
        if (depth + 1 > kMaxDepth) return std::nullopt;
        const uint64_t index = objects_.size();
        const size_t first = refs_.size();
        objects_.push_back({&v, nullptr, first});
        if (const Array* a = v.asArray()) {
            refs_.resize(first + a->size());
            for (size_t i = 0; i < a->size(); ++i) {
                auto child = flatten((*a)[i], depth + 1);
                if (!child) return std::nullopt;
                refs_[first + i] = *child;
            }
            return index;
        }
        const Dictionary& d = *v.asDictionary();
        const size_t n = d.size();
        refs_.resize(first + 2 * n);
        for (size_t i = 0; i < n; ++i) {
            auto key = flattenString(d.entries()[i].first, nullptr);
            if (!key) return std::nullopt;
            refs_[first + i] = *key;
        }
        for (size_t i = 0; i < n; ++i) {
            auto child = flatten(d.entries()[i].second, depth + 1);
            if (!child) return std::nullopt;
            refs_[first + n + i] = *child;
        }
        return index;
    }

    void encodeString(const Object& o, const std::string& s, std::string& out) {
        if (o.extra == 0) {
            appendMarker(out, kASCIIString, s.size());
            out += s;
            return;
        }
        const std::vector<uint16_t>& units = utf16_[o.extra - 1];
        appendMarker(out, kUTF16String, units.size());
        for (uint16_t unit : units) appendBE(out, unit, 2);
    }

    void encode(const Object& o, unsigned refSize, std::string& out) {
        if (!o.value) return encodeString(o, *o.key, out);
        const Value& v = *o.value;
        switch (v.kind()) {
            case Kind::String:
                return encodeString(o, *v.asString(), out);
            case Kind::Data:
                appendMarker(out, kData, v.asData()->size());
                out.append(reinterpret_cast<const char*>(v.asData()->data()), v.asData()->size());
                return;
            case Kind::Integer:
                return appendInteger(out, *v.asInteger());
            case Kind::Real:
                out.push_back(0x23);
                appendBE(out, std::bit_cast<uint64_t>(*v.asReal()), 8);
                return;
            case Kind::Date:
                out.push_back(0x33);
                appendBE(out, std::bit_cast<uint64_t>(v.asDate()->secondsSince2001), 8);
                return;
            case Kind::Boolean:
                out.push_back(static_cast<char>(*v.asBoolean() ? kTrue : kFalse));
                return;
            case Kind::Array: {
                const size_t n = v.asArray()->size();
                appendMarker(out, kArray, n);
                for (size_t i = 0; i < n; ++i) appendBE(out, refs_[o.extra + i], refSize);
                return;
            }
            case Kind::Dictionary: {
                const size_t n = v.asDictionary()->size();
                appendMarker(out, kDict, n);
                for (size_t i = 0; i < 2 * n; ++i) appendBE(out, refs_[o.extra + i], refSize);
                return;
            }
        }
    }

    std::vector<Object> objects_;
    std::vector<uint64_t> refs_;
    std::vector<std::vector<uint16_t>> utf16_;
    UniqueTable table_;
};

}  // namespace

std::optional<Value> readBinary(std::span<const uint8_t> bytes, ReadError* error) {
    return BinaryReader(bytes, error).run();
}

}  // namespace detail

std::string writeBinary(const Value& value) {
    return detail::BinaryWriter().run(value);
}

}  // namespace qvl::plist
