// Reader of the binary ("bplist00") encoding. Every size, offset, count and
// reference is checked against the bytes before it is used, cycles and deep
// nesting are refused, and what shared objects may expand to is bounded.

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/DescriptorIO.h"
#include "plist/PlistArena.h"
#include "plist/PlistBinaryFormat.h"
#include "plist/PlistCodec.h"

namespace qvl::plist::detail {
namespace {

// Bound on what a document may decode to, in values plus payload bytes:
// kExpansion per byte of the file, and at least kExpansionFloor.
constexpr uint64_t kExpansion = 32;
constexpr uint64_t kExpansionFloor = 1 << 16;
// Documents from this size on are decoded into an arena (PlistArena.h);
// smaller ones, the requests and preferences, would not fill a chunk.
constexpr size_t kArenaThreshold = size_t{1} << 20;

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
    BinaryReader(std::span<const uint8_t> bytes, ReadError* error) : b_(bytes), error_(error) {
        if (bytes.size() >= kArenaThreshold) arena_.emplace();
    }
    BinaryReader(const BinaryReader&) = delete;
    BinaryReader& operator=(const BinaryReader&) = delete;
    ~BinaryReader() {
        for (Text* text : texts_) release(text);
        for (RecentKeys& recent : recentKeys_)
            if (recent.keys) DictionaryAccess::releaseKeys(recent.keys);
    }

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
        if (Text* cached = cachedText(ref)) {
            if (!charge(1 + cached->text.size())) return false;
            out = DictionaryAccess::stringValue(cached);
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
                Text* text = nullptr;
                if (!decodeText(ref, body, text)) return false;
                out = DictionaryAccess::stringValue(text);
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
        out = DictionaryAccess::dataValue(b_.subspan(body.start, body.count), arena());
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
    // writers store each text once: a string object is decoded once and its
    // text shared by every value and key that refers to it.
    Text* cachedText(uint64_t ref) const {
        return ref < textSlots_ && textSlot_[ref] != 0 ? texts_[textSlot_[ref] - 1] : nullptr;
    }

    bool decodeText(uint64_t ref, const Body& body, Text*& out) {
        std::string s;
        if (!decodeString(ref, body, s)) return false;
        if (!textSlot_) reserveTextSlots();
        texts_.push_back(makeText(std::move(s), arena()));
        textSlot_[ref] = static_cast<uint32_t>(texts_.size());
        out = texts_.back();
        return true;
    }

    // Room for a text per object, known from the offset table, so that the
    // table of texts never moves; what stays unused is never touched.
    void reserveTextSlots() {
        texts_.reserve(numObjects_);
        adviseHugePages(texts_.data(), texts_.capacity() * sizeof(Text*));
        // Zeroed by calloc, which for a large table means pages fresh from
        // the system: no pass over them before they are used.
        textSlot_.reset(static_cast<uint32_t*>(std::calloc(numObjects_, sizeof(uint32_t))));
        if (!textSlot_) throw std::bad_alloc();
        adviseHugePages(textSlot_.get(), numObjects_ * sizeof(uint32_t));
        textSlots_ = numObjects_;
    }

    bool decodeKey(uint64_t ref, Text*& out) {
        if ((out = cachedText(ref))) return charge(1 + out->text.size());
        Body body;
        if (!locate(ref, body)) return false;
        const uint8_t kind = body.marker >> 4;
        if (kind != kASCIIString && kind != kUTF16String)
            return failed(ReadError::kCorrupt, at(ref, body.offset) + "dictionary key is not a string");
        return decodeText(ref, body, out);
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

    // The records of a manifest repeat one key list by the same references:
    // a list is decoded and checked once, and every dictionary with the same
    // key references shares it.
    struct RecentKeys {
        std::vector<uint8_t> refs;  // the key references as they stand in the file
        KeyList* keys = nullptr;    // one reference
        uint64_t cost = 0;          // what decoding the keys charges
    };
    static constexpr size_t kRecentKeySlots = 64;

    // The key list of a dictionary, with one reference for the caller; null
    // (and true) when the dictionary repeats a key.
    bool keyListOf(const Body& body, KeyList*& out) {
        const std::string_view refs(reinterpret_cast<const char*>(b_.data() + body.start),
                                    body.count * refSize_);
        RecentKeys& recent = recentKeys_[hashText(refs) % kRecentKeySlots];
        if (recent.keys && recent.refs.size() == refs.size() &&
            std::memcmp(recent.refs.data(), refs.data(), refs.size()) == 0) {
            if (!charge(recent.cost)) return false;
            DictionaryAccess::retainKeys(out = recent.keys);
            return true;
        }
        const uint64_t budgetBefore = budget_;
        KeyList* keys = DictionaryAccess::newKeys(static_cast<uint32_t>(body.count), arena());
        for (uint64_t i = 0; i < body.count; ++i) {
            Text* text = nullptr;
            if (!decodeKey(refAt(body, i), text)) {
                DictionaryAccess::releaseKeys(keys);
                return false;
            }
            retain(keys->keys()[i] = text);
            keys->size = static_cast<uint32_t>(i + 1);
        }
        if (repeatsAKey(keys)) {
            DictionaryAccess::releaseKeys(keys);
            out = nullptr;
            return true;
        }
        if (recent.keys) DictionaryAccess::releaseKeys(recent.keys);
        recent.refs.assign(refs.begin(), refs.end());
        DictionaryAccess::retainKeys(recent.keys = keys);
        recent.cost = budgetBefore - budget_;
        out = keys;
        return true;
    }

    // The keys are sorted by hash first: the paths of a file manifest share
    // long beginnings, and comparing them as texts would read those again and
    // again. The hashes stay with the texts for later lookups.
    static bool repeatsAKey(const KeyList* keys) {
        std::vector<std::pair<uint32_t, std::string_view>> sorted;
        sorted.reserve(keys->size);
        for (uint32_t i = 0; i < keys->size; ++i) {
            const Text* t = keys->keys()[i];
            uint32_t h = t->hash.load(std::memory_order_relaxed);
            if (h == 0) t->hash.store(h = hashText(t->text), std::memory_order_relaxed);
            sorted.emplace_back(h, t->text);
        }
        std::sort(sorted.begin(), sorted.end());
        return std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end();
    }

    bool decodeDict(const Body& body, int depth, Value& out) {
        if (body.count == 0) {
            out = Value(Dictionary());
            return true;
        }
        if (body.count > UINT32_MAX / 2)
            return failed(ReadError::kCorrupt, "dictionary of " + std::to_string(body.count) + " entries");
        KeyList* keys = nullptr;
        if (!keyListOf(body, keys)) return false;
        if (!keys) return decodeDictRepeatingKeys(body, depth, out);
        const auto n = static_cast<uint32_t>(body.count);
        Dictionary dictionary = DictionaryAccess::make(keys, n, arena());
        Value* values = DictionaryAccess::values(dictionary);
        for (uint32_t i = 0; i < n; ++i) {
            new (&values[i]) Value();
            DictionaryAccess::setSize(dictionary, i + 1);
            if (!decode(refAt(body, n + i), depth, values[i])) return false;
        }
        out = DictionaryAccess::dictionaryValue(std::move(dictionary));
        return true;
    }

    // The rare dictionary that names a key twice, resolved as the other
    // encoding resolves it.
    bool decodeDictRepeatingKeys(const Body& body, int depth, Value& out) {
        std::vector<Dictionary::Entry> entries(body.count);
        for (uint64_t i = 0; i < body.count; ++i) {
            entries[i].first = cachedText(refAt(body, i))->text;
            if (!decode(refAt(body, body.count + i), depth, entries[i].second)) return false;
        }
        out = Value(makeDictionary(std::move(entries)));
        return true;
    }

    Arena* arena() { return arena_ ? &*arena_ : nullptr; }

    std::span<const uint8_t> b_;
    ReadError* error_;
    std::optional<Arena> arena_;
    unsigned offsetSize_ = 0;
    unsigned refSize_ = 0;
    uint64_t numObjects_ = 0;
    uint64_t top_ = 0;
    uint64_t offsetTable_ = 0;
    uint64_t budget_ = 0;
    std::vector<uint64_t> ancestors_;  // containers being decoded, to refuse cycles
    struct FreeTable {
        void operator()(uint32_t* table) const { std::free(table); }
    };
    std::unique_ptr<uint32_t[], FreeTable> textSlot_;  // object -> 1 + its slot in texts_, or 0
    uint64_t textSlots_ = 0;
    std::vector<Text*> texts_;  // one reference each
    RecentKeys recentKeys_[kRecentKeySlots];
};

}  // namespace

std::optional<Value> readBinary(std::span<const uint8_t> bytes, ReadError* error) {
    return BinaryReader(bytes, error).run();
}

}  // namespace qvl::plist::detail
