// FileTree: the tree work behind LinuxFileSystem (code above platform/ goes
// through FileSystem): linking a tree into a new place, never following a
// symbolic link (a link inside a tree is linked as the link itself), working
// through folder descriptors so that a folder swapped for a link while the
// walk runs is refused instead of followed. Removal is base/FolderAccess's
// removeTreeAt; removeTree here is its form for a path.
//
// Results are errno values: 0 for success.
//
// Thread-safety: no shared state; safe from any thread.
#pragma once

#include <string>

#include "base/FolderAccess.h"

namespace qvl::platform {

using qvl::DirStream;
using qvl::openStream;

// Trees deeper than this are refused (ELOOP): each level holds two open
// descriptors, and the walk must stay well inside the process's limit.
inline constexpr int kMaxTreeDepth = 128;

// Creates `toName` in the folder `toFolderFd` as a hard link of the item
// `fromName` of `fromFolderFd`. A file (or a symbolic link, fifo, socket or
// device node) gets one new link; a folder gets a new folder with the same
// permission bits whose entries are linked in turn. The new name must not
// exist; a new folder inside the folder being linked is refused (EINVAL).
// When linking fails midway, everything created so far is removed again, so
// either the whole tree appears or nothing does; the linked originals are
// never touched.
int linkTreeAt(int fromFolderFd, const std::string& fromName, int toFolderFd, const std::string& toName);

// removeTreeAt for the last name of `path`; the folders on the way to it are
// the caller's to trust.
int removeTree(const std::string& path);

}  // namespace qvl::platform
