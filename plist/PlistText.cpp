// Texts and data boxes, and the thread's table of recently made short texts.

#include "plist/PlistText.h"

#include <cstring>
#include <new>
#include <utility>

#include "plist/PlistArena.h"
#include "plist/PlistCodec.h"

namespace qvl::plist::detail {

namespace {

// Texts up to this length are shared through the thread's table; longer ones
// (paths) are nearly always unique.
constexpr size_t kSharedTextLength = 40;
constexpr size_t kTextSlots = 1024;

Text* newText(std::string_view s) {
    return new (allocateBlock(sizeof(Text))) Text{.text = std::string(s)};
}

Text* newText(std::string&& s) {
    return new (allocateBlock(sizeof(Text))) Text{.text = std::move(s)};
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
    if (s.size() > kSharedTextLength) return newText(s);
    // Two ways per set, so that two recurring texts of one set do not push
    // each other out: a new text takes the first way, the first moves on to
    // the second.
    const uint32_t h = hashText(s);
    Text** set = &recentOnThisThread<Text, kTextSlots, release>()[h & (kTextSlots - 2)];
    for (int way = 0; way < 2; ++way)
        if (set[way] && textEquals(set[way], s)) {
            retain(set[way]);
            return set[way];
        }
    Text* t = newText(s);
    t->hash.store(h, std::memory_order_relaxed);
    if (set[1]) release(set[1]);
    set[1] = set[0];
    set[0] = t;
    retain(t);  // the table's reference
    return t;
}

Text* makeText(std::string&& s) {
    if (s.size() <= kSharedTextLength) return makeText(std::string_view(s));
    return newText(std::move(s));
}

Text* makeText(std::string&& s, Arena* arena) {
    if (!arena) return makeText(std::move(s));
    bool inArena = false;
    auto* t = new (allocateBlock(sizeof(Text), arena, inArena)) Text();
    t->text = std::move(s);
    t->inArena = inArena;
    return t;
}

Bytes* makeBytes(Data&& d) {
    auto* b = new (allocateBlock(sizeof(Bytes))) Bytes();
    b->data = std::move(d);
    return b;
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

}  // namespace qvl::plist::detail
