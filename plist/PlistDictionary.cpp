// Dictionaries and the shared texts and key lists behind them.
//
// A dictionary is one allocation: a small header followed by its values. Its
// keys live in a key list, which every dictionary with the same keys in the
// same order may share; a dictionary that changes its keys takes a copy of
// its own first. Each thread keeps a small table of the texts and key lists it
// made recently, so that records built one after another (a walk of a tree, a
// decoded manifest) share their keys without any lock.

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "plist/PlistArena.h"
#include "plist/PlistCodec.h"
#include "plist/PlistValue.h"

namespace qvl::plist {

namespace detail {

// Open-addressing table of positions (1 + position; 0 is a free slot).
struct KeyIndex {
    uint32_t mask;
    uint32_t used;
    uint32_t* slots() { return reinterpret_cast<uint32_t*>(this + 1); }
};

namespace {

// Texts up to this length are shared through the thread's table; longer ones
// (paths) are nearly always unique.
constexpr size_t kSharedTextLength = 40;
constexpr size_t kTextSlots = 1024;
// Key lists up to this length are shared through the thread's table.
constexpr uint32_t kSharedKeyListLength = 64;
constexpr size_t kKeyListSlots = 256;
// Lists from this length on are looked up through a hashed index.
constexpr uint32_t kIndexThreshold = 16;

void* allocate(size_t bytes) {
    void* p = std::malloc(bytes);
    if (!p) throw std::bad_alloc();
    return p;
}

// A block from `arena` when there is one and it has room, else from malloc;
// `inArena` tells which, for freeBlock.
void* allocate(size_t bytes, Arena* arena, bool& inArena) {
    void* p = arena ? arena->allocate(bytes) : nullptr;
    inArena = p != nullptr;
    return p ? p : allocate(bytes);
}

void freeBlock(void* p, bool inArena) {
    if (inArena)
        Arena::free(p);
    else
        std::free(p);
}

uint32_t textHash(const Text* t) {
    uint32_t h = t->hash.load(std::memory_order_relaxed);
    if (h == 0) {
        h = hashText(t->text);
        t->hash.store(h, std::memory_order_relaxed);
    }
    return h;
}

bool textEquals(const Text* t, std::string_view s) {
    return t->text.size() == s.size() && std::memcmp(t->text.data(), s.data(), s.size()) == 0;
}

// The thread's recently made short texts and key lists. The tables are plain
// arrays (never destroyed); the release object gives their references back
// when the thread ends.
struct RecentTables {
    Text* texts[kTextSlots];
    KeyList* keyLists[kKeyListSlots];
};

void releaseKeyList(KeyList* k);

RecentTables& recentTables() {
    thread_local RecentTables tables{};
    thread_local struct Release {
        ~Release() {
            for (Text*& t : tables.texts)
                if (t) release(std::exchange(t, nullptr));
            for (KeyList*& k : tables.keyLists)
                if (k) releaseKeyList(std::exchange(k, nullptr));
        }
    } releaseAtThreadEnd;
    (void)releaseAtThreadEnd;
    return tables;
}

// ---- key lists

KeyList* newKeyList(uint32_t capacity, Arena* arena = nullptr) {
    bool inArena = false;
    void* room = allocate(sizeof(KeyList) + capacity * sizeof(Text*), arena, inArena);
    return new (room) KeyList{.capacity = capacity, .inArena = inArena};
}

void freeKeyList(KeyList* k) {
    const bool inArena = k->inArena;
    k->~KeyList();
    freeBlock(k, inArena);
}

void dropIndex(KeyList* k) {
    std::free(k->index.exchange(nullptr, std::memory_order_relaxed));
}

void releaseKeyList(KeyList* k) {
    if (k->references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    for (uint32_t i = k->size; i-- > 0;) release(k->keys()[i]);
    dropIndex(k);
    freeKeyList(k);
}

// A list of our own with the same keys and room for `capacity`.
KeyList* copyKeyList(const KeyList* k, uint32_t capacity) {
    KeyList* copy = newKeyList(capacity);
    for (uint32_t i = 0; i < k->size; ++i) retain(copy->keys()[i] = k->keys()[i]);
    copy->size = k->size;
    return copy;
}

// Moves a list of our own to a larger allocation, index and all.
KeyList* growKeyList(KeyList* k, uint32_t capacity) {
    KeyList* grown = newKeyList(capacity);
    std::memcpy(grown->keys(), k->keys(), k->size * sizeof(Text*));
    grown->size = k->size;
    grown->index.store(k->index.exchange(nullptr, std::memory_order_relaxed), std::memory_order_relaxed);
    freeKeyList(k);
    return grown;
}

void insertIntoIndex(KeyIndex* index, const KeyList* k, uint32_t position) {
    uint32_t i = textHash(k->keys()[position]) & index->mask;
    while (index->slots()[i] != 0) i = (i + 1) & index->mask;
    index->slots()[i] = position + 1;
    ++index->used;
}

KeyIndex* buildIndex(const KeyList* k) {
    uint32_t slots = 32;
    while (slots < 2 * (k->size + 1)) slots *= 2;
    auto* index = new (allocate(sizeof(KeyIndex) + slots * sizeof(uint32_t))) KeyIndex{slots - 1, 0};
    std::memset(index->slots(), 0, slots * sizeof(uint32_t));
    for (uint32_t i = 0; i < k->size; ++i) insertIntoIndex(index, k, i);
    return index;
}

// The index of a long list, built on first use. Readers of a const
// dictionary may race to build it: the build is serialised on one mutex and
// published once.
const KeyIndex* indexOf(const KeyList* k) {
    if (k->size < kIndexThreshold) return nullptr;
    if (const KeyIndex* ready = k->index.load(std::memory_order_acquire)) return ready;
    static std::mutex buildMutex;
    std::lock_guard<std::mutex> lock(buildMutex);
    if (const KeyIndex* ready = k->index.load(std::memory_order_acquire)) return ready;
    KeyIndex* index = buildIndex(k);
    const_cast<KeyList*>(k)->index.store(index, std::memory_order_release);
    return index;
}

std::optional<uint32_t> positionOf(const KeyList* k, std::string_view key) {
    if (const KeyIndex* index = indexOf(k)) {
        const uint32_t h = hashText(key);
        for (uint32_t i = h & index->mask;; i = (i + 1) & index->mask) {
            const uint32_t slot = const_cast<KeyIndex*>(index)->slots()[i];
            if (slot == 0) return std::nullopt;
            const Text* t = k->keys()[slot - 1];
            if (textHash(t) == h && textEquals(t, key)) return slot - 1;
        }
    }
    for (uint32_t i = 0; i < k->size; ++i)
        if (textEquals(k->keys()[i], key)) return i;
    return std::nullopt;
}

// The shape of a key list is its texts in order, compared by content: two
// lists whose keys were made apart (a text pushed out of the thread's table
// in between) still share.
uint32_t shapeHashOf(KeyList* k) {
    if (k->shapeHash == 0) {
        uint64_t h = k->size;
        for (uint32_t i = 0; i < k->size; ++i) h = (h ^ textHash(k->keys()[i])) * 0x9E3779B97F4A7C15ull;
        k->shapeHash = static_cast<uint32_t>(h >> 32) | 1;
    }
    return k->shapeHash;
}

bool sameKeys(const KeyList* a, const KeyList* b) {
    if (a->size != b->size) return false;
    for (uint32_t i = 0; i < a->size; ++i) {
        const Text* x = a->keys()[i];
        const Text* y = b->keys()[i];
        if (x != y && (textHash(x) != textHash(y) || x->text != y->text)) return false;
    }
    return true;
}

// ---- nodes

DictionaryNode* newNode(uint32_t capacity, KeyList* keys, Arena* arena = nullptr) {
    bool inArena = false;
    auto* node = static_cast<DictionaryNode*>(
        allocate(sizeof(DictionaryNode) + capacity * sizeof(Value), arena, inArena));
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

uint32_t hashText(std::string_view s) {
    uint64_t h = 0x9E3779B97F4A7C15ull ^ s.size();
    size_t i = 0;
    for (; i + 8 <= s.size(); i += 8) {
        uint64_t word;
        std::memcpy(&word, s.data() + i, 8);
        h = (h ^ word) * 0xFF51AFD7ED558CCDull;
        h ^= h >> 32;
    }
    uint64_t tail = 0;
    std::memcpy(&tail, s.data() + i, s.size() - i);
    // The multiplications carry a difference only upward: a full finaliser
    // brings the high bits down to the low ones, which pick the slots.
    h = (h ^ tail) * 0xC4CEB9FE1A85EC53ull;
    h ^= h >> 33;
    h *= 0xFF51AFD7ED558CCDull;
    h ^= h >> 33;
    const auto folded = static_cast<uint32_t>(h ^ (h >> 32));
    return folded ? folded : 1;
}

Text* makeText(std::string_view s) {
    if (s.size() > kSharedTextLength) {
        auto* t = new (allocate(sizeof(Text))) Text();
        t->text.assign(s);
        return t;
    }
    // Two ways per set, so that two recurring texts of one set do not push
    // each other out: a new text takes the first way, the first moves on to
    // the second.
    const uint32_t h = hashText(s);
    Text** set = &recentTables().texts[h & (kTextSlots - 2)];
    for (int way = 0; way < 2; ++way)
        if (set[way] && textEquals(set[way], s)) {
            retain(set[way]);
            return set[way];
        }
    auto* t = new (allocate(sizeof(Text))) Text();
    t->text.assign(s);
    t->hash.store(h, std::memory_order_relaxed);
    if (set[1]) release(set[1]);
    set[1] = set[0];
    set[0] = t;
    retain(t);  // the table's reference
    return t;
}

Text* makeText(std::string&& s) {
    if (s.size() <= kSharedTextLength) return makeText(std::string_view(s));
    auto* t = new (allocate(sizeof(Text))) Text();
    t->text = std::move(s);
    return t;
}

Bytes* makeBytes(Data&& d) {
    auto* b = new (allocate(sizeof(Bytes))) Bytes();
    b->data = std::move(d);
    return b;
}

Text* makeText(std::string&& s, Arena* arena) {
    if (!arena) return makeText(std::move(s));
    bool inArena = false;
    auto* t = new (allocate(sizeof(Text), arena, inArena)) Text();
    t->text = std::move(s);
    t->inArena = inArena;
    return t;
}

void release(Text* t) {
    if (t->references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    const bool inArena = t->inArena;
    t->~Text();
    freeBlock(t, inArena);
}

void release(Bytes* b) {
    if (b->references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    const bool inArena = b->inArena;
    b->~Bytes();
    freeBlock(b, inArena);
}

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
    auto* b = new (allocate(sizeof(Bytes), arena, inArena)) Bytes();
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
    keys->references.fetch_add(1, std::memory_order_relaxed);
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
    detail::DictionaryAccess::retainKeys(keys);
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
            grown = detail::allocate(bytes);
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
    if (!node_) return;
    KeyList* keys = node_->keys;
    // A decoder's list stays out of the table, which would keep its chunk.
    if (keys->size == 0 || keys->size > detail::kSharedKeyListLength || keys->inArena ||
        keys->references.load(std::memory_order_acquire) != 1)
        return;
    const uint32_t h = detail::shapeHashOf(keys);
    KeyList*& slot = detail::recentTables().keyLists[h & (detail::kKeyListSlots - 1)];
    if (slot && detail::sameKeys(slot, keys)) {
        detail::DictionaryAccess::retainKeys(slot);
        node_->keys = slot;
        detail::releaseKeyList(keys);
        return;
    }
    if (slot) detail::releaseKeyList(slot);
    detail::DictionaryAccess::retainKeys(keys);
    slot = keys;
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
