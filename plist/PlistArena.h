// PlistArena: room for the values of one large decoded document.
//
// A decoder that builds a large tree (a manifest of a hundred thousand
// records) takes its dictionaries, key lists, texts and data boxes from
// chunks of 2 MiB, aligned to their size and advised for huge pages: the tree
// then costs a few dozen page faults instead of one per 4 KiB, and each block
// a bump of a pointer instead of the general allocator's bookkeeping.
//
// Blocks are still given back one by one, as the values that own them die:
// each chunk counts its live blocks and returns to the system when the last
// one goes and the arena has moved past it. A value kept from a decoded tree
// therefore keeps its chunk (at most 2 MiB) alive, and nothing else.
//
// Thread-safety: an arena is filled by one thread; its blocks may be given
// back from any thread.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

namespace qvl::plist::detail {

class Arena {
  public:
    static constexpr size_t kChunkSize = size_t{2} << 20;
    // Larger blocks come from the general allocator: a few of them would
    // leave most of a chunk unused.
    static constexpr size_t kLargestBlock = kChunkSize / 8;

    Arena() = default;
    Arena(const Arena&) = delete;
    Arena& operator=(const Arena&) = delete;
    ~Arena();

    // Room for `bytes`, 8-byte aligned; null when the block is larger than
    // kLargestBlock or no chunk can be had (the caller then uses malloc).
    void* allocate(size_t bytes);
    // Gives back a block that allocate() returned.
    static void free(void* block);

  private:
    struct Chunk;
    void leaveChunk();

    Chunk* chunk_ = nullptr;
    char* next_ = nullptr;
    char* end_ = nullptr;
    size_t handedOut_ = 0;  // blocks of the current chunk, counted there on leaving
};

// A block of `bytes` from malloc; std::bad_alloc when there is none.
inline void* allocateBlock(size_t bytes) {
    void* p = std::malloc(bytes);
    if (!p) throw std::bad_alloc();
    return p;
}

// A block from `arena` when there is one and it has room, else from malloc;
// `inArena` tells which, for freeBlock.
inline void* allocateBlock(size_t bytes, Arena* arena, bool& inArena) {
    void* p = arena ? arena->allocate(bytes) : nullptr;
    inArena = p != nullptr;
    return p ? p : allocateBlock(bytes);
}

inline void freeBlock(void* p, bool inArena) {
    if (inArena)
        Arena::free(p);
    else
        std::free(p);
}

}  // namespace qvl::plist::detail
