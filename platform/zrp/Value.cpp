// ZRP values: the dictionary's ordered entries and kind names.
#include <algorithm>

#include "platform/zrp/ZRP.h"

namespace qvl::zrp {

const char* typeName(Type type) {
    switch (type) {
        case Type::Null:
            return "null";
        case Type::Boolean:
            return "boolean";
        case Type::Int64:
            return "int64";
        case Type::Uint64:
            return "uint64";
        case Type::Double:
            return "double";
        case Type::Date:
            return "date";
        case Type::Data:
            return "data";
        case Type::String:
            return "string";
        case Type::UUID:
            return "uuid";
        case Type::FileDescriptor:
            return "fd";
        case Type::Array:
            return "array";
        case Type::Dictionary:
            return "dictionary";
    }
    return "unknown";
}

Type Value::type() const {
    // The variant's alternatives are listed in tag order.
    static constexpr Type kTypes[] = {Type::Null,   Type::Boolean,        Type::Int64, Type::Uint64,
                                      Type::Double, Type::Date,           Type::Data,  Type::String,
                                      Type::UUID,   Type::FileDescriptor, Type::Array, Type::Dictionary};
    return kTypes[v_.index()];
}

Dictionary::Dictionary() = default;
Dictionary::Dictionary(const Dictionary&) = default;
Dictionary::Dictionary(Dictionary&&) noexcept = default;
Dictionary& Dictionary::operator=(const Dictionary&) = default;
Dictionary& Dictionary::operator=(Dictionary&&) noexcept = default;
Dictionary::~Dictionary() = default;

size_t Dictionary::size() const {
    return entries_.size();
}
const Dictionary::Entry& Dictionary::entry(size_t i) const {
    return entries_.at(i);
}

const Value* Dictionary::find(std::string_view key) const {
    for (const Entry& e : entries_)
        if (e.key == key) return &e.value;
    return nullptr;
}

void Dictionary::set(std::string_view key, Value value) {
    for (Entry& e : entries_) {
        if (e.key == key) {
            e.value = std::move(value);
            return;
        }
    }
    entries_.push_back(Entry{std::string(key), std::move(value)});
}

void Dictionary::setBool(std::string_view key, bool value) {
    set(key, Value(value));
}
void Dictionary::setInt64(std::string_view key, int64_t value) {
    set(key, Value(value));
}
void Dictionary::setString(std::string_view key, std::string_view value) {
    set(key, Value(std::string(value)));
}
void Dictionary::setData(std::string_view key, std::span<const uint8_t> bytes) {
    set(key, Value(Data(bytes.begin(), bytes.end())));
}

void Dictionary::forEach(const std::function<bool(std::string_view, const Value&)>& fn) const {
    for (const Entry& e : entries_)
        if (!fn(e.key, e.value)) return;
}

bool operator==(const Dictionary& a, const Dictionary& b) {
    return a.entries_ == b.entries_;
}

}  // namespace qvl::zrp
