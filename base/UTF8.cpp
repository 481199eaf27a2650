#include "base/UTF8.h"

#include <cstdint>
#include <cstring>

namespace qvl {

namespace {

// Decodes one UTF-8 sequence at s[i]; returns its length, or 0 when invalid.
size_t decodeUTF8(std::string_view s, size_t i, uint32_t& cp) {
    const auto byte = [&](size_t k) { return static_cast<uint8_t>(s[k]); };
    const uint8_t b0 = byte(i);
    if (b0 < 0x80) {
        cp = b0;
        return 1;
    }
    size_t len;
    uint32_t min;
    if ((b0 & 0xE0) == 0xC0) {
        len = 2, cp = b0 & 0x1F, min = 0x80;
    } else if ((b0 & 0xF0) == 0xE0) {
        len = 3, cp = b0 & 0x0F, min = 0x800;
    } else if ((b0 & 0xF8) == 0xF0) {
        len = 4, cp = b0 & 0x07, min = 0x10000;
    } else {
        return 0;
    }
    if (i + len > s.size()) return 0;
    for (size_t k = 1; k < len; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80) return 0;
        cp = (cp << 6) | (byte(i + k) & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
    return len;
}

void appendUTF8(uint32_t cp, std::string& out) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | cp >> 6));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | cp >> 12));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | cp >> 18));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

}  // namespace

bool isValidUTF8(std::string_view s) {
    uint32_t cp;
    for (size_t i = 0; i < s.size();) {
        // Keys, paths and names are mostly ASCII: eight bytes at a time while
        // no byte has its high bit set.
        uint64_t word;
        if (s.size() - i >= sizeof word) {
            std::memcpy(&word, s.data() + i, sizeof word);
            if ((word & 0x8080808080808080ULL) == 0) {
                i += sizeof word;
                continue;
            }
        }
        const size_t len = decodeUTF8(s, i, cp);
        if (len == 0) return false;
        i += len;
    }
    return true;
}

bool appendUTF16(std::string_view s, std::vector<uint16_t>& out) {
    const size_t before = out.size();
    uint32_t cp;
    for (size_t i = 0; i < s.size();) {
        const size_t len = decodeUTF8(s, i, cp);
        if (len == 0) {
            out.resize(before);
            return false;
        }
        i += len;
        if (cp < 0x10000) {
            out.push_back(static_cast<uint16_t>(cp));
        } else {
            cp -= 0x10000;
            out.push_back(static_cast<uint16_t>(0xD800 | cp >> 10));
            out.push_back(static_cast<uint16_t>(0xDC00 | (cp & 0x3FF)));
        }
    }
    return true;
}

bool appendUTF8FromUTF16(const uint16_t* units, size_t count, std::string& out) {
    const size_t before = out.size();
    out.reserve(before + count);
    for (size_t i = 0; i < count; ++i) {
        uint32_t cp = units[i];
        const bool low = cp >= 0xDC00 && cp <= 0xDFFF;
        const bool high = cp >= 0xD800 && cp <= 0xDBFF;
        if (low || (high && (i + 1 == count || units[i + 1] < 0xDC00 || units[i + 1] > 0xDFFF))) {
            out.resize(before);
            return false;
        }
        if (high) cp = 0x10000 + ((cp - 0xD800) << 10) + (units[++i] - 0xDC00);
        appendUTF8(cp, out);
    }
    return true;
}

}  // namespace qvl
