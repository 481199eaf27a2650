// Dictionaries: a small header followed by the values, in one allocation,
// over a key list (PlistKeyList.h) that dictionaries with the same keys in
// the same order share; a dictionary that changes its keys takes a copy of
// its own first. Also the codecs' access to their inside (PlistCodec.h).

#include <cstdlib>
#include <cstring>
#include <new>

#include "plist/PlistArena.h"
#include "plist/PlistCodec.h"
#include "plist/PlistKeyList.h"
#include "plist/PlistValue.h"

namespace qvl::plist {

namespace detail {

namespace {

DictionaryNode* newNode(uint32_t capacity, KeyList* keys, Arena* arena = nullptr) {
    bool inArena = false;
    auto* node = static_cast<DictionaryNode*>(
        allocateBlock(sizeof(DictionaryNode) + capacity * sizeof(Value), arena, inArena));
    node->keys = keys;
    node->size = 0;
    node->capacity = capacity;
    node->inArena = inArena;
    return node;
}

uint32_t grownCapacity(uint32_t size) {
    return size < 4 ? 4 : size + size / 2 + 1;
}

}  // namespace

Dictionary DictionaryAccess::make(KeyList* keys, uint32_t capacity, Arena* arena) {
    return Dictionary(newNode(capacity, keys, arena));
}

Value DictionaryAccess::dictionaryValue(Dictionary&& d) {
    Value v;
    new (v.raw_) Dictionary(std::move(d));
    v.raw_[Value::kKindByte] = static_cast<unsigned char>(Kind::Dictionary);
    return v;
}

Value DictionaryAccess::dataValue(std::span<const uint8_t> bytes, Arena* arena) {
    Value v;
    if (bytes.empty()) {
        v.setPointer(Kind::Data, nullptr);
        return v;
    }
    bool inArena = false;
    auto* b = new (allocateBlock(sizeof(Bytes), arena, inArena)) Bytes();
    b->inArena = inArena;
    try {
        b->data.assign(bytes.begin(), bytes.end());
    } catch (...) {
        release(b);
        throw;
    }
    v.setPointer(Kind::Data, b);
    return v;
}

Value* DictionaryAccess::values(Dictionary& d) {
    return d.node_->values();
}

void DictionaryAccess::setSize(Dictionary& d, uint32_t size) {
    d.node_->size = size;
}

KeyList* DictionaryAccess::newKeys(uint32_t capacity, Arena* arena) {
    return newKeyList(capacity, arena);
}

void DictionaryAccess::releaseKeys(KeyList* keys) {
    releaseKeyList(keys);
}

void DictionaryAccess::retainKeys(KeyList* keys) {
    retainKeyList(keys);
}

}  // namespace detail

using detail::DictionaryNode;
using detail::KeyList;
using detail::Text;

Dictionary::Dictionary(std::vector<Entry>&& entries) {
    if (entries.empty()) return;
    const auto n = static_cast<uint32_t>(entries.size());
    KeyList* keys = detail::newKeyList(n);
    node_ = detail::newNode(n, keys);
    for (Entry& e : entries) {
        keys->keys()[keys->size++] = detail::makeText(std::move(e.first));
        new (&node_->values()[node_->size++]) Value(std::move(e.second));
    }
}

Dictionary::Dictionary(const Dictionary& other) {
    if (!other.node_) return;
    KeyList* keys = other.node_->keys;
    detail::retainKeyList(keys);
    node_ = detail::newNode(other.node_->size, keys);
    // Counted as it goes, so that a copy that fails half way frees what it made.
    for (uint32_t i = 0; i < other.node_->size; ++i) {
        new (&node_->values()[i]) Value(other.node_->values()[i]);
        node_->size = i + 1;
    }
}

Dictionary& Dictionary::operator=(const Dictionary& other) {
    if (this != &other) *this = Dictionary(other);
    return *this;
}

Dictionary& Dictionary::operator=(Dictionary&& other) noexcept {
    if (this != &other) {
        Dictionary old(std::move(*this));
        node_ = std::exchange(other.node_, nullptr);
    }
    return *this;
}

Dictionary::~Dictionary() {
    if (!node_) return;
    // Newest value first: a decoded tree is allocated front to back, and
    // glibc's allocator frees such blocks more cheaply in the reverse order.
    for (uint32_t i = node_->size; i-- > 0;) node_->values()[i].~Value();
    detail::releaseKeyList(node_->keys);
    detail::freeBlock(node_, node_->inArena);
}

void Dictionary::reserve(size_t n) {
    if (n <= size() || n > UINT32_MAX / 2) return;
    const auto capacity = static_cast<uint32_t>(n);
    if (!node_) {
        node_ = detail::newNode(capacity, detail::newKeyList(capacity));
        return;
    }
    if (capacity > node_->capacity) {
        // Values hold no pointer into themselves: they move with their bytes.
        const size_t bytes = sizeof(DictionaryNode) + capacity * sizeof(Value);
        void* grown = nullptr;
        if (node_->inArena) {
            grown = detail::allocateBlock(bytes);
            std::memcpy(grown, node_, sizeof(DictionaryNode) + node_->size * sizeof(Value));
            detail::Arena::free(node_);
        } else if (!(grown = std::realloc(node_, bytes))) {
            throw std::bad_alloc();
        }
        node_ = static_cast<DictionaryNode*>(grown);
        node_->capacity = capacity;
        node_->inArena = false;
    }
    KeyList* keys = node_->keys;
    if (keys->references.load(std::memory_order_acquire) == 1 && keys->capacity < capacity)
        node_->keys = detail::growKeyList(keys, capacity);
}

void Dictionary::prepareAppend() {
    if (!node_) {
        node_ = detail::newNode(4, detail::newKeyList(4));
        return;
    }
    if (node_->size == node_->capacity) reserve(detail::grownCapacity(node_->size));
    KeyList* keys = node_->keys;
    if (keys->references.load(std::memory_order_acquire) != 1) {
        node_->keys = detail::copyKeyList(keys, node_->capacity);
        detail::releaseKeyList(keys);
    } else if (keys->size == keys->capacity) {
        node_->keys = detail::growKeyList(keys, node_->capacity);
    }
    node_->keys->shapeHash = 0;
}

void Dictionary::appendKey(Text* key, Value&& value) {
    prepareAppend();
    KeyList* keys = node_->keys;
    const uint32_t position = keys->size;
    keys->keys()[position] = key;
    keys->size = position + 1;
    if (detail::KeyIndex* index = keys->index.load(std::memory_order_relaxed)) {
        if (2 * (index->used + 1) > index->mask + 1)
            detail::dropIndex(keys);  // rebuilt larger on the next lookup
        else
            detail::insertIntoIndex(index, keys, position);
    }
    new (&node_->values()[position]) Value(std::move(value));
    node_->size = position + 1;
}

void Dictionary::shareKeys() {
    if (node_) node_->keys = detail::shareKeyList(node_->keys);
}

const Value* Dictionary::find(std::string_view key) const {
    if (!node_) return nullptr;
    const std::optional<uint32_t> position = detail::positionOf(node_->keys, key);
    return position ? &node_->values()[*position] : nullptr;
}

Value* Dictionary::find(std::string_view key) {
    return const_cast<Value*>(static_cast<const Dictionary*>(this)->find(key));
}

void Dictionary::set(std::string_view key, Value value) {
    if (Value* existing = find(key)) {
        *existing = std::move(value);
        return;
    }
    appendKey(detail::makeText(key), std::move(value));
}

void Dictionary::appendUnchecked(std::string_view key, Value value) {
    appendKey(detail::makeText(key), std::move(value));
}

bool Dictionary::erase(std::string_view key) {
    if (!node_) return false;
    const std::optional<uint32_t> found = detail::positionOf(node_->keys, key);
    if (!found) return false;
    const uint32_t position = *found;
    KeyList* keys = node_->keys;
    if (keys->references.load(std::memory_order_acquire) != 1) {
        node_->keys = detail::copyKeyList(keys, node_->capacity);
        detail::releaseKeyList(keys);
        keys = node_->keys;
    }
    detail::dropIndex(keys);
    keys->shapeHash = 0;
    detail::release(keys->keys()[position]);
    std::memmove(&keys->keys()[position], &keys->keys()[position + 1],
                 (keys->size - position - 1) * sizeof(Text*));
    --keys->size;
    Value* values = node_->values();
    values[position].~Value();
    std::memmove(static_cast<void*>(&values[position]), &values[position + 1],
                 (node_->size - position - 1) * sizeof(Value));
    --node_->size;
    return true;
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

bool operator==(const Dictionary::EntryRef& a, const Dictionary::Entry& b) {
    return a.first == b.first && a.second == b.second;
}

}  // namespace qvl::plist
