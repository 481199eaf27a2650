// Encoding pieces shared by the two binary ("bplist00") writers: the one that
// lays out a whole value at once and the one that writes a large dictionary
// entry by entry. Not part of the public interface.
//
// Thread-safety: functions only, reentrant.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "plist/PlistBinaryFormat.h"
#include "plist/PlistValue.h"

namespace qvl::plist::detail {

// The width of the smallest field holding `maxValue`. Only power-of-two
// widths: every reader accepts those.
inline unsigned widthFor(uint64_t maxValue) {
    if (maxValue <= 0xFF) return 1;
    if (maxValue <= 0xFFFF) return 2;
    if (maxValue <= 0xFFFFFFFF) return 4;
    return 8;
}

template <class Out>
void appendBE(Out& out, uint64_t v, unsigned width) {
    // One append of the lowest `width` bytes: byte by byte costs a check of
    // room per byte, and a manifest writes millions of these.
    uint64_t big = v << (8 * (8 - width));
    if constexpr (std::endian::native == std::endian::little) big = __builtin_bswap64(big);
    char bytes[8];
    std::memcpy(bytes, &big, sizeof(bytes));
    out.append(bytes, width);
}

template <class Out>
void appendInteger(Out& out, const Integer& n) {
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

template <class Out>
void appendMarker(Out& out, uint8_t kind, uint64_t count) {
    if (count < kCountFollows) {
        out.push_back(static_cast<char>(kind << 4 | count));
        return;
    }
    out.push_back(static_cast<char>(kind << 4 | kCountFollows));
    appendInteger(out, Integer::fromSigned(static_cast<int64_t>(count)));
}

// Encodes `v` when it is a scalar (data, integer, real, date, boolean);
// false, with nothing written, for strings and containers, whose encoding
// depends on the writer.
template <class Out>
bool appendScalar(Out& out, const Value& v) {
    switch (v.kind()) {
        case Kind::Data:
            appendMarker(out, kData, v.asData()->size());
            out.append(reinterpret_cast<const char*>(v.asData()->data()), v.asData()->size());
            return true;
        case Kind::Integer:
            appendInteger(out, *v.asInteger());
            return true;
        case Kind::Real:
            out.push_back(0x23);
            appendBE(out, std::bit_cast<uint64_t>(*v.asReal()), 8);
            return true;
        case Kind::Date:
            out.push_back(0x33);
            appendBE(out, std::bit_cast<uint64_t>(v.asDate()->secondsSince2001), 8);
            return true;
        case Kind::Boolean:
            out.push_back(static_cast<char>(*v.asBoolean() ? kTrue : kFalse));
            return true;
        case Kind::String:
        case Kind::Array:
        case Kind::Dictionary:
            return false;
    }
    return false;
}

// A quick multiply-mix over 8-byte words; callers spread the result further.
// Keys and paths are short, so this beats a general purpose byte hash by a
// wide margin.
inline uint64_t hashBytes(std::string_view s) {
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

}  // namespace qvl::plist::detail
