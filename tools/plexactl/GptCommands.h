// plexactl's "gpt" commands: look at the GPT view the volume manager presents
// on a disk, and resize, create or delete one of its partitions in place.
#ifndef QVL_TOOLS_PLEXACTL_GPTCOMMANDS_H
#define QVL_TOOLS_PLEXACTL_GPTCOMMANDS_H

#include <cstdint>
#include <optional>
#include <string>

namespace qvl::plexactl {

// Each answers the process exit status: 0 on success, 1 on failure (after
// one line on standard error).
int gptShow(const std::string& path);

// Gives partition `index` (the next free slot when absent) `newSize` bytes, 0
// deleting it, and writes the two view blocks back only when the adjustment
// succeeded.
int gptAdjust(const std::string& path, std::optional<int> index, uint64_t newSize);

}  // namespace qvl::plexactl

#endif  // QVL_TOOLS_PLEXACTL_GPTCOMMANDS_H
