// The low-level SHA-1 functions are used on purpose: a manifest of a hundred
// thousand files makes millions of SHA-1 computations over 20 to 60 bytes,
// where the per-call set-up of the EVP interface costs more than the hashing,
// and the array rule needs cheap copies of a running context.
#define OPENSSL_SUPPRESS_DEPRECATED 1

#include "manifest/QVLPropertyListDigest.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <openssl/sha.h>

#include "base/QVLLog.h"

namespace qvl {

namespace {

using plist::Kind;
using plist::Value;

// The one-shot SHA1() looks the algorithm up on every call; the context
// functions do not.
QVLDigest sha1(const void* bytes, size_t length) {
    SHA_CTX context;
    SHA1_Init(&context);
    SHA1_Update(&context, bytes, length);
    QVLDigest out;
    SHA1_Final(out.data(), &context);
    return out;
}

void xorInto(QVLDigest& accumulator, const QVLDigest& d) {
    for (size_t i = 0; i < accumulator.size(); ++i) accumulator[i] ^= d[i];
}

bool isASCII(std::string_view s) {
    return std::all_of(s.begin(), s.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// Length in UTF-16 code units of a UTF-8 string: one unit per character, two
// for a character outside the basic plane (a four-byte sequence).
size_t utf16Length(std::string_view s) {
    size_t units = 0;
    for (const char c : s) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte & 0xC0) != 0x80) ++units;
        if (byte >= 0xF0) ++units;
    }
    return units;
}

QVLDigest digestOfZeros(size_t count) {
    static const unsigned char kZeros[256] = {};
    SHA_CTX context;
    SHA1_Init(&context);
    for (size_t left = count; left > 0;) {
        const size_t chunk = std::min(left, sizeof kZeros);
        SHA1_Update(&context, kZeros, chunk);
        left -= chunk;
    }
    QVLDigest out;
    SHA1_Final(out.data(), &context);
    return out;
}

// A string is digested over its characters and a terminating zero byte; a
// string that is not pure ASCII does not fit that buffer and is digested as
// the zero-filled buffer alone, as the signing side does.
QVLDigest stringDigestUncached(std::string_view s) {
    if (!isASCII(s)) return digestOfZeros(utf16Length(s) + 1);
    SHA_CTX context;
    SHA1_Init(&context);
    SHA1_Update(&context, s.data(), s.size());
    const unsigned char terminator = 0;
    SHA1_Update(&context, &terminator, 1);
    QVLDigest out;
    SHA1_Final(out.data(), &context);
    return out;
}

// Reals are truncated toward zero; values beyond the signed 64-bit range
// saturate and NaN counts as 0, so every number has a defined digest.
int64_t numberAsInteger(const Value& value) {
    if (const plist::Integer* n = value.asInteger()) return n->asSigned();
    const double r = *value.asReal();
    if (std::isnan(r)) return 0;
    if (r >= 9223372036854775808.0) return std::numeric_limits<int64_t>::max();
    if (r < -9223372036854775808.0) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(r);
}

QVLDigest numberDigest(int64_t v) {
    unsigned char bytes[8];
    const auto bits = static_cast<uint64_t>(v);
    for (int i = 0; i < 8; ++i) bytes[i] = static_cast<unsigned char>(bits >> (8 * i));
    return sha1(bytes, (v >= -1 && v <= 12) ? 4 : 8);
}

QVLDigest dateDigest(double seconds) {
    uint64_t bits;
    static_assert(sizeof bits == sizeof seconds);
    std::memcpy(&bits, &seconds, sizeof bits);
    unsigned char bytes[8];
    for (int i = 0; i < 8; ++i) bytes[i] = static_cast<unsigned char>(bits >> (8 * i));
    return sha1(bytes, sizeof bytes);
}

// A 64-bit fingerprint that agrees with property-list equality: equal values
// always have equal fingerprints. It lets the duplicate test of a long array
// compare only the few elements whose fingerprints collide.
uint64_t mix(uint64_t x) {
    x ^= x >> 30;
    x *= 0xbf58476d1ce4e5b9ull;
    x ^= x >> 27;
    x *= 0x94d049bb133111ebull;
    x ^= x >> 31;
    return x;
}

uint64_t doubleBits(double d) {
    if (d == 0) d = 0;  // -0 equals 0
    uint64_t bits;
    std::memcpy(&bits, &d, sizeof bits);
    return bits;
}

uint64_t fingerprint(const Value& value) {
    const uint64_t tag = static_cast<uint64_t>(value.kind()) + 1;
    switch (value.kind()) {
        case Kind::Dictionary: {
            // Keys are unordered: combine the pairs with a sum.
            uint64_t sum = 0;
            for (const auto& [key, item] : *value.asDictionary())
                sum += mix(std::hash<std::string_view>{}(key) ^ mix(fingerprint(item) + 1));
            return mix(tag ^ sum);
        }
        case Kind::Array: {
            uint64_t h = mix(tag);
            for (const Value& item : *value.asArray()) h = mix(h ^ fingerprint(item));
            return h;
        }
        case Kind::String:
            return mix(tag ^ std::hash<std::string_view>{}(*value.asString()));
        case Kind::Data: {
            const plist::Data& d = *value.asData();
            const std::string_view bytes(reinterpret_cast<const char*>(d.data()), d.size());
            return mix(tag ^ std::hash<std::string_view>{}(bytes));
        }
        // Integers and reals that are equal have the same double value.
        case Kind::Integer:
            return mix(0x4e554d ^ doubleBits(value.asInteger()->toDouble()));
        case Kind::Real:
            return mix(0x4e554d ^ doubleBits(*value.asReal()));
        case Kind::Boolean:
            return mix(tag ^ (*value.asBoolean() ? 2 : 1));
        case Kind::Date:
            return mix(tag ^ doubleBits(value.asDate()->secondsSince2001));
    }
    return tag;
}

bool hasDuplicates(const plist::Array& array) {
    const size_t n = array.size();
    constexpr size_t kPairwiseLimit = 8;
    if (n <= kPairwiseLimit) {
        for (size_t i = 0; i < n; ++i)
            for (size_t j = i + 1; j < n; ++j)
                if (array[i] == array[j]) return true;
        return false;
    }
    std::vector<std::pair<uint64_t, size_t>> prints;
    prints.reserve(n);
    for (size_t i = 0; i < n; ++i) prints.emplace_back(fingerprint(array[i]), i);
    std::sort(prints.begin(), prints.end());
    for (size_t start = 0; start < n;) {
        size_t end = start + 1;
        while (end < n && prints[end].first == prints[start].first) ++end;
        for (size_t i = start; i < end; ++i)
            for (size_t j = i + 1; j < end; ++j)
                if (array[prints[i].second] == array[prints[j].second]) return true;
        start = end;
    }
    return false;
}

struct StringHash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
};

