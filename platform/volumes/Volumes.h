// Volumes: the device's mounted volumes, simulated by a table file, an array
// of at most kMaxVolumes dictionaries in mount order: "FSTypeName" ("hfs" for
// an HFS Plus volume), "MountedFrom" (such as "/dev/disk0s1s2"), "MountedOn",
// "UUID" (36 characters: the partition GUID of the volume), and "Size" and
// "Used" in bytes. Three services of the device are answered from it:
//   - getfsstat: the mounted file systems. A table longer than kMaxVolumes
//     shows its first kMaxVolumes entries, as a getfsstat with room for that
//     many would; no table means nothing is mounted.
//   - the device registry: the device of a BSD name (the last component of
//     "MountedFrom") and its "UUID" property.
//   - the HFS resize: sets the "Size" of the HFS volume mounted on a path and
//     writes the table back atomically.
// The table is read anew on every call.
//
// Every call is virtual so that tests can put in volumes of their own;
// sharedInstance() answers from the device's table.
//
// Thread-safety: keeps no mutable state. Two resizes at once from different
// processes would each write the whole table; the helper serves one request
// at a time, which is the only writer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plist/PlistValue.h"

namespace qvl::platform {

inline constexpr const char* kVolumesPath = "/private/var/db/platform/volumes.plist";

class Volumes {
  public:
    static constexpr size_t kMaxVolumes = 8;

    struct Volume {
        std::string fsTypeName, mountedFrom, mountedOn;
        std::optional<plist::Value> uuid;  // any kind: the registry answers what it holds
        std::optional<int64_t> size, used;
    };
    struct RegistryDevice {
        std::optional<plist::Value> uuid;
    };

    explicit Volumes(std::string tablePath = kVolumesPath) : tablePath_(std::move(tablePath)) {}
    virtual ~Volumes() = default;

    static Volumes& sharedInstance();

    // The mounted volumes, or nullopt when a table is there but unreadable.
    virtual std::optional<std::vector<Volume>> mounted() const;
    virtual std::optional<RegistryDevice> deviceWithBSDName(std::string_view bsdName) const;
    // 0, or -1 with errno: ENOSPC when `newSize` is below "Used", EINVAL when
    // no HFS volume is mounted on `mountPoint`, EIO when the table can't be
    // read or written.
    virtual int hfsResize(const std::string& mountPoint, uint64_t newSize);

    const std::string& tablePath() const { return tablePath_; }

  private:
    std::string tablePath_;
};

}  // namespace qvl::platform
