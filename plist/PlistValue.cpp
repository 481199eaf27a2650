#include "plist/PlistValue.h"

#include "plist/PlistCodec.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace qvl::plist {

// ---------------------------------------------------------------------------
// Date

Date Date::now() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return fromUnix(static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9);
}

// ---------------------------------------------------------------------------
// Value

Value::Value(Dictionary d) {
    new (raw_) Dictionary(std::move(d));
    raw_[kKindByte] = static_cast<unsigned char>(Kind::Dictionary);
    as<Dictionary>()->shareKeys();
}

Value::Value(Array a) {
    setPointer(Kind::Array, new Array(std::move(a)));
}

Value::Value(Data d) {
    setPointer(Kind::Data, d.empty() ? nullptr : detail::makeBytes(std::move(d)));
}

Value::Value(const Value& other) {
    copyFrom(other);
}

Value::Value(Value&& other) noexcept {
    moveFrom(other);
}

void Value::moveFrom(Value& other) noexcept {
    if (other.isDictionary()) {
        new (raw_) Dictionary(std::move(*other.as<Dictionary>()));
        raw_[kKindByte] = static_cast<unsigned char>(Kind::Dictionary);
        other.as<Dictionary>()->~Dictionary();
    } else {
        std::memcpy(raw_, other.raw_, sizeof raw_);
    }
    other.setPointer(Kind::String, nullptr);
}

Value& Value::operator=(const Value& other) {
    if (this != &other) *this = Value(other);
    return *this;
}

Value& Value::operator=(Value&& other) noexcept {
    if (this != &other) {
        // `other` may lie inside this value: take it before letting go of ours.
        Value taken(std::move(other));
        destroy();
        moveFrom(taken);
    }
    return *this;
}

void Value::copyFrom(const Value& other) {
    switch (other.kind()) {
        case Kind::Dictionary:
            new (raw_) Dictionary(*other.as<Dictionary>());
            raw_[kKindByte] = static_cast<unsigned char>(Kind::Dictionary);
            return;
        case Kind::Array:
            setPointer(Kind::Array, new Array(*other.pointer<Array>()));
            return;
        case Kind::String:
            if (detail::Text* t = other.pointer<detail::Text>()) detail::retain(t);
            break;
        case Kind::Data:
            if (detail::Bytes* b = other.pointer<detail::Bytes>())
                b->references.fetch_add(1, std::memory_order_relaxed);
            break;
        case Kind::Integer:
        case Kind::Real:
        case Kind::Boolean:
        case Kind::Date:
            break;
    }
    std::memcpy(raw_, other.raw_, sizeof raw_);
}

void Value::destroy() noexcept {
    switch (kind()) {
        case Kind::Dictionary:
            as<Dictionary>()->~Dictionary();
            break;
        case Kind::Array:
            delete pointer<Array>();
            break;
        case Kind::String:
            if (detail::Text* t = pointer<detail::Text>()) detail::release(t);
            break;
        case Kind::Data:
            if (detail::Bytes* b = pointer<detail::Bytes>()) detail::release(b);
            break;
        case Kind::Integer:
        case Kind::Real:
        case Kind::Boolean:
        case Kind::Date:
            break;
    }
}

const char* kindName(Kind kind) {
    switch (kind) {
        case Kind::Dictionary:
            return "dictionary";
        case Kind::Array:
            return "array";
        case Kind::String:
            return "string";
        case Kind::Data:
            return "data";
        case Kind::Integer:
            return "integer";
        case Kind::Real:
            return "real";
        case Kind::Boolean:
            return "boolean";
        case Kind::Date:
            return "date";
    }
    return "unknown";
}

std::optional<bool> Value::boolValue() const {
    if (const bool* b = asBoolean()) return *b;
    if (const Integer* i = asInteger()) return i->bits != 0;
    if (const double* r = asReal()) return *r != 0.0;
    return std::nullopt;
}

std::optional<int64_t> Value::integerValue() const {
    if (const Integer* i = asInteger()) return i->asSigned();
    if (const bool* b = asBoolean()) return *b ? 1 : 0;
    if (const double* r = asReal()) {
        if (std::isnan(*r)) return 0;
        if (*r >= 9.2233720368547758e18) return INT64_MAX;
        if (*r <= -9.2233720368547758e18) return INT64_MIN;
        return static_cast<int64_t>(*r);
    }
    return std::nullopt;
}

namespace {

// Exact numeric comparison of an integer with a double.
bool integerEqualsReal(const Integer& i, double r) {
    if (std::isnan(r) || std::isinf(r) || r != std::trunc(r)) return false;
    if (i.isNegative()) {
        if (r >= 0 || r < -9.2233720368547758e18) return false;
        return static_cast<int64_t>(r) == i.asSigned();
    }
    if (r < 0 || r >= 1.8446744073709552e19) return false;
    return static_cast<uint64_t>(r) == i.asUnsigned();
}

bool integersEqual(const Integer& a, const Integer& b) {
    // Same bits are the same value unless one is a negative signed value and
    // the other an unsigned value above INT64_MAX.
    if (a.isNegative() != b.isNegative()) return false;
    return a.bits == b.bits;
}

bool dictionariesEqual(const Dictionary& a, const Dictionary& b) {
    if (a.size() != b.size()) return false;
    // Dictionaries that share their keys line up position by position.
    if (a.size() > 0 && detail::DictionaryAccess::keysOf(a) == detail::DictionaryAccess::keysOf(b)) {
        for (size_t i = 0; i < a.size(); ++i)
            if (!(a.entries()[i].second == b.entries()[i].second)) return false;
        return true;
    }
    for (const auto& [key, value] : a) {
        const Value* other = b.find(key);
        if (!other || !(*other == value)) return false;
    }
    return true;
}

}  // namespace

