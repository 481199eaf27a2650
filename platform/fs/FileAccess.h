// FileAccess: the writing and walking behind LinuxFileSystem for
// files and folders that another user may be able to change (code above
// platform/ goes through FileSystem, which documents each call).
//
// Results are errno values: 0 for success; descriptors come back through
// `out`, which is left alone on failure.
//
// Thread-safety: no shared state; safe from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "base/UniqueFd.h"
#include "platform/fs/FileSystem.h"

namespace qvl::platform {

int writeFileAtomically(const std::string& path, std::span<const uint8_t> bytes,
                        std::optional<uint32_t> mode);
int writeFileAtomicallyFrom(const std::string& path, const FileSystem::ContentProducer& produce,
                            std::optional<uint32_t> mode);
int openFolderBeneath(const std::string& base, const std::string& relative, bool create, uint32_t mode,
                      UniqueFd* out);

}  // namespace qvl::platform
