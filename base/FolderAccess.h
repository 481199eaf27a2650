// FolderAccess: opening, creating and removing the entries of an open folder
// that another user may be able to write (the log folder, a client's work
// and staging folders). Every call takes a folder descriptor and one name,
// never follows a symbolic link at that name and never blocks on what it
// finds there (a fifo, a device), so nothing planted in the folder can
// redirect or stall the caller. The log model uses it for its own folder;
// platform/fs builds the file-system calls of the layers above on it.
//
// Results are errno values: 0 for success; `out` is left alone on failure.
// Every descriptor is close-on-exec.
//
// Thread-safety: no shared state; safe from any thread.
#pragma once

#include <dirent.h>
#include <fcntl.h>

#include <cstdint>
#include <memory>
#include <string>

#include "base/UniqueFd.h"

namespace qvl {

// How openRegularFileAt opens. Whatever the options, the open never blocks
// and anything but a regular file is refused (EINVAL).
struct RegularFileOptions {
    int access = O_RDONLY;           // O_RDONLY, O_WRONLY or O_RDWR, optionally | O_APPEND
    bool create = false;             // create the file when missing...
    bool exclusive = false;          // ...and only then: an existing one is EEXIST
    uint32_t mode = 0644;            // of a created file
    bool followLinks = false;        // a link at the name: ELOOP unless set
    bool requireOwnedBySelf = false; // a file of another owner than this process's user: EPERM
    bool requireSingleLink = false;  // a file with other hard links elsewhere: EMLINK
};

// Opens the regular file `name` of `folderFd` (AT_FDCWD and a path: only
// the path's last name is held to the options).
int openRegularFileAt(int folderFd, const std::string& name, const RegularFileOptions& options,
                      UniqueFd* out);

// Opens the folder `name` of `folderFd`: a link there is ELOOP, anything
// else but a folder ENOTDIR. With `create`, a missing folder is made with
// `mode` (the umask applies) first.
int openFolderAt(int folderFd, const std::string& name, bool create, uint32_t mode, UniqueFd* out);

// Removes the entry `name` of `folderFd` with everything it holds. ENOENT
// when nothing is there. Links are removed as themselves, never followed.
// The walk works by descriptors one level at a time, keeping only the
// identity of each folder above it, so neither depth nor breadth is
// limited and memory grows with the depth alone. It stays on the file
// system it starts on (a mount point below is EXDEV), climbs back only into
// the folder it came from (a folder moved away during the walk is EBUSY),
// and stops at the first error, leaving what was not yet removed.
int removeTreeAt(int folderFd, const std::string& name);

// A listing of an open folder from its start, on a copy of its descriptor
// so that the folder's own descriptor stays usable for the *at() calls.
struct DirCloser {
    void operator()(DIR* d) const { ::closedir(d); }
};
using DirStream = std::unique_ptr<DIR, DirCloser>;
DirStream openStream(int folderFd);

}  // namespace qvl
