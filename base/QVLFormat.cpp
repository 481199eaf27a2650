#include "base/QVLFormat.h"

#include <cctype>
#include <cstdio>
#include <cstring>

namespace qvl {
namespace {

// One parsed conversion: "%-08.3llx" gives flags "-0", width "8", precision
// ".3", length "ll" and conversion 'x'.
struct Conversion {
    std::string flags;
    std::string width;
    std::string precision;
    std::string length;
    char conversion = 0;
};

bool isFlag(char c) {
    return c == '-' || c == '+' || c == ' ' || c == '#' || c == '0' || c == '\'';
}
bool isLength(char c) {
    return c == 'h' || c == 'l' || c == 'q' || c == 'z' || c == 'j' || c == 't' || c == 'L';
}
bool isConversion(char c) {
    return strchr("diouxXcsfFeEgGaAp@", c) != nullptr && c != 0;
}

// Parses the conversion starting after '%' at `pos`. Returns false for an
// incomplete or unknown conversion, which is then printed as it stands.
bool parseConversion(std::string_view format, size_t& pos, Conversion& out) {
    size_t i = pos;
    while (i < format.size() && isFlag(format[i])) out.flags += format[i++];
    while (i < format.size() && (isdigit(static_cast<unsigned char>(format[i])) || format[i] == '*'))
        out.width += format[i++];
    if (i < format.size() && format[i] == '.') {
        out.precision += format[i++];
        while (i < format.size() && isdigit(static_cast<unsigned char>(format[i])))
            out.precision += format[i++];
    }
    while (i < format.size() && isLength(format[i]) && out.length.size() < 2) out.length += format[i++];
    if (i >= format.size() || !isConversion(format[i])) return false;
    // A '*' width would take an argument of its own; we keep argument
    // consumption simple and predictable by ignoring it.
    if (out.width.find('*') != std::string::npos) out.width.clear();
    if (out.width.size() > 4) out.width.resize(4);  // bounded field width
    if (out.precision.size() > 5) out.precision.resize(5);
    out.conversion = format[i];
    pos = i + 1;
    return true;
}

std::string describeValue(const QVLLogArg& arg) {
    switch (arg.kind()) {
        case QVLLogArg::Kind::Null:
            return "(null)";
        case QVLLogArg::Kind::String:
            return std::string(arg.stringValue());
        case QVLLogArg::Kind::Signed:
            return std::to_string(arg.signedValue());
        case QVLLogArg::Kind::Unsigned:
            return std::to_string(arg.unsignedValue());
        case QVLLogArg::Kind::Real: {
            char buf[64];
            snprintf(buf, sizeof buf, "%g", arg.realValue());
            return buf;
        }
        case QVLLogArg::Kind::Object:
            return arg.description();
    }
    return "(null)";
}

// The argument as the integer a C vararg of the conversion's length would
// have carried: no length modifier means a 32-bit int, as on the device.
uint64_t integerBits(const QVLLogArg& arg, const std::string& length) {
    uint64_t bits = 0;
    switch (arg.kind()) {
        case QVLLogArg::Kind::Signed:
            bits = static_cast<uint64_t>(arg.signedValue());
            break;
        case QVLLogArg::Kind::Unsigned:
            bits = arg.unsignedValue();
            break;
        case QVLLogArg::Kind::Real:
            bits = static_cast<uint64_t>(static_cast<int64_t>(arg.realValue()));
            break;
        case QVLLogArg::Kind::Object:
            if (auto n = arg.objectInteger()) bits = static_cast<uint64_t>(*n);
            break;
        default:
            break;
    }
    if (length.empty()) return static_cast<uint32_t>(bits);
    if (length == "h") return static_cast<uint16_t>(bits);
    if (length == "hh") return static_cast<uint8_t>(bits);
    return bits;
}

// snprintf into a string of the size the conversion needs (widths are
// bounded to four digits by the parser, so this stays small).
template <class T>
std::string printed(const std::string& pattern, T value) {
    char small[128];
    const int n = snprintf(small, sizeof small, pattern.c_str(), value);
    if (n < 0) return {};
    if (static_cast<size_t>(n) < sizeof small) return std::string(small, static_cast<size_t>(n));
    std::string out(static_cast<size_t>(n) + 1, '\0');
    snprintf(out.data(), out.size(), pattern.c_str(), value);
    out.resize(static_cast<size_t>(n));
    return out;
}

bool signedConversion(char c) {
    return c == 'd' || c == 'i';
}

std::string formatInteger(const Conversion& c, const QVLLogArg& arg) {
    const uint64_t bits = integerBits(arg, c.length);
    std::string pattern = "%" + c.flags + c.width + c.precision;
    if (signedConversion(c.conversion)) {
        int64_t value;
        if (c.length.empty())
            value = static_cast<int32_t>(bits);
        else if (c.length == "h")
            value = static_cast<int16_t>(bits);
        else if (c.length == "hh")
            value = static_cast<int8_t>(bits);
        else
            value = static_cast<int64_t>(bits);
        pattern += "lld";
        return printed(pattern, static_cast<long long>(value));
    }
    pattern += "ll";
    pattern += c.conversion;
    return printed(pattern, static_cast<unsigned long long>(bits));
}

std::string formatReal(const Conversion& c, const QVLLogArg& arg) {
    double d = 0;
    switch (arg.kind()) {
        case QVLLogArg::Kind::Real:
            d = arg.realValue();
            break;
        case QVLLogArg::Kind::Signed:
            d = static_cast<double>(arg.signedValue());
            break;
        case QVLLogArg::Kind::Unsigned:
            d = static_cast<double>(arg.unsignedValue());
            break;
        case QVLLogArg::Kind::Object:
            if (auto r = arg.objectReal())
                d = *r;
            else if (auto n = arg.objectInteger())
                d = static_cast<double>(*n);
            break;
        default:
            break;
    }
    return printed("%" + c.flags + c.width + c.precision + c.conversion, d);
}

std::string formatString(const Conversion& c, const std::string& text) {
    if (c.width.empty() && c.precision.empty()) return text;
    return printed("%" + c.flags + c.width + c.precision + "s", text.c_str());
}

std::string formatOne(const Conversion& c, const QVLLogArg* arg) {
    if (!arg) return "(null)";
    switch (c.conversion) {
        case '@':
            return describeValue(*arg);
        case 's':
            return formatString(c, describeValue(*arg));
        case 'c': {
            if (arg->kind() == QVLLogArg::Kind::String) return std::string(arg->stringValue().substr(0, 1));
            const char ch = static_cast<char>(integerBits(*arg, "hh"));
            return ch ? std::string(1, ch) : std::string();
        }
        case 'p': {
            char buf[32];
            snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(integerBits(*arg, "ll")));
            return buf;
        }
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            return formatReal(c, *arg);
        default:
            // A string or a value that is not a number, given to an integer
            // conversion, is printed as text rather than as a made-up number.
            if (arg->kind() == QVLLogArg::Kind::String || arg->kind() == QVLLogArg::Kind::Null ||
                (arg->kind() == QVLLogArg::Kind::Object && !arg->objectInteger()))
                return describeValue(*arg);
            return formatInteger(c, *arg);
    }
}

}  // namespace

std::string QVLFormat(std::string_view format, const QVLLogArg* args, size_t count) {
    std::string out;
    out.reserve(format.size() + 32);
    size_t next = 0;
    size_t pos = 0;
    while (pos < format.size()) {
        const size_t percent = format.find('%', pos);
        if (percent == std::string_view::npos) {
            out.append(format.substr(pos));
            break;
        }
        out.append(format.substr(pos, percent - pos));
        pos = percent + 1;
        if (pos < format.size() && format[pos] == '%') {
            out += '%';
            ++pos;
            continue;
        }
        Conversion c;
        size_t after = pos;
        if (!parseConversion(format, after, c)) {
            out += '%';
            continue;
        }
        pos = after;
        const QVLLogArg* arg = next < count ? &args[next] : nullptr;
        ++next;
        out += formatOne(c, arg);
    }
    return out;
}

}  // namespace qvl
