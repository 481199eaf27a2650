// The XML encoding: a <plist> document read through expat and written in the
// layout other tools write (tab indentation, the standard DOCTYPE, base64 data
// in lines), so that files diff cleanly whoever wrote them.
//
// Dates in XML are whole seconds; the binary encoding is the one that keeps a
// date's fraction of a second, bit for bit.

#include <expat.h>

#include <charconv>
#include <cmath>
#include <cstring>
#include <memory>

#include "plist/PlistCodec.h"

namespace qvl::plist {

namespace detail {
namespace {

// ---------------------------------------------------------------------------
// Text forms of leaf values

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && isSpace(s.front())) s.remove_prefix(1);
    while (!s.empty() && isSpace(s.back())) s.remove_suffix(1);
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

// White space anywhere is skipped; padding is optional but, when present,
// must end the text.
std::optional<Data> decodeBase64(std::string_view text) {
    Data out;
    out.reserve(text.size() / 4 * 3);
    uint32_t bits = 0;
    size_t digits = 0, padding = 0;
    for (char c : text) {
        if (isSpace(c)) continue;
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

// Whole seconds, rounded down; nullopt outside the years 0..9999, which
// are all that four year digits can say.
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

// Decimal with an optional sign, or hexadecimal after "0x"; the whole range
// from -2^63 to 2^64-1. Values above INT64_MAX are unsigned.
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

// The shortest text that reads back as the same double, in the form Python's
// repr() gives it ("1.0", "0.1", "1e+16", "-inf"), which is what the other
// tools in use here write.
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

// ---------------------------------------------------------------------------
// Reader

enum class Tag { Plist, Dict, Array, Key, String, Data, Date, Integer, Real, True, False };

std::optional<Tag> tagNamed(std::string_view name) {
    static constexpr std::pair<std::string_view, Tag> kTags[] = {
        {"plist", Tag::Plist},   {"dict", Tag::Dict}, {"array", Tag::Array}, {"key", Tag::Key},
        {"string", Tag::String}, {"data", Tag::Data}, {"date", Tag::Date},   {"integer", Tag::Integer},
        {"real", Tag::Real},     {"true", Tag::True}, {"false", Tag::False},
    };
    for (const auto& [n, tag] : kTags)
        if (n == name) return tag;
    return std::nullopt;
}

bool isContainer(Tag t) {
    return t == Tag::Dict || t == Tag::Array;
}
bool holdsText(Tag t) {
    return t == Tag::Key || t == Tag::String || t == Tag::Data || t == Tag::Date || t == Tag::Integer ||
           t == Tag::Real;
}

struct ParserDeleter {
    void operator()(XML_Parser p) const { XML_ParserFree(p); }
};

class XMLReader {
  public:
    explicit XMLReader(ReadError* error) : error_(error) {}

    std::optional<Value> run(std::span<const uint8_t> bytes) {
        std::unique_ptr<XML_ParserStruct, ParserDeleter> parser(XML_ParserCreate(nullptr));
        if (!parser) return fail(error_, ReadError::kCorrupt, "XML property list: cannot create a parser");
        parser_ = parser.get();
        XML_SetUserData(parser_, this);
        XML_SetElementHandler(parser_, &XMLReader::onStart, &XMLReader::onEnd);
        XML_SetCharacterDataHandler(parser_, &XMLReader::onText);
        // Entities are the one way a small document becomes a huge one; a
        // property list never needs its own, so any declaration is refused.
        XML_SetStartDoctypeDeclHandler(parser_, &XMLReader::onDoctype);
        XML_SetEntityDeclHandler(parser_, &XMLReader::onEntityDecl);
        XML_SetSkippedEntityHandler(parser_, &XMLReader::onSkippedEntity);

        const char* p = reinterpret_cast<const char*>(bytes.data());
        size_t left = bytes.size();
        // XML_Parse takes an int length; feed large documents in pieces.
        constexpr size_t kChunk = 1 << 30;
        do {
            const size_t n = std::min(left, kChunk);
            left -= n;
            if (XML_Parse(parser_, p, static_cast<int>(n), left == 0) != XML_STATUS_OK) {
                if (failed_) return std::nullopt;
                return fail(error_, ReadError::kCorrupt,
                            "XML property list: line " + std::to_string(XML_GetCurrentLineNumber(parser_)) +
                                ": " + XML_ErrorString(XML_GetErrorCode(parser_)));
            }
            p += n;
        } while (left > 0);
        if (!result_) return fail(error_, ReadError::kCorrupt, "XML property list: no <plist> element");
        return std::move(result_);
    }

  private:
    struct Frame {
        Tag tag;
        Array items;                             // <array>
        std::vector<Dictionary::Entry> entries;  // <dict>
        std::optional<std::string> key;          // <dict>: a key waiting for its value
        std::optional<Value> value;              // <plist>: its one value
    };

    void stop(int code, std::string message) {
        if (failed_) return;
        failed_ = true;
        fail(error_, code,
             "XML property list: line " + std::to_string(XML_GetCurrentLineNumber(parser_)) + ": " + message);
        XML_StopParser(parser_, XML_FALSE);
    }

    static XMLReader& self(void* data) { return *static_cast<XMLReader*>(data); }

    static void onDoctype(void* data, const XML_Char*, const XML_Char*, const XML_Char*,
                          int hasInternalSubset) {
        if (hasInternalSubset)
            self(data).stop(ReadError::kUnsupported, "a DOCTYPE with its own declarations is not accepted");
    }
    static void onEntityDecl(void* data, const XML_Char* name, int, const XML_Char*, int, const XML_Char*,
                             const XML_Char*, const XML_Char*, const XML_Char*) {
        self(data).stop(ReadError::kUnsupported,
                        std::string("entity declaration \"") + name + "\" is not accepted");
    }
    static void onSkippedEntity(void* data, const XML_Char* name, int) {
        self(data).stop(ReadError::kCorrupt, std::string("undefined entity \"") + name + "\"");
    }
    static void onStart(void* data, const XML_Char* name, const XML_Char**) { self(data).start(name); }
    static void onEnd(void* data, const XML_Char*) { self(data).end(); }
    static void onText(void* data, const XML_Char* s, int len) {
        self(data).text(std::string_view(s, static_cast<size_t>(len)));
    }

    void start(std::string_view name) {
        if (failed_) return;
        const std::optional<Tag> tag = tagNamed(name);
        if (!tag) return stop(ReadError::kUnsupported, "unknown element <" + std::string(name) + ">");
        if (stack_.empty()) {
            if (*tag != Tag::Plist || result_)
                return stop(ReadError::kCorrupt, "the document element is not <plist>");
            stack_.push_back({Tag::Plist, {}, {}, {}, {}});
            return;
        }
        const Frame& parent = stack_.back();
        if (*tag == Tag::Plist) return stop(ReadError::kCorrupt, "<plist> inside another element");
        if (!isContainer(parent.tag) && parent.tag != Tag::Plist)
            return stop(ReadError::kCorrupt, "<" + std::string(name) + "> inside a value element");
        if (parent.tag == Tag::Plist && parent.value)
            return stop(ReadError::kCorrupt, "<plist> holds more than one value");
        if (parent.tag == Tag::Dict) {
            if (*tag == Tag::Key && parent.key)
                return stop(ReadError::kCorrupt, "two <key> elements in a row");
            if (*tag != Tag::Key && !parent.key)
                return stop(ReadError::kCorrupt, "a value without a <key> in <dict>");
        } else if (*tag == Tag::Key) {
            return stop(ReadError::kCorrupt, "<key> outside a <dict>");
        }
        if (isContainer(*tag) && ++containerDepth_ > kMaxDepth)
            return stop(ReadError::kTooDeep, "nesting deeper than " + std::to_string(kMaxDepth));
        stack_.push_back({*tag, {}, {}, {}, {}});
        text_.clear();
    }

    void text(std::string_view s) {
        if (failed_ || stack_.empty()) return;
        if (holdsText(stack_.back().tag)) {
            text_.append(s);
            return;
        }
        for (char c : s)
            if (!isSpace(c)) return stop(ReadError::kCorrupt, "text outside a value element");
    }

    void end() {
        if (failed_) return;
        Frame frame = std::move(stack_.back());
        stack_.pop_back();
        if (frame.tag == Tag::Plist) {
            if (!frame.value) return stop(ReadError::kCorrupt, "<plist> holds no value");
            result_ = std::move(frame.value);
            return;
        }
        if (frame.tag == Tag::Key) {
            stack_.back().key = std::move(text_);
            return;
        }
        std::optional<Value> value = finish(frame);
        if (!value) return;
        Frame& parent = stack_.back();
        if (parent.tag == Tag::Plist)
            parent.value = std::move(value);
        else if (parent.tag == Tag::Array)
            parent.items.push_back(std::move(*value));
        else
            parent.entries.emplace_back(std::move(*parent.key), std::move(*value)), parent.key.reset();
    }

    std::optional<Value> finish(Frame& frame) {
        switch (frame.tag) {
            case Tag::Dict:
                --containerDepth_;
                if (frame.key)
                    return stop(ReadError::kCorrupt, "<key> without a value in <dict>"), std::nullopt;
                return Value(makeDictionary(std::move(frame.entries)));
            case Tag::Array:
                --containerDepth_;
                return Value(std::move(frame.items));
            case Tag::String:
                return Value(std::move(text_));
            case Tag::Data:
                if (auto d = decodeBase64(text_)) return Value(std::move(*d));
                return stop(ReadError::kCorrupt, "<data> is not valid base64"), std::nullopt;
            case Tag::Date:
                if (auto d = parseDate(text_)) return Value(*d);
                return stop(ReadError::kCorrupt,
                            "<date> \"" + text_.substr(0, 64) + "\" is not YYYY-MM-DDTHH:MM:SSZ"),
                       std::nullopt;
            case Tag::Integer:
                if (auto i = parseInteger(text_)) return Value(*i);
                return stop(ReadError::kCorrupt,
                            "<integer> \"" + text_.substr(0, 64) + "\" is not an integer in range"),
                       std::nullopt;
            case Tag::Real:
                if (auto r = parseReal(text_)) return Value(*r);
                return stop(ReadError::kCorrupt, "<real> \"" + text_.substr(0, 64) + "\" is not a number"),
                       std::nullopt;
            case Tag::True:
                return Value(true);
            case Tag::False:
                return Value(false);
            case Tag::Plist:
            case Tag::Key:
                break;
        }
        return std::nullopt;
    }

    ReadError* error_;
    XML_Parser parser_ = nullptr;
    bool failed_ = false;
    std::vector<Frame> stack_;
    std::string text_;
    int containerDepth_ = 0;
    std::optional<Value> result_;
};

// ---------------------------------------------------------------------------
// Writer

class XMLWriter {
  public:
    std::string run(const Value& top) {
        out_ =
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
            "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
            "<plist version=\"1.0\">\n";
        if (!value(top, 0, 0)) return {};
        out_ += "</plist>\n";
        return std::move(out_);
    }

  private:
    void indent(int level) { out_.append(static_cast<size_t>(level), '\t'); }

    // Escapes markup characters and keeps a carriage return as a character
    // reference (a parser would turn a literal one into a line feed). Text
    // that XML 1.0 cannot carry (other control characters, U+FFFE, U+FFFF,
    // invalid UTF-8) makes the whole value unencodable.
    bool escaped(std::string_view s) {
        if (!isValidUTF8(s)) return false;
        for (size_t i = 0; i < s.size(); ++i) {
            const auto c = static_cast<unsigned char>(s[i]);
            switch (c) {
                case '&':
                    out_ += "&amp;";
                    break;
                case '<':
                    out_ += "&lt;";
                    break;
                case '>':
                    out_ += "&gt;";
                    break;
                case '\r':
                    out_ += "&#13;";
                    break;
                case '\t':
                case '\n':
                    out_ += static_cast<char>(c);
                    break;
                default:
                    if (c < 0x20) return false;
                    // U+FFFE and U+FFFF are EF BF BE / EF BF BF.
                    if (c == 0xEF && i + 2 < s.size() && static_cast<unsigned char>(s[i + 1]) == 0xBF &&
                        static_cast<unsigned char>(s[i + 2]) >= 0xBE)
                        return false;
                    out_ += static_cast<char>(c);
            }
        }
        return true;
    }

    bool element(int level, const char* tag, std::string_view text) {
        indent(level);
        out_ += '<';
        out_ += tag;
        out_ += '>';
        out_ += text;
        out_ += "</";
        out_ += tag;
        out_ += ">\n";
        return true;
    }

    bool data(const Data& d, int level) {
        indent(level);
        out_ += "<data>\n";
        // Lines as wide as fit in 76 columns at this indentation (a tab
        // counting 8), never narrower than 16.
        const size_t lineChars = static_cast<size_t>(std::max(16, 76 - 8 * level));
        const size_t lineBytes = lineChars / 4 * 3;
        for (size_t i = 0; i < d.size(); i += lineBytes) {
            indent(level);
            appendBase64(d.data() + i, std::min(lineBytes, d.size() - i), out_);
            out_ += '\n';
        }
        indent(level);
        out_ += "</data>\n";
        return true;
    }

    bool value(const Value& v, int level, int depth) {
        char buf[32];
        switch (v.kind()) {
            case Kind::Dictionary: {
                if (depth + 1 > kMaxDepth) return false;
                const Dictionary& d = *v.asDictionary();
                indent(level);
                if (d.empty()) return out_ += "<dict/>\n", true;
                out_ += "<dict>\n";
                for (const auto& [key, item] : d) {
                    indent(level + 1);
                    out_ += "<key>";
                    if (!escaped(key)) return false;
                    out_ += "</key>\n";
                    if (!value(item, level + 1, depth + 1)) return false;
                }
                indent(level);
                out_ += "</dict>\n";
                return true;
            }
            case Kind::Array: {
                if (depth + 1 > kMaxDepth) return false;
                const Array& a = *v.asArray();
                indent(level);
                if (a.empty()) return out_ += "<array/>\n", true;
                out_ += "<array>\n";
                for (const Value& item : a)
                    if (!value(item, level + 1, depth + 1)) return false;
                indent(level);
                out_ += "</array>\n";
                return true;
            }
            case Kind::String:
                indent(level);
                out_ += "<string>";
                if (!escaped(*v.asString())) return false;
                out_ += "</string>\n";
                return true;
            case Kind::Data:
                return data(*v.asData(), level);
            case Kind::Integer: {
                const Integer& n = *v.asInteger();
                auto end = n.isNegative() ? std::to_chars(buf, buf + sizeof buf, n.asSigned()).ptr
                                          : std::to_chars(buf, buf + sizeof buf, n.asUnsigned()).ptr;
                return element(level, "integer", std::string_view(buf, static_cast<size_t>(end - buf)));
            }
            case Kind::Real:
                return element(level, "real", formatReal(*v.asReal()));
            case Kind::Boolean:
                indent(level);
                out_ += *v.asBoolean() ? "<true/>\n" : "<false/>\n";
                return true;
            case Kind::Date: {
                const auto text = formatDate(*v.asDate());
                return text && element(level, "date", *text);
            }
        }
        return false;
    }

    std::string out_;
};

}  // namespace

std::optional<Value> readXML(std::span<const uint8_t> bytes, ReadError* error) {
    return XMLReader(error).run(bytes);
}

}  // namespace detail

std::string writeXML(const Value& value) {
    return detail::XMLWriter().run(value);
}

}  // namespace qvl::plist
