#include "base/QVLFormat.h"

#include <cctype>
#include <cstdio>
#include <cstring>

namespace qvl {
namespace {

// One parsed conversion: "%-08.3llx" gives flags "-0", width "8", precision
// ".3", length "ll" and conversion 'x'. The parts are views of the format.
struct Conversion {
    std::string_view flags;
    std::string_view width;
    std::string_view precision;
    std::string_view length;
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
    // The characters from `i` on that `accepted` takes, as a view.
    const auto take = [&](auto accepted, size_t most = std::string_view::npos) {
        const size_t start = i;
        while (i < format.size() && i - start < most && accepted(format[i])) ++i;
        return format.substr(start, i - start);
    };
    out.flags = take(isFlag);
    out.width = take([](char c) { return isdigit(static_cast<unsigned char>(c)) || c == '*'; });
    if (i < format.size() && format[i] == '.') {
        const size_t start = i++;
        take([](char c) { return isdigit(static_cast<unsigned char>(c)) != 0; });
        out.precision = format.substr(start, i - start);
    }
    out.length = take(isLength, 2);
    if (i >= format.size() || !isConversion(format[i])) return false;
    // A '*' width would take an argument of its own; we keep argument
    // consumption simple and predictable by ignoring it.
    if (out.width.find('*') != std::string_view::npos) out.width = {};
    out.width = out.width.substr(0, 4);  // bounded field width
    out.precision = out.precision.substr(0, 5);
    out.conversion = format[i];
    pos = i + 1;
    return true;
}

void appendDescription(std::string& out, const QVLLogArg& arg) {
    switch (arg.kind()) {
        case QVLLogArg::Kind::Null:
            out += "(null)";
            return;
        case QVLLogArg::Kind::String:
            out += arg.stringValue();
            return;
        case QVLLogArg::Kind::Signed:
            out += std::to_string(arg.signedValue());
            return;
        case QVLLogArg::Kind::Unsigned:
            out += std::to_string(arg.unsignedValue());
            return;
        case QVLLogArg::Kind::Real: {
            char buf[64];
            snprintf(buf, sizeof buf, "%g", arg.realValue());
            out += buf;
            return;
        }
        case QVLLogArg::Kind::Object:
            out += arg.description();
            return;
    }
}

std::string describeValue(const QVLLogArg& arg) {
    std::string out;
    appendDescription(out, arg);
    return out;
}

// The argument as the integer a C vararg of the conversion's length would
// have carried: no length modifier means a 32-bit int, as on the device.
uint64_t integerBits(const QVLLogArg& arg, std::string_view length) {
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

// "%", the flags, the width and the precision of a conversion.
std::string patternStart(const Conversion& c) {
    std::string pattern = "%";
    pattern.append(c.flags).append(c.width).append(c.precision);
    return pattern;
}

bool signedConversion(char c) {
    return c == 'd' || c == 'i';
}

std::string formatInteger(const Conversion& c, const QVLLogArg& arg) {
    const uint64_t bits = integerBits(arg, c.length);
    std::string pattern = patternStart(c);
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
    return printed(patternStart(c) + c.conversion, d);
}

// A string in a field of the conversion's width or precision.
std::string formatString(const Conversion& c, const std::string& text) {
    return printed(patternStart(c) + "s", text.c_str());
}

void appendOne(std::string& out, const Conversion& c, const QVLLogArg* arg) {
    if (!arg) {
        out += "(null)";
        return;
    }
    switch (c.conversion) {
        case '@':
            return appendDescription(out, *arg);
        case 's':
            if (c.width.empty() && c.precision.empty()) return appendDescription(out, *arg);
            out += formatString(c, describeValue(*arg));
            return;
        case 'c': {
            if (arg->kind() == QVLLogArg::Kind::String) {
                out += arg->stringValue().substr(0, 1);
                return;
            }
            const char ch = static_cast<char>(integerBits(*arg, "hh"));
            if (ch) out += ch;
            return;
        }
        case 'p': {
            char buf[32];
            snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(integerBits(*arg, "ll")));
            out += buf;
            return;
        }
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            out += formatReal(c, *arg);
            return;
        default:
            // A string or a value that is not a number, given to an integer
            // conversion, is printed as text rather than as a made-up number.
            if (arg->kind() == QVLLogArg::Kind::String || arg->kind() == QVLLogArg::Kind::Null ||
                (arg->kind() == QVLLogArg::Kind::Object && !arg->objectInteger()))
                return appendDescription(out, *arg);
            out += formatInteger(c, *arg);
    }
}

}  // namespace

void QVLFormatAppend(std::string& out, std::string_view format, const QVLLogArg* args, size_t count) {
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
        appendOne(out, c, next < count ? &args[next] : nullptr);
        ++next;
    }
}

std::string QVLFormat(std::string_view format, const QVLLogArg* args, size_t count) {
    std::string out;
    out.reserve(format.size() + 32);
    QVLFormatAppend(out, format, args, count);
    return out;
}

}  // namespace qvl
