#include "storage/resize_driver.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/deviceinfo/DeviceInfo.h"
#include "platform/volumes/Volumes.h"
#include "base/QVLLog.h"
#include "storage/plexa_format.h"

namespace qvl::storage {

PartitionNameRow partition_names[3] = {{"System", -1}, {"Data", -1}, {"Update", -1}};

namespace {

namespace gpt = plexa::gpt;
using plexa::loadLE32;
using plexa::loadLE64;
using platform::RawDisk;
using platform::Volumes;
using u128 = unsigned __int128;

static_assert(sizeof(GptImage::header) == gpt::kHeaderSize && sizeof(GptImage::table) == gpt::kTableSize);

constexpr size_t kDataRow = 1;
// The registry's UUID property is taken as a C string of at most this many
// characters.
constexpr size_t kMaxUUIDText = 36;

// An open data disk, closed through its port on every way out.
class OpenDisk {
  public:
    OpenDisk(RawDisk& disk, int fd) : disk_(disk), fd_(fd) {}
    ~OpenDisk() {
        if (fd_ >= 0) disk_.close(fd_);
    }
    OpenDisk(const OpenDisk&) = delete;
    OpenDisk& operator=(const OpenDisk&) = delete;
    int fd() const { return fd_; }
    bool isOpen() const { return fd_ >= 0; }

