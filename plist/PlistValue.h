// PlistValue: one property-list value (dictionary, array, string, data, integer,
// real, boolean, date), the currency of the whole system: requests, manifests,
// file records and the domain table are all property values.
//
// Values have plain value semantics (copying copies the tree; moving is cheap).
// Dictionaries keep insertion order, which is the order of the file when read;
// key lookup is linear for small dictionaries and hashed for large ones.
//
// Thread-safety: a const value may be read from any number of threads at once
// (the lazily built key index of a large dictionary is published atomically).
// Mutation needs external synchronisation, as for any standard container.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

namespace qvl::plist {

class Value;

using Data = std::vector<uint8_t>;
using Array = std::vector<Value>;

// An integer of the property-list kind: every value from -2^63 to 2^64-1.
// `isUnsigned` tells apart what the binary encoding tells apart (a 16-byte
// integer, or a value above INT64_MAX); it does not take part in equality.
struct Integer {
    uint64_t bits = 0;  // two's complement bits of the value
    bool isUnsigned = false;

    static Integer fromSigned(int64_t v) { return {static_cast<uint64_t>(v), false}; }
    static Integer fromUnsigned(uint64_t v) { return {v, true}; }
    int64_t asSigned() const { return static_cast<int64_t>(bits); }
    uint64_t asUnsigned() const { return bits; }
    // True when the value is negative (only possible for a signed integer).
    bool isNegative() const { return !isUnsigned && static_cast<int64_t>(bits) < 0; }
    // The value as a double (exact for |v| < 2^53).
    double toDouble() const {
        return isUnsigned ? static_cast<double>(bits) : static_cast<double>(static_cast<int64_t>(bits));
    }
};

// A date: seconds since 2001-01-01 00:00:00 UTC, kept bit for bit as a double.
struct Date {
    double secondsSince2001 = 0;
    // Seconds between 1970-01-01 and 2001-01-01.
    static constexpr double kUnixEpochOffset = 978307200.0;
    static Date fromUnix(double unixSeconds) { return {unixSeconds - kUnixEpochOffset}; }
    static Date now();
    double toUnix() const { return secondsSince2001 + kUnixEpochOffset; }
};

// Dictionary with string keys in insertion order.
class Dictionary {
  public:
    using Entry = std::pair<std::string, Value>;

    Dictionary();
    // Takes `entries` as they are: for decoders that have already made the
    // keys unique.
    explicit Dictionary(std::vector<Entry>&& entries);
    Dictionary(const Dictionary& other);
    Dictionary(Dictionary&& other) noexcept;
    Dictionary& operator=(const Dictionary& other);
    Dictionary& operator=(Dictionary&& other) noexcept;
    ~Dictionary();

    // Defined after Value, which they need complete (clang instantiates them
    // at the end of this class).
    size_t size() const;
    bool empty() const;
    void reserve(size_t n);

    // Lookup; null when the key is absent.
    const Value* find(std::string_view key) const;
    Value* find(std::string_view key);
    bool contains(std::string_view key) const { return find(key) != nullptr; }

    // Sets key to value: replaces the value in place when the key exists
    // (keeping its position), appends otherwise.
    void set(std::string key, Value value);
    // Appends without checking for an existing key. Only for callers that
    // know the key is new (decoders that check duplicates themselves).
    void appendUnchecked(std::string key, Value value);
    // Removes the key if present; returns whether it was.
    bool erase(std::string_view key);

    const std::vector<Entry>& entries() const { return entries_; }
    std::vector<Entry>::const_iterator begin() const { return entries_.begin(); }
    std::vector<Entry>::const_iterator end() const { return entries_.end(); }

    // Typed lookups: null when absent or of another kind.
    const std::string* getString(std::string_view key) const;
    const Data* getData(std::string_view key) const;
    const Dictionary* getDictionary(std::string_view key) const;
    const Array* getArray(std::string_view key) const;
    const Integer* getInteger(std::string_view key) const;
    std::optional<bool> getBoolean(std::string_view key) const;

  private:
    static constexpr size_t kIndexThreshold = 16;
    using IndexMap = std::unordered_map<std::string_view, size_t>;
    void invalidateIndex();
    const IndexMap* index() const;

