// PropertyListFile: property lists in files, read and written through a
// FileSystem. Reading takes a regular file (links at the name followed, as
// for any configuration file; a fifo or a device is refused without
// blocking) of at most kMaxPropertyListFileSize bytes in either encoding;
// writing replaces the file whole or not at all.
//
// Thread-safety: as the FileSystem given.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "platform/fs/FileSystem.h"
#include "plist/PlistBinaryDictionaryWriter.h"
#include "plist/PropertyList.h"

namespace qvl::platform {

inline constexpr uint64_t kMaxPropertyListFileSize = 1ull << 31;

// The value in the file at `path`; on failure nullopt and, when `error` is
// given, why (the message names the path; kIO when the file could not be read).
std::optional<plist::Value> readPropertyListFile(FileSystem& files, const std::string& path,
                                                 plist::ReadError* error = nullptr,
                                                 plist::Format* formatOut = nullptr);

// Writes `value` to `path` in `format`. `mode` as for
// FileSystem::writeFileAtomically. On failure the old file is untouched and
// `error` (when given) holds the reason, naming the path.
bool writePropertyListFile(FileSystem& files, const std::string& path, const plist::Value& value,
                           plist::Format format, std::string* error = nullptr,
                           std::optional<uint32_t> mode = std::nullopt);

// Writes a binary property list whose top dictionary `fill` adds entry by
// entry to the writer it is given, as the file is written, so that a large
// one is never held whole. `fill` answers false to abandon the file. The old
// file is replaced whole or not at all.
enum class StreamedWrite { kWritten, kAbandoned, kFailed };
StreamedWrite writeBinaryDictionaryFile(FileSystem& files, const std::string& path,
                                        const std::function<bool(plist::BinaryDictionaryWriter&)>& fill,
                                        std::string* error = nullptr,
                                        std::optional<uint32_t> mode = std::nullopt);

}  // namespace qvl::platform