// Digests one value tree. Short strings recur in every file record (the
// record keys, file types, owner names), so their digests are kept for the
// life of one computation, within a fixed bound.
class Digester {
  public:
    std::optional<QVLDigest> digest(const Value& value) {
        switch (value.kind()) {
            case Kind::Boolean: {
                const unsigned char byte = *value.asBoolean() ? 1 : 0;
                return sha1(&byte, 1);
            }
            case Kind::String:
                return sharedStringDigest(*value.asString());
            case Kind::Date:
                return dateDigest(value.asDate()->secondsSince2001);
            case Kind::Data:
                return sha1(value.asData()->data(), value.asData()->size());
            case Kind::Array:
                return arrayDigest(*value.asArray());
            case Kind::Dictionary:
                return dictionaryDigest(*value.asDictionary());
            case Kind::Integer:
            case Kind::Real:
                return integerDigest(numberAsInteger(value));
        }
        return std::nullopt;
    }

    QVLDigest stringDigest(std::string_view s) {
        // File paths are unique within a manifest and would only churn the
        // cache; the strings that recur (record keys, types, owner names) have
        // no "/" and are short.
        constexpr size_t kMaxCachedLength = 64;
        constexpr size_t kMaxCachedStrings = 4096;
        if (s.size() > kMaxCachedLength || s.find('/') != std::string_view::npos)
            return stringDigestUncached(s);
        if (auto found = strings_.find(s); found != strings_.end()) return found->second;
        const QVLDigest d = stringDigestUncached(s);
        if (strings_.size() < kMaxCachedStrings) strings_.emplace(std::string(s), d);
        return d;
    }

    // Decoded records share their keys and recurring strings, so a string met
    // at the same address is the same string: its digest is remembered by
    // address first. The tree is not changed while it is digested.
    QVLDigest sharedStringDigest(const std::string& s) {
        SharedSlot& slot = shared_[(reinterpret_cast<uintptr_t>(&s) >> 4) % shared_.size()];
        if (slot.string != &s) slot = {&s, stringDigest(s)};
        return slot.digest;
    }