    std::vector<Entry> entries_;
    // Key -> position, built on first lookup once the dictionary is large.
    // Owned; published with release/acquire so that concurrent readers of a
    // const dictionary either see no index or a complete one.
    mutable std::atomic<IndexMap*> index_{nullptr};
};

enum class Kind : uint8_t { Dictionary, Array, String, Data, Integer, Real, Boolean, Date };
const char* kindName(Kind kind);

class Value {
  public:
    Value() : v_(std::string()) {}  // an empty string
    Value(Dictionary d) : v_(std::move(d)) {}
    Value(Array a) : v_(std::move(a)) {}
    Value(std::string s) : v_(std::move(s)) {}
    Value(std::string_view s) : v_(std::string(s)) {}
    Value(const char* s) : v_(std::string(s)) {}
    Value(Data d) : v_(std::move(d)) {}
    Value(Integer i) : v_(i) {}
    Value(double r) : v_(r) {}
    Value(bool b) : v_(b) {}
    Value(Date d) : v_(d) {}
    // Integers: signed types give a signed integer, unsigned types an unsigned one.
    template <class T>
    requires(std::is_integral_v<T> && !std::is_same_v<T, bool>) Value(T n)
        : v_(std::is_signed_v<T> ? Integer::fromSigned(static_cast<int64_t>(n))
                                 : Integer::fromUnsigned(static_cast<uint64_t>(n))) {}

    Kind kind() const { return static_cast<Kind>(v_.index()); }

    bool isDictionary() const { return kind() == Kind::Dictionary; }
    bool isArray() const { return kind() == Kind::Array; }
    bool isString() const { return kind() == Kind::String; }
    bool isData() const { return kind() == Kind::Data; }
    bool isInteger() const { return kind() == Kind::Integer; }
    bool isReal() const { return kind() == Kind::Real; }
    bool isBoolean() const { return kind() == Kind::Boolean; }
    bool isDate() const { return kind() == Kind::Date; }
    bool isNumber() const { return isInteger() || isReal(); }

    // Typed views: null when the value is of another kind.
    const Dictionary* asDictionary() const { return std::get_if<Dictionary>(&v_); }
    Dictionary* asDictionary() { return std::get_if<Dictionary>(&v_); }
    const Array* asArray() const { return std::get_if<Array>(&v_); }
    Array* asArray() { return std::get_if<Array>(&v_); }
    const std::string* asString() const { return std::get_if<std::string>(&v_); }
    const Data* asData() const { return std::get_if<Data>(&v_); }
    const Integer* asInteger() const { return std::get_if<Integer>(&v_); }
    const double* asReal() const { return std::get_if<double>(&v_); }
    const bool* asBoolean() const { return std::get_if<bool>(&v_); }
    const Date* asDate() const { return std::get_if<Date>(&v_); }

    // A boolean read as the platform reads one: true for a true boolean or a
    // non-zero number; nullopt for any other kind.
    std::optional<bool> boolValue() const;
    // The integer value of an integer, a real (truncated toward zero) or a
    // boolean, as the platform's integer accessors answer; nullopt otherwise.
    std::optional<int64_t> integerValue() const;

    // Property-list equality: same kind and value; integers and reals compare
    // by numeric value (1 == 1.0); a boolean never equals a number;
    // dictionaries are equal when they hold the same keys with equal values,
    // whatever the order.
    friend bool operator==(const Value& a, const Value& b);

    // A readable one-line-per-entry description, used by "%@" in log lines.
    std::string description() const;

  private:
    std::variant<Dictionary, Array, std::string, Data, Integer, double, bool, Date> v_;
};

// "%@" of property values in formatted messages (base/QVLFormat.h): a string
// prints as itself, any other value as its description; numeric conversions
// read a value as the platform's accessors do.
std::string qvlDescription(const Value& value);
std::string qvlDescription(const Dictionary& dictionary);
std::string qvlDescription(const Array& array);
std::optional<int64_t> qvlIntegerValue(const Value& value);
std::optional<double> qvlRealValue(const Value& value);

inline size_t Dictionary::size() const {
    return entries_.size();
}
inline bool Dictionary::empty() const {
    return entries_.empty();
}
inline void Dictionary::reserve(size_t n) {
    if (n > entries_.capacity()) invalidateIndex();  // the keys are about to move
    entries_.reserve(n);
}

}  // namespace qvl::plist
