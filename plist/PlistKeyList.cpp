// Key lists: copies, growth, the index of a long list and the thread's table
// of recently made lists.

#include "plist/PlistKeyList.h"

#include <mutex>
#include <utility>

namespace qvl::plist::detail {

namespace {

// Key lists up to this length are shared through the thread's table.
constexpr uint32_t kSharedKeyListLength = 64;
constexpr size_t kKeyListSlots = 256;

KeyIndex* buildIndex(const KeyList* k) {
    uint32_t slots = 32;
    while (slots < 2 * (k->size + 1)) slots *= 2;
    auto* index = new (allocateBlock(sizeof(KeyIndex) + slots * sizeof(uint32_t))) KeyIndex{slots - 1, 0};
    std::memset(index->slots(), 0, slots * sizeof(uint32_t));
    for (uint32_t i = 0; i < k->size; ++i) insertIntoIndex(index, k, i);
    return index;
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

}  // namespace

void destroyKeyList(KeyList* k) {
    for (uint32_t i = k->size; i-- > 0;) release(k->keys()[i]);
    dropIndex(k);
    freeKeyList(k);
}

KeyList* copyKeyList(const KeyList* k, uint32_t capacity) {
    KeyList* copy = newKeyList(capacity);
    for (uint32_t i = 0; i < k->size; ++i) retain(copy->keys()[i] = k->keys()[i]);
    copy->size = k->size;
    return copy;
}

KeyList* growKeyList(KeyList* k, uint32_t capacity) {
    KeyList* grown = newKeyList(capacity);
    std::memcpy(grown->keys(), k->keys(), k->size * sizeof(Text*));
    grown->size = k->size;
    grown->index.store(k->index.exchange(nullptr, std::memory_order_relaxed), std::memory_order_relaxed);
    freeKeyList(k);
    return grown;
}

// Readers of a const dictionary may race to build the index: the build is
// serialised on one mutex and published once.
const KeyIndex* buildIndexOnce(const KeyList* k) {
    static std::mutex buildMutex;
    std::lock_guard<std::mutex> lock(buildMutex);
    if (const KeyIndex* ready = k->index.load(std::memory_order_acquire)) return ready;
    KeyIndex* index = buildIndex(k);
    const_cast<KeyList*>(k)->index.store(index, std::memory_order_release);
    return index;
}

KeyList* shareKeyList(KeyList* k) {
    // A decoder's list stays out of the table, which would keep its chunk.
    if (k->size == 0 || k->size > kSharedKeyListLength || k->inArena ||
        k->references.load(std::memory_order_acquire) != 1)
        return k;
    KeyList*& slot =
        recentOnThisThread<KeyList, kKeyListSlots, releaseKeyList>()[shapeHashOf(k) & (kKeyListSlots - 1)];
    if (slot && sameKeys(slot, k)) {
        retainKeyList(slot);
        releaseKeyList(k);
        return slot;
    }
    if (slot) releaseKeyList(slot);
    retainKeyList(k);
    slot = k;
    return k;
}

}  // namespace qvl::plist::detail
