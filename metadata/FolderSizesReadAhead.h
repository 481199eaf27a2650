// FolderSizesReadAhead: the sizes of the files in the folders a walk goes
// through, read by collector threads ahead of the walking one.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/UniqueFd.h"
#include "metadata/OrderedWorkPool.h"
#include "metadata/TreeEnumerator.h"
#include "platform/fs/FileSystem.h"

namespace qvl {

// The sizes of the files in the folders a walk goes through, read by
// collectors ahead of the walking thread, which then only lists folders and
// adds: a statx per file is most of the work of a pass over sizes. They are
// read in pieces of kSizeChunk entries of a folder, up to kSizesAhead entries
// ahead of the item asked for. A size read ahead is as good as one read when
// the item is reached: the tree may change under a walk either way.
//
// Thread-safety: sizeOf is for the walking thread; the collectors share only
// `files` and the folders' descriptors.
class FolderSizesReadAhead {
  public:
    FolderSizesReadAhead(platform::FileSystem& files, unsigned collectors)
        : files_(files), pool_(collectors, kSizesAhead / kSizeChunk + 1) {}

    // Reads the size of entries[index], a file of the open folder `shared`,
    // like FileSystem::typeAndSizeAt: 0, or -1 with errno set. `depth` is the
    // folder's depth in the walk and `serial` a number no other folder of the
    // walk has; its entries stay as they are while the walk is in it.
    int sizeOf(const SharedFolder& shared, size_t depth, uint64_t serial,
               const std::vector<platform::DirectoryEntry>& entries, size_t index, uint64_t* bytes) {
        if (folders_.size() <= depth) folders_.resize(depth + 1);
        Folder& folder = folders_[depth];
        if (folder.serial != serial) {
            folder.serial = serial;
            folder.submitted = 0;
            folder.sizes.assign(entries.size(), std::nullopt);
        }
        while (!folder.sizes[index]) {
            submitAhead(folder, shared, depth, serial, entries, index);
            if (pool_.pending() == 0) {  // not expected: read it here
                platform::ItemType type;
                return files_.typeAndSizeAt(shared->get(), entries[index].name, &type, bytes);
            }
            take();
        }
        const Size& size = *folder.sizes[index];
        if (size.error != 0) {
            errno = size.error;
            return -1;
        }
        *bytes = size.bytes;
        return 0;
    }

  private:
    static constexpr size_t kSizeChunk = 16;
    static constexpr size_t kSizesAhead = 128;

    struct Size {
        int error = 0;
        uint64_t bytes = 0;
    };
    struct Chunk {
        size_t depth;
        uint64_t serial;
        std::vector<std::pair<size_t, Size>> sizes;  // by entry index
    };
    struct Folder {
        uint64_t serial = 0;
        size_t submitted = 0;
        std::vector<std::optional<Size>> sizes;
    };

    void submitAhead(Folder& folder, const SharedFolder& shared, size_t depth, uint64_t serial,
                     const std::vector<platform::DirectoryEntry>& entries, size_t index) {
        const size_t end = std::min(entries.size(), index + kSizesAhead);
        while (folder.submitted < end && !pool_.full()) {
            const size_t first = folder.submitted;
            const size_t last = std::min(entries.size(), first + kSizeChunk);
            std::vector<std::pair<size_t, std::string>> names;
            for (size_t i = first; i < last; ++i) {
                // An entry of unknown type may turn out to be a file. A file
                // the walk skips may be looked at too: that does no harm.
                const platform::ItemType type = entries[i].type;
                if (type == platform::ItemType::kRegular || type == platform::ItemType::kUnknown)
                    names.emplace_back(i, entries[i].name);
            }
            // The job holds the folder open: the walk may leave it first.
            pool_.submit([this, shared, depth, serial, names = std::move(names)] {
                Chunk chunk{depth, serial, {}};
                chunk.sizes.reserve(names.size());
                for (const auto& [index, name] : names) {
                    Size size;
                    platform::ItemType type;
                    if (files_.typeAndSizeAt(shared->get(), name, &type, &size.bytes) != 0)
                        size.error = errno;
                    chunk.sizes.emplace_back(index, size);
                }
                return chunk;
            });
            folder.submitted = last;
        }
    }

    // Files the oldest piece read under its folder, unless the walk has
    // left that folder.
    void take() {
        Chunk chunk = pool_.takeOldest();
        if (chunk.depth >= folders_.size() || folders_[chunk.depth].serial != chunk.serial) return;
        Folder& folder = folders_[chunk.depth];
        for (const auto& [index, size] : chunk.sizes) folder.sizes[index] = size;
    }

    platform::FileSystem& files_;
    std::vector<Folder> folders_;  // by depth
    OrderedWorkPool<Chunk> pool_;
};

}  // namespace qvl
