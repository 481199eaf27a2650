// Reader of the binary ("bplist00") encoding: the values, over the checked
// layout of BinaryObjectTable. Cycles and deep nesting are refused, and what
// shared objects may expand to is bounded.

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/DescriptorIO.h"
#include "plist/PlistArena.h"
#include "plist/PlistBinaryFormat.h"
#include "plist/PlistBinaryObjectTable.h"
#include "plist/PlistCodec.h"
#include "plist/PlistText.h"

namespace qvl::plist::detail {
namespace {

// Documents from this size on are decoded into an arena (PlistArena.h);
// smaller ones, the requests and preferences, would not fill a chunk.
constexpr size_t kArenaThreshold = size_t{1} << 20;

class BinaryReader {
  public:
    BinaryReader(std::span<const uint8_t> bytes, ReadError* error) : objects_(bytes, error), b_(bytes) {
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
        if (!objects_.readTrailer()) return std::nullopt;
        Value top;
        if (!decode(objects_.top(), 0, top)) return std::nullopt;
        return top;
    }

  private:
    using Body = BinaryObjectTable::Body;

    bool failed(int code, std::string message) { return objects_.failed(code, std::move(message)); }
    static std::string at(uint64_t ref, uint64_t offset) { return BinaryObjectTable::at(ref, offset); }
    static std::string hex(uint8_t byte) { return BinaryObjectTable::hex(byte); }

    bool decode(uint64_t ref, int depth, Value& out) {
        if (Text* cached = cachedText(ref)) {
            if (!objects_.charge(1 + cached->text.size())) return false;
            out = DictionaryAccess::stringValue(cached);
            return true;
        }
        Body body;
        if (!objects_.locate(ref, body)) return false;
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

    bool decodeSingleton(uint64_t ref, const Body& body, Value& out) {
        if (body.marker == kFalse || body.marker == kTrue) {
            out = Value(body.marker == kTrue);
            return objects_.charge(1);
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
        if (body.start + width > objects_.objectsEnd())
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
        return objects_.charge(1);
    }

    bool decodeReal(uint64_t ref, const Body& body, Value& out) {
        const unsigned sizeCode = body.marker & 0x0F;
        if (sizeCode != 2 && sizeCode != 3)
            return failed(ReadError::kCorrupt,
                          at(ref, body.offset) + "real of 2^" + std::to_string(sizeCode) + " bytes");
        const unsigned width = 1u << sizeCode;
        if (body.start + width > objects_.objectsEnd())
            return failed(ReadError::kCorrupt, at(ref, body.offset) + "real is cut off");
        const uint64_t bits = readBE(b_.data() + body.start, width);
        if (width == 4)
            out = Value(static_cast<double>(std::bit_cast<float>(static_cast<uint32_t>(bits))));
        else
            out = Value(std::bit_cast<double>(bits));
        return objects_.charge(1);
    }

    bool decodeDate(uint64_t ref, const Body& body, Value& out) {
        if (body.marker != 0x33)
            return failed(ReadError::kCorrupt, at(ref, body.offset) + "date marker 0x" + hex(body.marker));
        if (body.start + 8 > objects_.objectsEnd())
            return failed(ReadError::kCorrupt, at(ref, body.offset) + "date is cut off");
        out = Value(Date{std::bit_cast<double>(readBE(b_.data() + body.start, 8))});
        return objects_.charge(1);
    }

    bool decodeData(uint64_t ref, const Body& body, Value& out) {
        if (!objects_.fits(ref, body, 1) || !objects_.charge(1 + body.count)) return false;
        out = DictionaryAccess::dataValue(b_.subspan(body.start, body.count), arena());
        return true;
    }

    bool decodeString(uint64_t ref, const Body& body, std::string& out) {
        if ((body.marker >> 4) == kASCIIString) {
            if (!objects_.fits(ref, body, 1) || !objects_.charge(1 + body.count)) return false;
            const char* p = reinterpret_cast<const char*>(b_.data() + body.start);
            uint8_t high = 0;
            for (uint64_t i = 0; i < body.count; ++i) high |= static_cast<uint8_t>(p[i]);
            if (high & 0x80)
                return failed(ReadError::kCorrupt,
                              at(ref, body.offset) + "ASCII string holds non-ASCII bytes");
            out.assign(p, body.count);
            return true;
        }
        if (!objects_.fits(ref, body, 2) || !objects_.charge(1 + 3 * body.count)) return false;
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
        texts_.reserve(objects_.objectCount());
        adviseHugePages(texts_.data(), texts_.capacity() * sizeof(Text*));
        // Zeroed by calloc, which for a large table means pages fresh from
        // the system: no pass over them before they are used.
        textSlot_.reset(static_cast<uint32_t*>(std::calloc(objects_.objectCount(), sizeof(uint32_t))));
        if (!textSlot_) throw std::bad_alloc();
        adviseHugePages(textSlot_.get(), objects_.objectCount() * sizeof(uint32_t));
        textSlots_ = objects_.objectCount();
    }

    bool decodeKey(uint64_t ref, Text*& out) {
        if ((out = cachedText(ref))) return objects_.charge(1 + out->text.size());
        Body body;
        if (!objects_.locate(ref, body)) return false;
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
        if (!objects_.fits(ref, body, isDict ? 2 * objects_.refSize() : objects_.refSize()) ||
            !objects_.charge(1))
            return false;
        ancestors_.push_back(ref);
        const bool ok = isDict ? decodeDict(body, depth + 1, out) : decodeArray(body, depth + 1, out);
        ancestors_.pop_back();
        return ok;
    }

    bool decodeArray(const Body& body, int depth, Value& out) {
        Array items(body.count);
        for (uint64_t i = 0; i < body.count; ++i)
            if (!decode(objects_.refAt(body, i), depth, items[i])) return false;
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
                                    body.count * objects_.refSize());
        RecentKeys& recent = recentKeys_[hashText(refs) % kRecentKeySlots];
        if (recent.keys && recent.refs.size() == refs.size() &&
            std::memcmp(recent.refs.data(), refs.data(), refs.size()) == 0) {
            if (!objects_.charge(recent.cost)) return false;
            DictionaryAccess::retainKeys(out = recent.keys);
            return true;
        }
        const uint64_t budgetBefore = objects_.budget();
        KeyList* keys = DictionaryAccess::newKeys(static_cast<uint32_t>(body.count), arena());
        for (uint64_t i = 0; i < body.count; ++i) {
            Text* text = nullptr;
            if (!decodeKey(objects_.refAt(body, i), text)) {
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
        recent.cost = budgetBefore - objects_.budget();
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
            sorted.emplace_back(textHash(t), t->text);
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
            if (!decode(objects_.refAt(body, n + i), depth, values[i])) return false;
        }
        out = DictionaryAccess::dictionaryValue(std::move(dictionary));
        return true;
    }

    // The rare dictionary that names a key twice, resolved as the other
    // encoding resolves it.
    bool decodeDictRepeatingKeys(const Body& body, int depth, Value& out) {
        std::vector<Dictionary::Entry> entries(body.count);
        for (uint64_t i = 0; i < body.count; ++i) {
            entries[i].first = cachedText(objects_.refAt(body, i))->text;
            if (!decode(objects_.refAt(body, body.count + i), depth, entries[i].second)) return false;
        }
        out = Value(makeDictionary(std::move(entries)));
        return true;
    }

    Arena* arena() { return arena_ ? &*arena_ : nullptr; }

    BinaryObjectTable objects_;
    std::span<const uint8_t> b_;
    std::optional<Arena> arena_;
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
