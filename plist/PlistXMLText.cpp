#include "plist/PlistXMLText.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace qvl::plist::detail {

bool isXMLSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

namespace {

std::string_view trim(std::string_view s) {
    while (!s.empty() && isXMLSpace(s.front())) s.remove_prefix(1);
    while (!s.empty() && isXMLSpace(s.back())) s.remove_suffix(1);
    return s;
}

constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int base64Digit(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

// Days between 1970-01-01 and the given civil date (proleptic Gregorian).
int64_t daysFromCivil(int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

void civilFromDays(int64_t z, int64_t& y, unsigned& m, unsigned& d) {
    z += 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    d = doy - (153 * mp + 2) / 5 + 1;
    m = mp < 10 ? mp + 3 : mp - 9;
    y = static_cast<int64_t>(yoe) + era * 400 + (m <= 2);
}

constexpr int64_t kDays1970To2001 = 11323;

}  // namespace

std::optional<Data> decodeBase64(std::string_view text) {
    Data out;
    out.reserve(text.size() / 4 * 3);
    uint32_t bits = 0;
    size_t digits = 0, padding = 0;
    for (char c : text) {
        if (isXMLSpace(c)) continue;
        if (c == '=') {
            ++padding;
            continue;
        }
        const int d = base64Digit(c);
        if (d < 0 || padding) return std::nullopt;
        bits = (bits << 6) | static_cast<uint32_t>(d);
        if (++digits % 4 == 0) {
            out.push_back(static_cast<uint8_t>(bits >> 16));
            out.push_back(static_cast<uint8_t>(bits >> 8));
            out.push_back(static_cast<uint8_t>(bits));
            bits = 0;
        }
    }
    const size_t tail = digits % 4;
    if (tail == 1 || padding > 2 || (padding && tail + padding != 4)) return std::nullopt;
    if (tail == 2) out.push_back(static_cast<uint8_t>(bits >> 4));
    if (tail == 3) {
        out.push_back(static_cast<uint8_t>(bits >> 10));
        out.push_back(static_cast<uint8_t>(bits >> 2));
    }
    return out;
}

void appendBase64(const uint8_t* p, size_t n, std::string& out) {
    for (size_t i = 0; i < n; i += 3) {
        const uint32_t b = p[i] << 16 | (i + 1 < n ? p[i + 1] << 8 : 0) | (i + 2 < n ? p[i + 2] : 0);
        out.push_back(kBase64[b >> 18]);
        out.push_back(kBase64[(b >> 12) & 63]);
        out.push_back(i + 1 < n ? kBase64[(b >> 6) & 63] : '=');
        out.push_back(i + 2 < n ? kBase64[b & 63] : '=');
    }
}

std::optional<Date> parseDate(std::string_view text) {
    text = trim(text);
    // YYYY-MM-DDTHH:MM:SSZ
    static constexpr std::string_view kShape = "dddd-dd-ddTdd:dd:ddZ";
    if (text.size() != kShape.size()) return std::nullopt;
    for (size_t i = 0; i < kShape.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (kShape[i] == 'd' ? !digit : text[i] != kShape[i]) return std::nullopt;
    }
    const auto num = [&](size_t at, size_t len) {
        unsigned v = 0;
        for (size_t i = at; i < at + len; ++i) v = v * 10 + static_cast<unsigned>(text[i] - '0');
        return v;
    };
    const unsigned year = num(0, 4), month = num(5, 2), day = num(8, 2);
    const unsigned hour = num(11, 2), minute = num(14, 2), second = num(17, 2);
    static constexpr unsigned kMonthDays[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month < 1 || month > 12 || day < 1 || day > kMonthDays[month - 1] || hour > 23 || minute > 59 ||
        second > 59)
        return std::nullopt;
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    if (month == 2 && day == 29 && !leap) return std::nullopt;
    const int64_t days = daysFromCivil(year, month, day) - kDays1970To2001;
    return Date{static_cast<double>(days * 86400 + hour * 3600 + minute * 60 + second)};
}

std::optional<std::string> formatDate(const Date& date) {
    const double seconds = std::floor(date.secondsSince2001);
    // 0000-01-01 and 9999-12-31T23:59:59 relative to 2001-01-01.
    if (!(seconds >= -63145526400.0 && seconds <= 252423993599.0)) return std::nullopt;
    const auto whole = static_cast<int64_t>(seconds);
    int64_t days = whole / 86400, rest = whole % 86400;
    if (rest < 0) rest += 86400, --days;
    int64_t year;
    unsigned month, day;
    civilFromDays(days + kDays1970To2001, year, month, day);
    char buf[32];
    snprintf(buf, sizeof buf, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(year), month, day,
             static_cast<int>(rest / 3600), static_cast<int>(rest / 60 % 60), static_cast<int>(rest % 60));
    return std::string(buf);
}

std::optional<Integer> parseInteger(std::string_view text) {
    text = trim(text);
    bool negative = false;
    if (!text.empty() && (text[0] == '-' || text[0] == '+')) {
        negative = text[0] == '-';
        text.remove_prefix(1);
    }
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    uint64_t magnitude = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
    if (!negative)
        return magnitude > static_cast<uint64_t>(INT64_MAX)
                   ? Integer::fromUnsigned(magnitude)
                   : Integer::fromSigned(static_cast<int64_t>(magnitude));
    if (magnitude > (uint64_t{1} << 63)) return std::nullopt;
    return Integer{~magnitude + 1, false};
}

std::optional<double> parseReal(std::string_view text) {
    text = trim(text);
    if (text.size() > 1 && text[0] == '+' && text[1] != '-') text.remove_prefix(1);
    double v = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
    // Out-of-range magnitudes become infinity or zero, as strtod makes them.
    if (text.empty() || end != text.data() + text.size() ||
        (ec != std::errc() && ec != std::errc::result_out_of_range))
        return std::nullopt;
    if (ec == std::errc::result_out_of_range) v = std::strtod(std::string(text).c_str(), nullptr);
    return v;
}

std::string formatReal(double v) {
    if (std::isnan(v)) return "nan";
    if (std::isinf(v)) return v < 0 ? "-inf" : "inf";
    char buf[64];
    auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v, std::chars_format::scientific);
    const std::string_view sci(buf, static_cast<size_t>(end - buf));
    const size_t e = sci.find('e');
    const bool negative = sci[0] == '-';
    std::string digits;
    for (char c : sci.substr(negative, e - negative))
        if (c != '.') digits.push_back(c);
    int exponent = 0;
    std::from_chars(sci.data() + e + (sci[e + 1] == '+' ? 2 : 1), sci.data() + sci.size(), exponent);
    std::string out = negative ? "-" : "";
    const int n = static_cast<int>(digits.size());
    if (exponent >= -4 && exponent < 16) {
        if (exponent < 0) {
            out += "0." + std::string(static_cast<size_t>(-exponent - 1), '0') + digits;
        } else if (n <= exponent + 1) {
            out += digits + std::string(static_cast<size_t>(exponent + 1 - n), '0') + ".0";
        } else {
            out += digits.substr(0, static_cast<size_t>(exponent + 1)) + "." +
                   digits.substr(static_cast<size_t>(exponent + 1));
        }
        return out;
    }
    out += digits.substr(0, 1);
    if (n > 1) out += "." + digits.substr(1);
    snprintf(buf, sizeof buf, "e%c%02d", exponent < 0 ? '-' : '+', std::abs(exponent));
    return out + buf;
}

}  // namespace qvl::plist::detail
