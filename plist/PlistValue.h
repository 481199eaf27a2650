// PlistValue: one property-list value (dictionary, array, string, data, integer,
// real, boolean, date), the currency of the whole system: requests, manifests,
// file records and the domain table are all property values.
//
// Values have plain value semantics (copying copies the tree; moving is cheap).
// Dictionaries keep insertion order, which is the order of the file when read;
// key lookup is linear for small dictionaries and hashed for large ones.
//
// Memory: a manifest holds a hundred thousand records of the same shape, so
// a value is 16 bytes and keeps integers, reals, dates and booleans in place.
// Texts (keys and strings) and data are immutable and shared between the
// values that hold the same one; short texts made on one thread share one
// copy. The key list of a dictionary is shared by every dictionary with the
// same keys in the same order (every record of a manifest), so a record costs
// little more than its values. A dictionary's keys are reached as
// `const std::string&`, valid as long as the dictionary holds them unchanged.
//
// Thread-safety: a const value may be read from any number of threads at once
// (shared parts are reference-counted atomically; the lazily built key index
// of a large dictionary is published atomically). Mutation needs external
// synchronisation, as for any standard container.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
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

namespace detail {

// A shared, immutable text: a dictionary key or a string value.
struct Text {
    std::atomic<uint32_t> references{1};
    mutable std::atomic<uint32_t> hash{0};  // of the text, never 0 once computed
    std::string text;
    bool inArena = false;  // a decoder's block (PlistArena.h), not malloc's
};

// Shared, immutable bytes of a data value.
struct Bytes {
    std::atomic<uint32_t> references{1};
    bool inArena = false;
    Data data;
};

struct KeyIndex;

// The keys of a dictionary in order, shared (and copied before a change)
// between dictionaries with the same keys in the same order. The texts
// follow it in the same allocation.
struct KeyList {
    std::atomic<uint32_t> references{1};
    uint32_t size = 0;
    uint32_t capacity : 31 = 0;
    uint32_t inArena : 1 = 0;
    uint32_t shapeHash = 0;  // of the texts' addresses, 0 until computed
    // Key -> position, built on the first lookup once the list is long.
    std::atomic<KeyIndex*> index{nullptr};
    Text** keys() { return reinterpret_cast<Text**>(this + 1); }
    Text* const* keys() const { return reinterpret_cast<Text* const*>(this + 1); }
};

// A dictionary's own part: its size, room and values, which follow it in the
// same allocation.
struct DictionaryNode {
    KeyList* keys;
    uint32_t size;
    uint32_t capacity : 31;
    uint32_t inArena : 1;
    Value* values() { return reinterpret_cast<Value*>(this + 1); }
    const Value* values() const { return reinterpret_cast<const Value*>(this + 1); }
};

uint32_t hashText(std::string_view text);
// A text for `s`; short texts made on this thread are shared. The caller
// owns one reference.
Text* makeText(std::string_view s);
Text* makeText(std::string&& s);
// Bytes holding `d`; the caller owns one reference.
Bytes* makeBytes(Data&& d);
inline void retain(Text* t) {
    t->references.fetch_add(1, std::memory_order_relaxed);
}
void release(Text* t);
void release(Bytes* b);

struct DictionaryAccess;

}  // namespace detail

// Dictionary with string keys in insertion order.
class Dictionary {
  public:
    using Entry = std::pair<std::string, Value>;

    // One entry as a dictionary shows it: its key and its value, both owned
    // by the dictionary.
    struct EntryRef {
        const std::string& first;
        const Value& second;
    };

    class const_iterator {
      public:
        using iterator_category = std::input_iterator_tag;
        using iterator_concept = std::random_access_iterator_tag;
        using value_type = EntryRef;
        using reference = EntryRef;
        using difference_type = std::ptrdiff_t;
        struct pointer {
            EntryRef entry;
            const EntryRef* operator->() const { return &entry; }
        };

