// Writer of the XML encoding, in the layout other tools write (tab
// indentation, the standard DOCTYPE, base64 data in lines), so that files diff
// cleanly whoever wrote them. Dates in XML are whole seconds; the binary
// encoding is the one that keeps a date's fraction of a second, bit for bit.

#include <algorithm>
#include <charconv>

#include "plist/PlistCodec.h"
#include "plist/PlistXMLText.h"

namespace qvl::plist {

namespace detail {
namespace {

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
}  // namespace detail

std::string writeXML(const Value& value) {
    return detail::XMLWriter().run(value);
}

}  // namespace qvl::plist
