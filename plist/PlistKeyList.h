// Key lists: the keys of a dictionary in order, in one allocation, shared by
// every dictionary with the same keys in the same order and copied by a
// dictionary before it changes them. A long list gets a hashed index on its
// first lookup. Each thread keeps a small table of the lists it made
// recently, so that records built one after another (a walk of a tree)
// share their keys without any lock.
//
// Internal to plist/. The lookups and the allocation sit here, inline: they
// are on the path of every dictionary made and every key looked up.
//
// Thread-safety: any number of threads may look up keys in a list shared by
// const dictionaries (and so build its index); a list is changed only by the
// one dictionary that holds it alone.
#pragma once

#include <cstdint>
#include <cstring>
#include <new>
#include <optional>
#include <string_view>

#include "plist/PlistArena.h"
#include "plist/PlistText.h"
#include "plist/PlistValue.h"

namespace qvl::plist::detail {

// Open-addressing table of positions (1 + position; 0 is a free slot).
struct KeyIndex {
    uint32_t mask;
    uint32_t used;
    uint32_t* slots() { return reinterpret_cast<uint32_t*>(this + 1); }
    const uint32_t* slots() const { return reinterpret_cast<const uint32_t*>(this + 1); }
};

// Lists from this length on are looked up through a hashed index.
inline constexpr uint32_t kIndexThreshold = 16;

// An empty list with room for `capacity` keys, from `arena` when it has room.
inline KeyList* newKeyList(uint32_t capacity, Arena* arena = nullptr) {
    bool inArena = false;
    void* room = allocateBlock(sizeof(KeyList) + capacity * sizeof(Text*), arena, inArena);
    return new (room) KeyList{.capacity = capacity, .inArena = inArena};
}

inline void freeKeyList(KeyList* k) {
    const bool inArena = k->inArena;
    k->~KeyList();
    freeBlock(k, inArena);
}

inline void dropIndex(KeyList* k) {
    std::free(k->index.exchange(nullptr, std::memory_order_relaxed));
}

// Frees a list whose last reference is gone, with its keys and index.
void destroyKeyList(KeyList* k);

inline void releaseKeyList(KeyList* k) {
    if (k->references.fetch_sub(1, std::memory_order_acq_rel) == 1) destroyKeyList(k);
}

inline void retainKeyList(KeyList* k) {
    k->references.fetch_add(1, std::memory_order_relaxed);
}

// A list of our own with the same keys and room for `capacity`.
KeyList* copyKeyList(const KeyList* k, uint32_t capacity);
// Moves a list of our own to a larger allocation, index and all.
KeyList* growKeyList(KeyList* k, uint32_t capacity);

inline void insertIntoIndex(KeyIndex* index, const KeyList* k, uint32_t position) {
    uint32_t i = textHash(k->keys()[position]) & index->mask;
    while (index->slots()[i] != 0) i = (i + 1) & index->mask;
    index->slots()[i] = position + 1;
    ++index->used;
}

// Builds and publishes the index of a long list that has none yet.
const KeyIndex* buildIndexOnce(const KeyList* k);

// The index of a long list, built on first use; null for a short one.
inline const KeyIndex* indexOf(const KeyList* k) {
    if (k->size < kIndexThreshold) return nullptr;
    if (const KeyIndex* ready = k->index.load(std::memory_order_acquire)) return ready;
    return buildIndexOnce(k);
}

inline std::optional<uint32_t> positionOf(const KeyList* k, std::string_view key) {
    if (const KeyIndex* index = indexOf(k)) {
        const uint32_t h = hashText(key);
        for (uint32_t i = h & index->mask;; i = (i + 1) & index->mask) {
            const uint32_t slot = index->slots()[i];
            if (slot == 0) return std::nullopt;
            const Text* t = k->keys()[slot - 1];
            if (textHash(t) == h && textEquals(t, key)) return slot - 1;
        }
    }
    for (uint32_t i = 0; i < k->size; ++i)
        if (textEquals(k->keys()[i], key)) return i;
    return std::nullopt;
}

// Offers `k`, a list held by one dictionary alone, to the thread's table of
// recent lists. Answers the list the dictionary should hold: an earlier list
// with the same keys (`k` is then released) or `k` itself, which the table
// now holds too. A decoder's list (from an arena) and a long one stay out.
KeyList* shareKeyList(KeyList* k);

}  // namespace qvl::plist::detail