        const_iterator() = default;
        const_iterator(const detail::DictionaryNode* node, size_t i) : node_(node), i_(i) {}
        EntryRef operator*() const;
        pointer operator->() const { return {**this}; }
        EntryRef operator[](difference_type n) const { return *(*this + n); }
        const_iterator& operator++() { return ++i_, *this; }
        const_iterator operator++(int) { return {node_, i_++}; }
        const_iterator& operator--() { return --i_, *this; }
        const_iterator operator--(int) { return {node_, i_--}; }
        const_iterator& operator+=(difference_type n) { return i_ += n, *this; }
        const_iterator& operator-=(difference_type n) { return i_ -= n, *this; }
        friend const_iterator operator+(const_iterator it, difference_type n) { return it += n; }
        friend const_iterator operator+(difference_type n, const_iterator it) { return it += n; }
        friend const_iterator operator-(const_iterator it, difference_type n) { return it -= n; }
        friend difference_type operator-(const const_iterator& a, const const_iterator& b) {
            return static_cast<difference_type>(a.i_) - static_cast<difference_type>(b.i_);
        }
        friend bool operator==(const const_iterator& a, const const_iterator& b) { return a.i_ == b.i_; }
        friend auto operator<=>(const const_iterator& a, const const_iterator& b) { return a.i_ <=> b.i_; }

      private:
        const detail::DictionaryNode* node_ = nullptr;
        size_t i_ = 0;
    };

    // The entries in order, as a sequence that can be indexed.
    class Entries {
      public:
        explicit Entries(const detail::DictionaryNode* node) : node_(node) {}
        size_t size() const { return node_ ? node_->size : 0; }
        bool empty() const { return size() == 0; }
        EntryRef operator[](size_t i) const { return *const_iterator(node_, i); }
        const_iterator begin() const { return {node_, 0}; }
        const_iterator end() const { return {node_, size()}; }

      private:
        const detail::DictionaryNode* node_;
    };

    Dictionary() noexcept = default;
    // Takes `entries` as they are: for decoders that have already made the
    // keys unique.
    explicit Dictionary(std::vector<Entry>&& entries);
    Dictionary(const Dictionary& other);
    Dictionary(Dictionary&& other) noexcept : node_(std::exchange(other.node_, nullptr)) {}
    Dictionary& operator=(const Dictionary& other);
    Dictionary& operator=(Dictionary&& other) noexcept;
    ~Dictionary();

    size_t size() const { return node_ ? node_->size : 0; }
    bool empty() const { return size() == 0; }
    void reserve(size_t n);

    // Lookup; null when the key is absent.
    const Value* find(std::string_view key) const;
    Value* find(std::string_view key);
    bool contains(std::string_view key) const { return find(key) != nullptr; }

    // Sets key to value: replaces the value in place when the key exists
    // (keeping its position), appends otherwise.
    void set(std::string_view key, Value value);
    // Appends without checking for an existing key. Only for callers that
    // know the key is new (decoders that check duplicates themselves).
    void appendUnchecked(std::string_view key, Value value);
    // Removes the key if present; returns whether it was.
    bool erase(std::string_view key);

    Entries entries() const { return Entries(node_); }
    const_iterator begin() const { return {node_, 0}; }
    const_iterator end() const { return {node_, size()}; }

    // Typed lookups: null when absent or of another kind.
    const std::string* getString(std::string_view key) const;
    const Data* getData(std::string_view key) const;
    const Dictionary* getDictionary(std::string_view key) const;
    const Array* getArray(std::string_view key) const;
    const Integer* getInteger(std::string_view key) const;
    std::optional<bool> getBoolean(std::string_view key) const;

  private:
    friend class Value;
    friend struct detail::DictionaryAccess;
    explicit Dictionary(detail::DictionaryNode* node) : node_(node) {}
    // Makes room for one more entry, with the key list ours alone.
    void prepareAppend();
    void appendKey(detail::Text* key, Value&& value);
    // Shares the key list with an earlier dictionary of the same keys.
    void shareKeys();

    detail::DictionaryNode* node_ = nullptr;
};

bool operator==(const Dictionary::EntryRef& a, const Dictionary::Entry& b);

enum class Kind : uint8_t { Dictionary, Array, String, Data, Integer, Real, Boolean, Date };
const char* kindName(Kind kind);