bool operator==(const Value& a, const Value& b) {
    const Kind ka = a.kind(), kb = b.kind();
    if (ka == Kind::Integer && kb == Kind::Integer) return integersEqual(*a.asInteger(), *b.asInteger());
    if (ka == Kind::Integer && kb == Kind::Real) return integerEqualsReal(*a.asInteger(), *b.asReal());
    if (ka == Kind::Real && kb == Kind::Integer) return integerEqualsReal(*b.asInteger(), *a.asReal());
    if (ka != kb) return false;
    switch (ka) {
        case Kind::Dictionary:
            return dictionariesEqual(*a.asDictionary(), *b.asDictionary());
        case Kind::Array:
            return *a.asArray() == *b.asArray();
        case Kind::String:
            return *a.asString() == *b.asString();
        case Kind::Data:
            return *a.asData() == *b.asData();
        case Kind::Real:
            return *a.asReal() == *b.asReal();
        case Kind::Boolean:
            return *a.asBoolean() == *b.asBoolean();
        case Kind::Date:
            return a.asDate()->secondsSince2001 == b.asDate()->secondsSince2001;
        case Kind::Integer:
            break;
    }
    return false;
}

namespace {

void appendQuoted(std::string& out, const std::string& s) {
    bool plain = !s.empty();
    for (unsigned char c : s)
        if (!(isalnum(c) || c == '_' || c == '.' || c == '/' || c == '-' || c >= 0x80)) plain = false;
    if (plain) {
        out += s;
        return;
    }
    out += '"';
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c < 0x20) {
            char buf[8];
            snprintf(buf, sizeof buf, "\\%03o", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    out += '"';
}

void describe(const Value& v, std::string& out, int indent) {
    const std::string pad(static_cast<size_t>(indent) * 4, ' ');
    char buf[64];
    switch (v.kind()) {
        case Kind::Dictionary: {
            out += "{\n";
            for (const auto& [key, value] : *v.asDictionary()) {
                out += pad + "    ";
                appendQuoted(out, key);
                out += " = ";
                describe(value, out, indent + 1);
                out += ";\n";
            }
            out += pad + "}";
            break;
        }
        case Kind::Array: {
            out += "(\n";
            const Array& a = *v.asArray();
            for (size_t i = 0; i < a.size(); ++i) {
                out += pad + "    ";
                describe(a[i], out, indent + 1);
                out += i + 1 < a.size() ? ",\n" : "\n";
            }
            out += pad + ")";
            break;
        }
        case Kind::String:
            appendQuoted(out, *v.asString());
            break;
        case Kind::Data: {
            out += "{length = " + std::to_string(v.asData()->size()) + ", bytes = 0x";
            const Data& d = *v.asData();
            const size_t shown = d.size() <= 24 ? d.size() : 8;
            for (size_t i = 0; i < shown; ++i) {
                snprintf(buf, sizeof buf, "%02x", d[i]);
                out += buf;
            }
            if (shown < d.size()) {
                out += "...";
                for (size_t i = d.size() - 8; i < d.size(); ++i) {
                    snprintf(buf, sizeof buf, "%02x", d[i]);
                    out += buf;
                }
            }
            out += "}";
            break;
        }
        case Kind::Integer: {
            const Integer& i = *v.asInteger();
            if (i.isUnsigned)
                snprintf(buf, sizeof buf, "%llu", static_cast<unsigned long long>(i.asUnsigned()));
            else
                snprintf(buf, sizeof buf, "%lld", static_cast<long long>(i.asSigned()));
            out += buf;
            break;
        }
        case Kind::Real:
            snprintf(buf, sizeof buf, "%.17g", *v.asReal());
            out += buf;
            break;
        case Kind::Boolean:
            out += *v.asBoolean() ? "1" : "0";
            break;
        case Kind::Date: {
            const double unix = v.asDate()->toUnix();
            if (!std::isfinite(unix) || unix > 253402300799.0 || unix < -62135596800.0) {
                snprintf(buf, sizeof buf, "%.17g", v.asDate()->secondsSince2001);
                out += buf;
                break;
            }
            time_t t = static_cast<time_t>(std::floor(unix));
            tm parts{};
            gmtime_r(&t, &parts);
            strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S +0000", &parts);
            out += buf;
            break;
        }
    }
}

}  // namespace

std::string Value::description() const {
    std::string out;
    describe(*this, out, 0);
    return out;
}

std::string qvlDescription(const Value& value) {
    if (const std::string* text = value.asString()) return *text;
    return value.description();
}

std::string qvlDescription(const Dictionary& dictionary) {
    return Value(dictionary).description();
}

std::string qvlDescription(const Array& array) {
    return Value(array).description();
}

std::optional<int64_t> qvlIntegerValue(const Value& value) {
    return value.integerValue();
}

std::optional<double> qvlRealValue(const Value& value) {
    if (const double* real = value.asReal()) return *real;
    return std::nullopt;
}

}  // namespace qvl::plist
