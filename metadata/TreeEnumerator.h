// TreeEnumerator: the order in which a manifest walk meets the items of a
// tree, and the folders it holds open on the way. It visits every item below
// a folder, depth first, a folder before its contents, without following
// links, each item named relative to its open folder; it tells of the
// regular files a little before it visits them, so that their content can be
// fetched ahead.
//
// Thread-safety: one enumeration is driven by one thread; the folders it
// hands out (SharedFolder) may be used from others while they are held.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/UniqueFd.h"
#include "platform/fs/FileSystem.h"

namespace qvl {

// A folder the walk holds open, shared with the jobs that read in it.
using SharedFolder = std::shared_ptr<const UniqueFd>;

// One item met by a walk: its path, its name in the open folder `folderFd`
// (-1 when the folder is not held open; `folder` then is null), its type
// (nullopt when it can't be read) and, for a file fetched ahead, the
// descriptor that fetch opened. An item listed in a folder also has its place
// there: the folder's depth, a number that no other folder of the walk has,
// its entries and its index among them.
struct WalkItem {
    int folderFd;
    const SharedFolder* folder;
    const std::string& name;
    const std::string& path;
    std::optional<platform::ItemType> type;
    UniqueFd* opened = nullptr;
    size_t depth = 0;
    uint64_t serial = 0;
    const std::vector<platform::DirectoryEntry>* entries = nullptr;
    size_t index = 0;
};

class TreeEnumerator {
  public:
    // Answers false to stop the enumeration.
    using Visit = std::function<bool(const WalkItem& item)>;
    // Told of the regular file `name` of the folder `folderPath` (open as
    // `folderFd`, or -1) some items before it is visited; may answer the
    // file opened, which the visit then gets, but only when `mayKeepOpen`.
    using Prefetch = std::function<UniqueFd(int folderFd, const std::string& folderPath,
                                            const std::string& name, bool mayKeepOpen)>;

    // Visits every item below `top`. Folders inside a skip folder are not
    // opened: all they hold would be skipped. `visit(item)` gets nullopt as
    // the type when it cannot be read. `signature` names the walk in the log
    // line of a folder that can't be listed (the walk goes on without it).
    // Memory: the listings of the folders from `top` down to the current
    // item, and at most 64 files opened ahead.
    static bool enumerate(platform::FileSystem& files, const std::string& top,
                          const std::vector<std::string>* skip, const char* signature, const Visit& visit,
                          const Prefetch& prefetch);

    // The path of `name` in the folder `parent`.
    static std::string childPath(const std::string& parent, const std::string& name);
    // The type of the item at `path` itself; nullopt when it can't be read.
    static std::optional<platform::ItemType> itemType(platform::FileSystem& files, const std::string& path);
};

}  // namespace qvl
