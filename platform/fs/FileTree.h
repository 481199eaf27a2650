// FileTree: the tree work behind LinuxFileSystem (code above platform/ goes
// through FileSystem): linking a tree into a new place and removing a tree,
// both without ever following a symbolic link (a link inside a tree is linked
// or removed as the link itself), both working through directory descriptors
// so that a folder swapped for a link while the walk runs is refused instead
// of followed. Also the one listing of an open folder.
//
// Results are errno values: 0 for success.
//
// Thread-safety: no shared state; safe from any thread.
#pragma once

#include <dirent.h>

#include <memory>
#include <string>

namespace qvl::platform {

// Trees deeper than this are refused (ELOOP): each level holds two open
// descriptors, and the walk must stay well inside the process's limit.
inline constexpr int kMaxTreeDepth = 128;

// Creates `newPath` as a hard link of the item at `existing`. A file (or a
// symbolic link, fifo, socket or device node) gets one new link; a folder
// gets a new folder with the same permission bits whose entries are linked in
// turn. `newPath` must not exist and its parent folder must; a new path
// inside the folder being linked is refused (EINVAL). When linking fails
// midway, everything created so far is removed again, so either the whole
// tree appears or nothing does; the linked originals are never touched.
int linkTree(const std::string& existing, const std::string& newPath);

// Removes the item at `path` with all its contents. ENOENT when nothing is
// there. The walk stays on the file system it starts on: a folder of another
// file system (a mount point) is refused with EXDEV, and the removal stops at
// the first error, leaving what was not yet removed.
int removeTree(const std::string& path);

// A listing of an open folder, on a copy of its descriptor so that the
// folder's own descriptor stays usable for the *at() calls.
struct DirCloser {
    void operator()(DIR* d) const { ::closedir(d); }
};
using DirStream = std::unique_ptr<DIR, DirCloser>;
DirStream openStream(int folderFd);

}  // namespace qvl::platform
