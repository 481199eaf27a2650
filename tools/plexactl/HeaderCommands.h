// plexactl's "header" commands over the volume manager's own header and its
// backup copy in chunk 0.
#ifndef QVL_TOOLS_PLEXACTL_HEADERCOMMANDS_H
#define QVL_TOOLS_PLEXACTL_HEADERCOMMANDS_H

#include <string>

namespace qvl::plexactl {

// Each answers the process exit status: 0 on success, 1 on failure (after
// one line on standard error).

// Writes a fresh header to both copies; an image that already holds a sound
// header is left alone unless `force`.
int headerCreate(const std::string& path, bool force);
int headerShow(const std::string& path);
int headerCheck(const std::string& path);
// Repairs the acquired header and writes both copies, only when the repair
// succeeded and something changed.
int headerRepair(const std::string& path, bool strict);

}  // namespace qvl::plexactl

#endif  // QVL_TOOLS_PLEXACTL_HEADERCOMMANDS_H
