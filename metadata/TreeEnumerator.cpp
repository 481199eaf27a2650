#include "metadata/TreeEnumerator.h"

#include <algorithm>
#include <cerrno>
#include <deque>

#include "base/QVLLog.h"
#include "metadata/QVLAttributeDictionary.h"
#include "metadata/QVLManifest.h"

namespace qvl {
namespace {

using platform::DirectoryEntry;
using platform::ItemType;

// How many files ahead of the one being read the walk asks the kernel to
// fetch. Reading small files one at a time waits for the disk once per file;
// with requests in flight for the next ones, a cold walk is several times
// faster. Only the first piece of each is asked for, so the window stays small.
constexpr size_t kPrefetchWindow = 32;

// Folders held open on the way down. Items are looked at relative to their
// open folder, which spares resolving each one's whole path; below this depth
// folders are listed, and their items looked at, by path, so that a deep tree
// can't run the process out of descriptors.
constexpr size_t kMaxOpenFolders = 64;

// Files opened ahead, at most, over all the folders of a walk: a file
// fetched ahead through a folder held open stays open until the walk reaches
// it, which spares opening it twice.
constexpr size_t kMaxOpenedAhead = 2 * kPrefetchWindow;

std::optional<ItemType> typeAt(platform::FileSystem& files, int folderFd, const std::string& name,
                               const std::string& path) {
    if (folderFd < 0) return TreeEnumerator::itemType(files, path);
    ItemType type;
    uint64_t size;
    if (files.typeAndSizeAt(folderFd, name, &type, &size) != 0) return std::nullopt;
    return type;
}

}  // namespace

std::string TreeEnumerator::childPath(const std::string& parent, const std::string& name) {
    return parent == "/" ? "/" + name : parent + "/" + name;
}

std::optional<ItemType> TreeEnumerator::itemType(platform::FileSystem& files, const std::string& path) {
    platform::ItemStat st;
    if (files.statItem(path, &st) != 0) return std::nullopt;
    return st.type;
}

bool TreeEnumerator::enumerate(platform::FileSystem& files, const std::string& top,
                               const std::vector<std::string>* skip, const char* signature,
                               const Visit& visit, const Prefetch& prefetch) {
    struct Level {
        Level() = default;
        Level(Level&&) = default;  // never copied: it owns the descriptors opened ahead
        Level& operator=(Level&&) = default;
        std::string path;
        uint64_t serial = 0;
        SharedFolder folder;
        std::vector<DirectoryEntry> entries;
        size_t next = 0;
        size_t prefetched = 0;
        std::deque<std::pair<size_t, UniqueFd>> opened;  // by entry index, in order
    };
    std::vector<Level> stack;
    size_t openedAhead = 0;
    uint64_t folders = 0;
    auto descend = [&](int parentFd, const std::string& name, const std::string& folder) {
        if (QVLManifest::folderContains(skip, folder)) return;
        Level level;
        level.path = folder;
        level.serial = ++folders;
        int listed = -1;
        if (stack.size() >= kMaxOpenFolders) {
            listed = files.listDirectory(folder, &level.entries);
        } else {
            UniqueFd fd = parentFd >= 0 ? files.openItemAt(parentFd, name, ItemType::kDirectory)
                                        : files.openFolder(folder);
            if (fd.valid()) {
                listed = files.listFolder(fd.get(), &level.entries);
                level.folder = std::make_shared<const UniqueFd>(std::move(fd));
            }
        }
        if (listed != 0) {
            QVLLog("%s: Could not enumerate %@, url=%@, error=%@", signature, folder,
                   "file://" + folder + "/", QVLAttributeDictionary::errorText(errno));
            return;
        }
        stack.push_back(std::move(level));
    };
    if (itemType(files, top) == ItemType::kDirectory) descend(-1, top, top);
    while (!stack.empty()) {
        Level& level = stack.back();
        if (level.next == level.entries.size()) {
            openedAhead -= level.opened.size();
            stack.pop_back();
            continue;
        }
        const int folderFd = level.folder ? level.folder->get() : -1;
        for (const size_t end = std::min(level.entries.size(), level.next + kPrefetchWindow);
             level.prefetched < end; ++level.prefetched) {
            const DirectoryEntry& ahead = level.entries[level.prefetched];
            if (ahead.type != ItemType::kRegular) continue;
            UniqueFd fd =
                prefetch(folderFd, level.path, ahead.name, folderFd >= 0 && openedAhead < kMaxOpenedAhead);
            if (fd.valid()) {
                level.opened.emplace_back(level.prefetched, std::move(fd));
                ++openedAhead;
            }
        }
        // Entries stay where they are while deeper levels are pushed: the
        // vector holding them moves with its level.
        const size_t index = level.next++;
        const DirectoryEntry& entry = level.entries[index];
        UniqueFd opened;
        if (!level.opened.empty() && level.opened.front().first == index) {
            opened = std::move(level.opened.front().second);
            level.opened.pop_front();
            --openedAhead;
        }
        const std::string item = childPath(level.path, entry.name);
        if (QVLManifest::folderContains(skip, item)) continue;
        const std::optional<ItemType> type =
            entry.type != ItemType::kUnknown ? entry.type : typeAt(files, folderFd, entry.name, item);
        if (!visit(WalkItem{folderFd, &level.folder, entry.name, item, type, &opened, stack.size() - 1,
                            level.serial, &level.entries, index}))
            return false;
        if (type == ItemType::kDirectory) descend(folderFd, entry.name, item);
    }
    return true;
}

}  // namespace qvl