class Value {
  public:
    Value() noexcept { setPointer(Kind::String, nullptr); }  // an empty string
    Value(Dictionary d);
    Value(Array a);
    Value(std::string s) { setPointer(Kind::String, detail::makeText(std::move(s))); }
    Value(std::string_view s) { setPointer(Kind::String, detail::makeText(s)); }
    Value(const char* s) { setPointer(Kind::String, detail::makeText(std::string_view(s))); }
    Value(Data d);
    Value(Integer i) noexcept { emplace(Kind::Integer, i); }
    Value(double r) noexcept { emplace(Kind::Real, r); }
    Value(bool b) noexcept { emplace(Kind::Boolean, b); }
    Value(Date d) noexcept { emplace(Kind::Date, d); }
    // Integers: signed types give a signed integer, unsigned types an unsigned one.
    template <class T>
    requires(std::is_integral_v<T> && !std::is_same_v<T, bool>) Value(T n)
    noexcept
        : Value(std::is_signed_v<T> ? Integer::fromSigned(static_cast<int64_t>(n))
                                    : Integer::fromUnsigned(static_cast<uint64_t>(n))) {}

    Value(const Value& other);
    Value(Value&& other) noexcept;
    Value& operator=(const Value& other);
    Value& operator=(Value&& other) noexcept;
    ~Value() { destroy(); }

    Kind kind() const { return static_cast<Kind>(raw_[kKindByte]); }

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
    const Dictionary* asDictionary() const { return isDictionary() ? as<Dictionary>() : nullptr; }
    Dictionary* asDictionary() { return isDictionary() ? as<Dictionary>() : nullptr; }
    const Array* asArray() const { return isArray() ? pointer<Array>() : nullptr; }
    Array* asArray() { return isArray() ? pointer<Array>() : nullptr; }
    const std::string* asString() const;
    const Data* asData() const;
    const Integer* asInteger() const { return isInteger() ? as<Integer>() : nullptr; }
    const double* asReal() const { return isReal() ? as<double>() : nullptr; }
    const bool* asBoolean() const { return isBoolean() ? as<bool>() : nullptr; }
    const Date* asDate() const { return isDate() ? as<Date>() : nullptr; }

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
    friend struct detail::DictionaryAccess;

    // The payload sits at the start; the kind is the last byte, which is
    // padding of an Integer, the widest payload.
    static constexpr size_t kKindByte = 15;
    static_assert(sizeof(Integer) == 16 && offsetof(Integer, isUnsigned) == 8);

    template <class T>
    T* as() {
        return std::launder(reinterpret_cast<T*>(raw_));
    }
    template <class T>
    const T* as() const {
        return std::launder(reinterpret_cast<const T*>(raw_));
    }
    template <class T>
    T* pointer() const {
        return *as<T*>();
    }
    template <class T>
    void emplace(Kind kind, const T& payload) {
        new (raw_) T(payload);
        raw_[kKindByte] = static_cast<unsigned char>(kind);
    }
    void setPointer(Kind kind, void* p) { emplace(kind, p); }
    void copyFrom(const Value& other);
    // Takes `other`'s payload, leaving it an empty string.
    void moveFrom(Value& other) noexcept;
    void destroy() noexcept;

    alignas(8) unsigned char raw_[16];
};

static_assert(sizeof(Value) == 16);

// "%@" of property values in formatted messages (base/QVLFormat.h): a string
// prints as itself, any other value as its description; numeric conversions
// read a value as the platform's accessors do.
std::string qvlDescription(const Value& value);
std::string qvlDescription(const Dictionary& dictionary);
std::string qvlDescription(const Array& array);
std::optional<int64_t> qvlIntegerValue(const Value& value);
std::optional<double> qvlRealValue(const Value& value);

inline const std::string* Value::asString() const {
    if (!isString()) return nullptr;
    static const std::string kEmpty;
    const detail::Text* t = pointer<detail::Text>();
    return t ? &t->text : &kEmpty;
}

inline const Data* Value::asData() const {
    if (!isData()) return nullptr;
    static const Data kEmpty;
    const detail::Bytes* b = pointer<detail::Bytes>();
    return b ? &b->data : &kEmpty;
}

inline Dictionary::EntryRef Dictionary::const_iterator::operator*() const {
    return {node_->keys->keys()[i_]->text, node_->values()[i_]};
}

}  // namespace qvl::plist
