#include "plist/PlistArena.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

#include "base/DescriptorIO.h"

namespace qvl::plist::detail {

// The head of a chunk; blocks follow it. While the arena fills a chunk, its
// count holds kFilling more than its live blocks, so that a block given back
// meanwhile never empties it.
struct alignas(16) Arena::Chunk {
    static constexpr uint64_t kFilling = uint64_t{1} << 62;
    std::atomic<uint64_t> live{kFilling};
};

Arena::~Arena() {
    leaveChunk();
}

void Arena::leaveChunk() {
    if (!chunk_) return;
    // The blocks handed out take the place of the arena's hold.
    const uint64_t hold = Chunk::kFilling - handedOut_;
    if (chunk_->live.fetch_sub(hold, std::memory_order_acq_rel) == hold) std::free(chunk_);
    chunk_ = nullptr;
    next_ = end_ = nullptr;
    handedOut_ = 0;
}

void* Arena::allocate(size_t bytes) {
    if (bytes > kLargestBlock) return nullptr;
    bytes = (bytes + 7) & ~size_t{7};
    if (static_cast<size_t>(end_ - next_) < bytes) {
        leaveChunk();
        void* room = std::aligned_alloc(kChunkSize, kChunkSize);
        if (!room) return nullptr;
        adviseHugePages(room, kChunkSize);
        chunk_ = new (room) Chunk();
        next_ = static_cast<char*>(room) + sizeof(Chunk);
        end_ = static_cast<char*>(room) + kChunkSize;
    }
    void* block = next_;
    next_ += bytes;
    ++handedOut_;
    return block;
}

void Arena::free(void* block) {
    auto* chunk = reinterpret_cast<Chunk*>(reinterpret_cast<uintptr_t>(block) & ~(kChunkSize - 1));
    if (chunk->live.fetch_sub(1, std::memory_order_acq_rel) == 1) std::free(chunk);
}

}  // namespace qvl::plist::detail
