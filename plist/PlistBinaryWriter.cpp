// Writer of the binary ("bplist00") encoding: equal strings, data and scalars
// are stored once, integers and references take the smallest width, and
// reals and dates are kept bit for bit.

#include <algorithm>
#include <memory>

#include "plist/PlistBinaryEncoding.h"
#include "plist/PlistCodec.h"

namespace qvl::plist {

namespace detail {
namespace {

// Stands in for the output string in a first pass that only counts bytes, so
// that the file is then written into a buffer of its exact size (growing a
// string by doubling would hold up to three times a large file at once).
struct ByteCount {
    size_t bytes = 0;
    void push_back(char) { ++bytes; }
    void append(const char*, size_t n) { bytes += n; }
    ByteCount& operator+=(const std::string& s) { return bytes += s.size(), *this; }
    size_t size() const { return bytes; }
};

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

// A growing sequence kept in blocks of a fixed size: growing never moves
// what is stored, so the object list of a large document is never held twice
// while it grows, as a doubling vector's would be.
template <class T>
class Blocks {
  public:
    size_t size() const { return size_; }
    T& operator[](size_t i) { return blocks_[i >> kShift][i & kMask]; }
    const T& operator[](size_t i) const { return blocks_[i >> kShift][i & kMask]; }
    void push_back(const T& value) {
        resize(size_ + 1);
        (*this)[size_ - 1] = value;
    }
    // Grows to `n` elements (never shrinks).
    void resize(size_t n) {
        while (blocks_.size() << kShift < n) blocks_.push_back(std::make_unique<T[]>(size_t{1} << kShift));
        size_ = std::max(size_, n);
    }

  private:
    static constexpr unsigned kShift = 14;
    static constexpr size_t kMask = (size_t{1} << kShift) - 1;
    std::vector<std::unique_ptr<T[]>> blocks_;
    size_t size_ = 0;
};

class BinaryWriter {
  public:
    std::string run(const Value& top) {
        if (!flatten(top, 0)) return {};
        const unsigned refSize = widthFor(objects_.size() - 1);
        ByteCount counted{kMagic.size()};
        uint64_t lastOffset = 0;
        for (size_t i = 0; i < objects_.size(); ++i) {
            lastOffset = counted.size();
            encode(objects_[i], refSize, counted);
        }
        const uint64_t tablePosition = counted.size();
        const unsigned offsetSize = widthFor(lastOffset);
        std::string out;
        out.reserve(tablePosition + objects_.size() * offsetSize + kTrailerSize);
        out.append(kMagic);
        std::vector<uint64_t> offsets;
        offsets.reserve(objects_.size());
        for (size_t i = 0; i < objects_.size(); ++i) {
            offsets.push_back(out.size());
            encode(objects_[i], refSize, out);
        }
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
        if (depth + 1 > kMaxDepth || objects_.size() >= UINT32_MAX - 1) return std::nullopt;
        const uint64_t index = objects_.size();
        const size_t first = refs_.size();
        objects_.push_back({&v, nullptr, first});
        if (const Array* a = v.asArray()) {
            refs_.resize(first + a->size());
            for (size_t i = 0; i < a->size(); ++i) {
                auto child = flatten((*a)[i], depth + 1);
                if (!child) return std::nullopt;
                refs_[first + i] = static_cast<uint32_t>(*child);
            }
            return index;
        }
        const Dictionary& d = *v.asDictionary();
        const size_t n = d.size();
        refs_.resize(first + 2 * n);
        for (size_t i = 0; i < n; ++i) {
            auto key = flattenString(d.entries()[i].first, nullptr);
            if (!key) return std::nullopt;
            refs_[first + i] = static_cast<uint32_t>(*key);
        }
        for (size_t i = 0; i < n; ++i) {
            auto child = flatten(d.entries()[i].second, depth + 1);
            if (!child) return std::nullopt;
            refs_[first + n + i] = static_cast<uint32_t>(*child);
        }
        return index;
    }

    template <class Out>
    void encodeString(const Object& o, const std::string& s, Out& out) {
        if (o.extra == 0) {
            appendMarker(out, kASCIIString, s.size());
            out += s;
            return;
        }
        const std::vector<uint16_t>& units = utf16_[o.extra - 1];
        appendMarker(out, kUTF16String, units.size());
        for (uint16_t unit : units) appendBE(out, unit, 2);
    }

    template <class Out>
    void encode(const Object& o, unsigned refSize, Out& out) {
        if (!o.value) return encodeString(o, *o.key, out);
        const Value& v = *o.value;
        if (appendScalar(out, v)) return;
        switch (v.kind()) {
            case Kind::String:
                return encodeString(o, *v.asString(), out);
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
            default:
                return;  // scalars were written above
        }
    }

    Blocks<Object> objects_;
    Blocks<uint32_t> refs_;  // object indices stay below UINT32_MAX
    std::vector<std::vector<uint16_t>> utf16_;
    UniqueTable table_;
};

}  // namespace
}  // namespace detail

std::string writeBinary(const Value& value) {
    return detail::BinaryWriter().run(value);
}

}  // namespace qvl::plist
