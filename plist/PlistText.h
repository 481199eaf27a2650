// Shared texts: the keys and string values of property values. A text is
// immutable once made and reference-counted; short texts made on one thread
// one after another share one copy through the thread's table of recent
// texts (PlistText.cpp), so the keys that recur in every record of a tree
// cost one allocation each.
//
// Internal to plist/: the types are declared in PlistValue.h, which the
// values' inline accessors need.
//
// Thread-safety: a text may be read and retained or released from any
// thread; makeText touches only the calling thread's table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

#include "plist/PlistValue.h"

namespace qvl::plist::detail {

// The text's hash, computed once and kept with it.
inline uint32_t textHash(const Text* t) {
    uint32_t h = t->hash.load(std::memory_order_relaxed);
    if (h == 0) {
        h = hashText(t->text);
        t->hash.store(h, std::memory_order_relaxed);
    }
    return h;
}

inline bool textEquals(const Text* t, std::string_view s) {
    return t->text.size() == s.size() && std::memcmp(t->text.data(), s.data(), s.size()) == 0;
}

// The calling thread's table of `N` recently made shared parts (texts, key
// lists), each slot holding one reference or null. The table is a plain
// array, never destroyed; `Release` gives its references back when the
// thread ends.
template <class T, size_t N, void (*Release)(T*)>
T** recentOnThisThread() {
    thread_local T* slots[N]{};
    thread_local struct ReleaseAtThreadEnd {
        ~ReleaseAtThreadEnd() {
            for (T*& p : slots)
                if (p) Release(std::exchange(p, nullptr));
        }
    } releaser;
    (void)releaser;
    return slots;
}

}  // namespace qvl::plist::detail
