#include "tools/plexactl/Text.h"

#include <charconv>

namespace qvl::plexactl {

namespace {

void appendUTF8(std::string& out, uint32_t cp) {
    if (cp < 0x80) {
        out += char(cp);
    } else if (cp < 0x800) {
        out += char(0xC0 | (cp >> 6));
        out += char(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += char(0xE0 | (cp >> 12));
        out += char(0x80 | ((cp >> 6) & 0x3F));
        out += char(0x80 | (cp & 0x3F));
    } else {
        out += char(0xF0 | (cp >> 18));
        out += char(0x80 | ((cp >> 12) & 0x3F));
        out += char(0x80 | ((cp >> 6) & 0x3F));
        out += char(0x80 | (cp & 0x3F));
    }
}

}  // namespace

std::optional<uint64_t> parseSize(std::string_view text) {
    uint64_t value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end == text.data()) return std::nullopt;
    std::string_view suffix(end, size_t(text.data() + text.size() - end));
    unsigned shift = 0;
    if (suffix == "K" || suffix == "k")
        shift = 10;
    else if (suffix == "M" || suffix == "m")
        shift = 20;
    else if (suffix == "G" || suffix == "g")
        shift = 30;
    else if (!suffix.empty())
        return std::nullopt;
    if (shift && value > (UINT64_MAX >> shift)) return std::nullopt;
    return value << shift;
}

std::optional<int> parseIndex(std::string_view text) {
    int value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || value < 0) return std::nullopt;
    return value;
}

std::string utf16leName(const uint8_t* name, size_t size) {
    std::string out;
    for (size_t i = 0; i + 1 < size; i += 2) {
        uint32_t unit = uint32_t(name[i] | (name[i + 1] << 8));
        if (unit == 0) break;
        if (unit >= 0xD800 && unit < 0xDC00 && i + 3 < size) {
            uint32_t low = uint32_t(name[i + 2] | (name[i + 3] << 8));
            if (low >= 0xDC00 && low < 0xE000) {
                appendUTF8(out, 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00));
                i += 2;
                continue;
            }
        }
        appendUTF8(out, unit >= 0xD800 && unit < 0xE000 ? 0xFFFD : unit);
    }
    return out;
}

}  // namespace qvl::plexactl