  private:
    RawDisk& disk_;
    int fd_;
};

uint32_t entryCount(const GptImage& image) {
    return loadLE32(image.header + gpt::kEntryCount);
}
uint64_t firstUsable(const GptImage& image) {
    return loadLE64(image.header + gpt::kFirstUsableLBA);
}
uint64_t lastUsable(const GptImage& image) {
    return loadLE64(image.header + gpt::kLastUsableLBA);
}
const uint8_t* entryAt(const GptImage& image, size_t i) {
    return image.table + i * gpt::kEntrySize;
}
uint64_t entryFirst(const GptImage& image, size_t i) {
    return loadLE64(entryAt(image, i) + gpt::kFirstLBA);
}
uint64_t entryLast(const GptImage& image, size_t i) {
    return loadLE64(entryAt(image, i) + gpt::kLastLBA);
}
// Blocks of an entry measured as the table adjustment packs it: an entry
// whose last block lies before its first counts as about 2^64 blocks, so it
// can never pass the capacity check and then fail the adjustment.
u128 entryBlocks(const GptImage& image, size_t i) {
    return u128(entryLast(image, i) - entryFirst(image, i)) + 1;
}

// A name of the table as a GPT name field: UTF-16LE, zero-padded. The
// table's names are ASCII; any other name has no such form here.
bool nameField(const char* name, uint8_t field[gpt::kNameSize]) {
    std::memset(field, 0, gpt::kNameSize);
    for (size_t i = 0; name[i]; i++) {
        if (i >= gpt::kNameSize / 2 || static_cast<unsigned char>(name[i]) >= 0x80) return false;
        field[2 * i] = uint8_t(name[i]);
    }
    return true;
}

bool findPartitionNames(const GptImage& image) {
    for (size_t i = 0; i < entryCount(image); i++) {
        for (PartitionNameRow& row : partition_names) {
            uint8_t field[gpt::kNameSize];
            if (!nameField(row.name, field)) {
                QVLLog("Could not get unicode name for partition %s", row.name);
                return false;
            }
            if (std::memcmp(field, entryAt(image, i) + gpt::kName, sizeof field) == 0) {
                row.index = int(i);
                break;
            }
        }
    }
    return true;
}

std::string_view bsdNameOf(std::string_view mountedFrom) {
    const size_t slash = mountedFrom.rfind('/');
    return slash == std::string_view::npos ? mountedFrom : mountedFrom.substr(slash + 1);
}

// The registry's text of a volume's UUID when it is one this scan can read.
const std::string* uuidText(const plist::Value& property) {
    const std::string* text = property.asString();
    if (!text || text->size() > kMaxUUIDText || text->find('\0') != std::string::npos) return nullptr;
    return text;
}

// The mount point of the HFS volume whose device UUID is the partition GUID
// stored (in GPT byte order) at `storedGuid`.
std::optional<std::string> findMountPoint(const ResizeServices& host, const uint8_t* storedGuid) {
    uint8_t guid[16];
    plexa::guidSwapByteOrder(storedGuid, guid);
    const auto volumes = host.volumes.mounted();
    if (!volumes) QVLLog("failed to get filesystem information");
    const size_t count = volumes ? std::min(volumes->size(), Volumes::kMaxVolumes) : 0;
    QVLLog("scanning %d filesystems for %s", int(count), plexa::guidText(guid));
    for (size_t i = 0; i < count; i++) {
        const Volumes::Volume& volume = (*volumes)[i];
        if (volume.fsTypeName != "hfs") continue;
        const std::string_view bsdName = bsdNameOf(volume.mountedFrom);
        const auto device = host.volumes.deviceWithBSDName(bsdName);
        if (!device) {
            QVLLog("failed to find an VXService owning %s (unexpected)", bsdName);
            continue;
        }
        if (!device->uuid) {
            QVLLog("device matching %s has no UUID (unexpected)", bsdName);
            continue;
        }
        const std::string* text = uuidText(*device->uuid);
        if (!text) {
            QVLLog("failed to get string from UUID property (unexpected)");
            continue;
        }
        uint8_t found[16];
        const bool match = plexa::parseGuidText(*text, found) && std::memcmp(found, guid, 16) == 0;
        QVLLog("UUID %s %smatch", *text, match ? "" : "does not ");
        if (match) {
            QVLLog("matched %s on %s", volume.mountedFrom, volume.mountedOn);
            return volume.mountedOn;
        }
    }
    return std::nullopt;
}

// Whether `required` blocks for entry `which` and every other entry in use
// fit the usable range together.
bool fitsUsableRange(const GptImage& image, int which, uint64_t required) {
    const uint64_t usable = lastUsable(image) + 1 - firstUsable(image);
    u128 total = required;
    for (size_t i = 0; i < entryCount(image); i++) {
        if (int(i) != which) total += entryBlocks(image, i);
    }
    return total <= usable;
}

// Blocks 1 and 2 of the disk: the header image and the table, the rest of
// both blocks zero, written under the shared lock.
bool writeTable(const ResizeServices& host, const GptImage& image, size_t blockSize) {
    {
        OpenDisk disk(host.disk, open_data_disk(host, RawDisk::Access::writeBack));
        if (!disk.isOpen()) {
            QVLLog("Failed to open %s to write new GPT header out to disk.\n", kDataDiskPath);
            return false;
        }
        std::vector<uint8_t> blocks(2 * blockSize, 0);
        std::memcpy(blocks.data(), image.header, sizeof image.header);
        std::memcpy(blocks.data() + blockSize, image.table, sizeof image.table);
        const ssize_t written = host.disk.writeAt(disk.fd(), blocks.data(), blocks.size(), blockSize);
        if (written < ssize_t(blocks.size())) {
            const int error = errno;
            QVLLog("failed to write GPT header and table to %s (return %d). errno=%d : %s", kDataDiskPath,
                   written, error, std::strerror(error));
            return false;
        }
        QVLLog("Wrote GPT header back to disk");
    }
    host.disk.syncAll();
    return true;
}

int failedTo(int which, uint32_t count) {
    QVLLog("failed to %s partition %d", uint32_t(which) == count ? "create" : "adjust", which);
    return 1;
}

struct DiskUsage {
    int64_t capacity, available;
};

// Both numbers must be there as whole, non-negative signed 64-bit values:
// the shrink size is computed from them and nothing else.
std::optional<DiskUsage> diskUsageOf(const plist::Value& answer) {
    const plist::Dictionary* usage = answer.asDictionary();
    if (!usage) return std::nullopt;
    const plist::Integer* capacity = usage->getInteger("TotalDataCapacity");
    const plist::Integer* available = usage->getInteger("TotalDataAvailable");
    if (!capacity || !available || capacity->isUnsigned || available->isUnsigned || capacity->isNegative() ||
        available->isNegative())
        return std::nullopt;
    return DiskUsage{capacity->asSigned(), available->asSigned()};
}

ResizeServices platformServices() {
    return {RawDisk::sharedInstance(), Volumes::sharedInstance(), platform::DeviceInfo::sharedInstance()};
}

}  // namespace

int open_data_disk(const ResizeServices& host, RawDisk::Access access) {
    const int fd = host.disk.open(kDataDiskPath, access);
    if (fd < 0) {
        QVLLog("failed to open %s", kDataDiskPath);
        return -1;
    }
    const std::optional<bool> isDisk = host.disk.isBlockDevice(fd);
    if (!isDisk) {
        QVLLog("failed to stat %s", kDataDiskPath);
        host.disk.close(fd);
        return -1;
    }
    // A block device stands in for the device's raw disk; anything else, a
    // disk image file included, is refused.
    if (!*isDisk) {
        QVLLog("%s is not a suitable device (try /dev/rdisk*)", kDataDiskPath);
        host.disk.close(fd);
        return -1;
    }
    return fd;
}

int read_gpt(const ResizeServices& host, GptImage* image, PlexaMediaProperties* geometry) {
    OpenDisk disk(host.disk, open_data_disk(host, RawDisk::Access::read));
    if (!disk.isOpen()) return 0;
    uint32_t blockSize = 0;
    uint64_t blockCount = 0;
    if (!host.disk.blockSize(disk.fd(), &blockSize)) {
        QVLLog("ioctl DKIOCGETBLOCKSIZE failed");
        return 0;
    }
    if (!host.disk.blockCount(disk.fd(), &blockCount)) {
        QVLLog("ioctl DKIOCGETBLOCKCOUNT failed");
        return 0;
    }
    PlexaMediaProperties media{};
    uint64_t mediaSize = 0;
    if (__builtin_mul_overflow(uint64_t(blockSize), blockCount, &mediaSize) ||
        plexaInitMediaGeometry(&media, mediaSize, blockSize) != 0) {
        QVLLog("Device %s not suitable", kDataDiskPath);
        return 0;
    }
    // The geometry holds blocks of 4096 to 16384 bytes: room for both images.
    std::vector<uint8_t> blocks(2 * size_t(blockSize), 0);
    if (host.disk.readAt(disk.fd(), blocks.data(), blockSize, 0) < ssize_t(blockSize)) {
        QVLLog("Failed to read MBR from %s", kDataDiskPath);
        return 0;
    }
    if (loadLE32(blocks.data() + gpt::kMBRSignatureOffset) != gpt::kMBRSignature) {
        QVLLog("%s not managed by Plexa", kDataDiskPath);
        return 0;
    }
    if (host.disk.readAt(disk.fd(), blocks.data(), blocks.size(), blockSize) < ssize_t(blocks.size())) {
        QVLLog("Failed to read GPT header and table from %s", kDataDiskPath);
        return 0;
    }
    GptImage view;
    std::memcpy(view.header, blocks.data(), sizeof view.header);
    std::memcpy(view.table, blocks.data() + blockSize, sizeof view.table);

    // The view holds 8 entries; a header claiming more is refused outright, so
    // no entry beyond the eighth is ever read or ordered.
    if (entryCount(view) > gpt::kMaxEntries) {
        QVLLog("GPT header of %s claims %u partitions; the view holds %u", kDataDiskPath, entryCount(view),
               unsigned(gpt::kMaxEntries));
        return 0;
    }
    // Packing places partitions from the first usable block to the last: a
    // range reaching into blocks 0 to 2 or past the end of the disk would let
    // an adjustment move a partition over the table or off the disk.
    if (!gpt::usableRangeFits(firstUsable(view), lastUsable(view), blockCount)) {
        QVLLog("GPT view of %s has usable blocks %llu to %llu, outside blocks %llu to %llu", kDataDiskPath,
               firstUsable(view), lastUsable(view), gpt::kLowestUsableLBA, blockCount - 1);
        return 0;
    }
    if (!findPartitionNames(view)) return 0;
    *image = view;
    *geometry = media;
    return 1;
}

int adjust_partition(const ResizeServices& host, uint64_t newSize) {
    QVLLog("entering %s", "adjust_partition");
    GptImage image;
    PlexaMediaProperties geometry{};
    if (!read_gpt(host, &image, &geometry)) return 1;
    const uint64_t blockSize = geometry.blockSize;
    const uint32_t count = entryCount(image);
    const uint64_t required = newSize / blockSize + (newSize % blockSize != 0);
    QVLLog("partition: requiredSize=%llu", required);
    const int dataIndex = partition_names[kDataRow].index;
    const int which = dataIndex == -1 ? int(count) : dataIndex;
    if (!fitsUsableRange(image, which, required)) return 1;
    if (required == 0) {
        QVLLog("deletion of partition %d disallowed", 1);
        return 1;
    }
    const bool existing = which >= 0 && uint32_t(which) < count;
    if (existing && entryBlocks(image, size_t(which)) == required) {
        QVLLog("no change in size");
        return 0;
    }
    if (which < 0 || which > 7 || uint32_t(which) > count) {
        QVLLog("bad partion number");
        return failedTo(which, count);
    }
    const std::optional<std::string> mountPoint =
        findMountPoint(host, entryAt(image, size_t(which)) + gpt::kUniqueGUID);
    if (existing && !mountPoint) {
        QVLLog("filesystem must be mounted (mountPoint=%s,which=%d,nPartitions=%d,newSize=%llu)",
               static_cast<const char*>(nullptr), which, int(count), required);
        return failedTo(which, count);
    }
    // Only a partition that exists carries a file system: the free slot of a
    // new one may hold a stale GUID that happens to match a mounted volume.
    const bool resizeVolume = existing && mountPoint;
    const uint64_t newBytes = required * blockSize;  // required fits the disk
    const uint64_t oldBytes =
        existing ? uint64_t(std::min<u128>(entryBlocks(image, size_t(which)) * blockSize, UINT64_MAX)) : 0;
    if (resizeVolume && newBytes < oldBytes) {
        QVLLog("shrinking HFS filesystem on %s from %llu to %llu", *mountPoint, oldBytes, newBytes);
        if (hfs_resize(host, mountPoint->c_str(), newBytes) != 0) {
            QVLLog("can't shrink partition %d, currently mounted on %s", which, *mountPoint);
            return failedTo(which, count);
        }
    }
    if (existing)
        QVLLog("Resizing existing partition with GPT index %d", which);
    else
        QVLLog("Creating new partition instead of adjusting existing one");
    QVLLog("About to adjust with settings partitionIndex:%d size:%llu MB", which, newBytes >> 20);
    if (plexaAdjustPartition(&geometry, image.header, image.table, which, newBytes) != 0) {
        QVLLog("adjustment failed");
        return failedTo(which, count);
    }
    if (!writeTable(host, image, blockSize)) return 1;
    if (resizeVolume && newBytes > oldBytes) {
        QVLLog("expanding HFS filesystem on %s to %llu", *mountPoint, newBytes);
        if (hfs_resize(host, mountPoint->c_str(), newBytes) != 0) {
            QVLLog("can't expanding HFS filesystem on %s", *mountPoint);
            return 1;
        }
    }
    return 0;
}

int hfs_resize(const ResizeServices& host, const char* mountPoint, uint64_t newSize) {
    if (host.volumes.hfsResize(mountPoint, newSize) != 0) {
        QVLLog("HFS resize failed. errno=%d", errno);
        return 1;
    }
    return 0;
}

int shrink_data_partition(const ResizeServices& host) {
    const std::optional<plist::Value> answer = host.deviceInfo.copyAnswer("DiskUsage");
    if (!answer) {
        QVLLog("Cannot get disk usage.");
        return -1;
    }
    const std::optional<DiskUsage> usage = diskUsageOf(*answer);
    if (!usage) {
        QVLLog("Disk usage needs whole non-negative TotalDataCapacity and TotalDataAvailable: %@", *answer);
        return -1;
    }
    const int64_t newSize = usage->capacity - usage->available / 2;
    QVLLog("freeSize = %lld(bytes), totalSize = %lld(bytes), newSize = %lld(bytes)\n\n", usage->available,
           usage->capacity, newSize);
    // More available than twice the capacity leaves a negative size, which
    // as a byte count fits no disk: the adjustment refuses it.
    return adjust_partition(host, uint64_t(newSize)) == 0 ? 0 : -1;
}

int expand_data_partition(const ResizeServices& host) {
    GptImage image;
    PlexaMediaProperties geometry{};
    uint64_t newSize = 0;
    if (read_gpt(host, &image, &geometry)) {
        const uint64_t first = firstUsable(image), last = lastUsable(image);
        QVLLog("gpt.pth.first_lba = %lld, last_lba = %lld", int64_t(first), int64_t(last));
        // Block counts in 64-bit two's complement, as they are logged: a
        // corrupt entry can make the sum wrap, and the adjustment then refuses
        // whatever size comes out unless it fits the usable range.
        uint64_t free = last - first + 1;
        for (uint32_t i = 0; i < entryCount(image); i++) {
            const uint64_t a = entryFirst(image, i), b = entryLast(image, i), size = b - a + 1;
            QVLLog("Partition %d: first = %lld, last = %lld, lbaNumber = %lld", int(i), int64_t(a), int64_t(b),
                   int64_t(size));
            // Entry 1 is taken to be the data partition, whatever the names say.
            if (i != 1) free -= size;
        }
        QVLLog("Block numbers that could be used as data partition = %lld", int64_t(free));
        newSize = free * geometry.blockSize;
    }
    QVLLog("newSize = %lld(bytes)", int64_t(newSize));
    return adjust_partition(host, newSize);
}

int shrink_data_partition() {
    return shrink_data_partition(platformServices());
}

int expand_data_partition() {
    return expand_data_partition(platformServices());
}

}  // namespace qvl::storage
