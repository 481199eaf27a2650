// ItemBeneath: the walk behind FileSystem::openItemBeneath (code above
// platform/ goes through FileSystem, which documents the call).
//
// Results are errno values: 0 for success; `out` is left alone on failure.
//
// Thread-safety: no shared state; safe from any thread.
#pragma once

#include <string_view>

#include "platform/fs/FileSystem.h"

namespace qvl::platform {

// Paths deeper than this below the base are refused (ENAMETOOLONG): each
// name costs one open, and a client's key must not make the walk unbounded.
inline constexpr size_t kMaxNamesBeneath = 256;

int openItemBeneath(int baseFd, std::string_view relative, ItemBeneath* out);

}  // namespace qvl::platform