    // Owners, groups, modes and small sizes recur too: a direct-mapped table
    // of recent numbers keeps their digests.
    QVLDigest integerDigest(int64_t v) {
        NumberSlot& slot = numbers_[mix(static_cast<uint64_t>(v)) % numbers_.size()];
        if (!slot.used || slot.value != v) slot = {true, v, numberDigest(v)};
        return slot.digest;
    }

  private:
    std::optional<QVLDigest> arrayDigest(const plist::Array& array) {
        if (array.empty()) return std::nullopt;
        if (hasDuplicates(array)) {
            QVLLog("Failing to hash due to duplicate array entries");
            return std::nullopt;
        }
        static const QVLDigest kArrayDigest = stringDigestUncached("array");
        QVLDigest accumulator = kArrayDigest;
        // One running context for the whole array; each element's value is
        // taken by finalising a copy, so the running state is never disturbed.
        SHA_CTX running;
        SHA1_Init(&running);
        for (const Value& item : array) {
            const auto d = digest(item);
            if (!d) return accumulator;
            SHA1_Update(&running, d->data(), d->size());
            SHA_CTX snapshot = running;
            QVLDigest step;
            SHA1_Final(step.data(), &snapshot);
            xorInto(accumulator, step);
        }
        return accumulator;
    }

    std::optional<QVLDigest> dictionaryDigest(const plist::Dictionary& dictionary) {
        if (dictionary.empty()) return std::nullopt;
        static const QVLDigest kDictionaryDigest = stringDigestUncached("dictionary");
        QVLDigest accumulator = kDictionaryDigest;
        for (const auto& [key, item] : dictionary) {
            const std::optional<uint64_t> identity = recurringIdentity(item);
            if (!identity) {
                xorInto(accumulator, pairDigest(key, item));
                continue;
            }
            const auto kind = item.kind();
            PairSlot& slot =
                pairs_[mix(reinterpret_cast<uintptr_t>(&key) ^ mix(*identity + static_cast<uint64_t>(kind))) %
                       pairs_.size()];
            if (slot.key != &key || slot.value != *identity || slot.kind != kind)
                slot = {&key, *identity, kind, pairDigest(key, item)};
            xorInto(accumulator, slot.digest);
        }
        return accumulator;
    }

    QVLDigest pairDigest(const std::string& key, const Value& item) {
        const QVLDigest k = sharedStringDigest(key);
        const auto w = digest(item);
        SHA_CTX pair;
        SHA1_Init(&pair);
        SHA1_Update(&pair, k.data(), k.size());
        if (w) SHA1_Update(&pair, w->data(), w->size());
        QVLDigest p;
        SHA1_Final(p.data(), &pair);
        return p;
    }

    // Most entries of a file record recur from record to record with the
    // same value (type, owner, group, mode): such a pair's digest is kept,
    // found again by the key's address and the value's identity. A shared
    // string is identified by its address, as in sharedStringDigest, an
    // integer or boolean by its value; other kinds are digested each time.
    static std::optional<uint64_t> recurringIdentity(const Value& value) {
        switch (value.kind()) {
            case Kind::String:
                return reinterpret_cast<uintptr_t>(value.asString());
            case Kind::Integer:
                return value.asInteger()->bits;
            case Kind::Boolean:
                return *value.asBoolean() ? 1 : 0;
            default:
                return std::nullopt;
        }
    }

    struct NumberSlot {
        bool used = false;
        int64_t value = 0;
        QVLDigest digest{};
    };
    struct PairSlot {
        const std::string* key = nullptr;
        uint64_t value = 0;
        Kind kind = Kind::Dictionary;
        QVLDigest digest{};
    };
    struct SharedSlot {
        const std::string* string = nullptr;
        QVLDigest digest{};
    };
    std::unordered_map<std::string, QVLDigest, StringHash, std::equal_to<>> strings_;
    std::array<SharedSlot, 256> shared_{};
    std::array<NumberSlot, 256> numbers_{};
    std::array<PairSlot, 256> pairs_{};
};

}  // namespace

std::optional<QVLDigest> QVLPropertyListDigest(const plist::Value* value) {
    if (!value) return std::nullopt;
    return Digester().digest(*value);
}

std::optional<QVLDigest> QVLComponentDigest(std::string_view name, const plist::Value* fileManifest) {
    Digester digester;
    QVLDigest result = digester.stringDigest(name);
    if (fileManifest) {
        if (const auto manifestDigest = digester.digest(*fileManifest)) xorInto(result, *manifestDigest);
    }
    return result;
}

}  // namespace qvl
