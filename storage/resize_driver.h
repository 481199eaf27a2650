// The data partition resize driver behind the helper's two storage commands:
// shrink_data_partition gives half of the data volume's free space back,
// expand_data_partition grows the data partition over all the space that the
// other partitions leave. It works on the GPT view that the volume manager
// presents on the raw disk "/dev/rdisk0s1", finds the data partition by its
// name, finds the mounted HFS volume on it by matching the partition's unique
// GUID against the volume's device UUID, and resizes the volume in step with
// the table: shrunk before the table is written, grown after, so the file
// system is never larger than its partition.
//
// Results keep the driver's own conventions: read_gpt 1 on success and 0 on
// failure; adjust_partition, expand_data_partition and hfs_resize 0 and 1;
// shrink_data_partition 0 and -1. Every message goes through QVLLog, those of
// the table adjustment to standard error. Nothing is written to the disk
// unless the in-memory adjustment succeeded.
//
// The host is reached only through ResizeServices; the two entry points
// without arguments use the platform's own layers.
//
// Thread-safety: none. partition_names is process state shared without a
// lock; the helper runs one request at a time.
#pragma once

#include <cstdint>

#include "platform/disk/RawDisk.h"
#include "storage/plexa.h"

namespace qvl::platform {
class DeviceInfo;
class Volumes;
}  // namespace qvl::platform

namespace qvl::storage {

inline constexpr const char* kDataDiskPath = "/dev/rdisk0s1";

struct ResizeServices {
    platform::RawDisk& disk;
    platform::Volumes& volumes;
    const platform::DeviceInfo& deviceInfo;
};

// The partition-table image of one request: the 92-byte GPT header image and
// the 8-entry table.
struct GptImage {
    uint8_t header[92];
    uint8_t table[1024];
};

// A GPT partition name and the index last found for it (-1: never found).
struct PartitionNameRow {
    const char* name;
    int index;
};
// "System", "Data" and "Update". Every successful read_gpt overwrites the
// index of each name it finds; a name it does not find keeps its earlier
// index for the life of the process.
extern PartitionNameRow partition_names[3];

// The data disk opened for reading or for writing back (under a shared
// lock); -1 when it can't be opened or is not a disk device.
int open_data_disk(const ResizeServices& host, platform::RawDisk::Access access);
int read_gpt(const ResizeServices& host, GptImage* image, PlexaMediaProperties* geometry);
// Brings the "Data" partition to `newSize` bytes, creating it when the view
// has none.
int adjust_partition(const ResizeServices& host, uint64_t newSize);
int hfs_resize(const ResizeServices& host, const char* mountPoint, uint64_t newSize);
int shrink_data_partition(const ResizeServices& host);
int expand_data_partition(const ResizeServices& host);

int shrink_data_partition();
int expand_data_partition();

}  // namespace qvl::storage
