// The resize driver over a disk whose first three blocks, and whose disk
// usage answer, come from the input; every partition in use is mounted with
// its own GUID. Beyond memory safety it holds the driver to its promises about
// the disk: nothing but blocks 1 and 2 is ever written, every descriptor is
// closed, and a table it writes keeps the usable range, which lies between
// the table and the end of the disk, and packs at most 8 entries inside it.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/plexa/fuzz_quiet.h"
#include "platform/deviceinfo/DeviceInfo.h"
#include "platform/disk/RawDisk.h"
#include "platform/volumes/Volumes.h"
#include "storage/plexa_format.h"
#include "storage/resize_driver.h"

using namespace qvl;
using namespace qvl::plexa;

namespace {

constexpr uint32_t kBlock = 4096;
constexpr uint64_t kBlocks = 16384;

struct Disk : platform::RawDisk {
    std::vector<uint8_t> bytes = std::vector<uint8_t>(3 * kBlock);
    int openCount = 0;

    int open(const std::string&, Access) override { return ++openCount, 3; }
    std::optional<bool> isBlockDevice(int) override { return true; }
    bool blockSize(int, uint32_t* size) override { return *size = kBlock, true; }
    bool blockCount(int, uint64_t* count) override { return *count = kBlocks, true; }
    ssize_t readAt(int, void* buffer, size_t size, uint64_t offset) override {
        if (offset >= bytes.size()) return 0;
        size = std::min<size_t>(size, bytes.size() - offset);
        std::memcpy(buffer, bytes.data() + offset, size);
        return ssize_t(size);
    }
    ssize_t writeAt(int, const void* buffer, size_t size, uint64_t offset) override {
        if (offset != kBlock || size != 2 * kBlock) abort();
        std::memcpy(bytes.data() + offset, buffer, size);
        return ssize_t(size);
    }
    void close(int) override { --openCount; }
    void syncAll() override {}
};

struct Volumes : platform::Volumes {
    std::vector<Volume> list;
    std::optional<std::vector<Volume>> mounted() const override { return list; }
    std::optional<RegistryDevice> deviceWithBSDName(std::string_view name) const override {
        for (const Volume& v : list)
            if (v.mountedFrom == "/dev/" + std::string(name)) return RegistryDevice{v.uuid};
        return std::nullopt;
    }
    int hfsResize(const std::string&, uint64_t) override { return 0; }
};

struct DeviceInfo : platform::DeviceInfo {
    std::optional<plist::Value> answer;
    std::optional<plist::Value> copyAnswer(std::string_view) const override { return answer; }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    silenceLibraryMessages();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 17) return 0;
    Disk disk;
    Volumes volumes;
    DeviceInfo info;
    const bool shrink = data[0] & 1;
    plist::Dictionary usage;
    usage.set("TotalDataCapacity", plist::Value(int64_t(loadLE64(data + 1))));
    usage.set("TotalDataAvailable", plist::Value(int64_t(loadLE64(data + 9))));
    info.answer = plist::Value(std::move(usage));
    std::memcpy(disk.bytes.data(), data + 17, std::min(size - 17, disk.bytes.size()));
    const std::vector<uint8_t> before = disk.bytes;

    const uint8_t* header = disk.bytes.data() + kBlock;
    const uint32_t count = loadLE32(header + gpt::kEntryCount);
    for (uint32_t i = 0; i < count && i < gpt::kMaxEntries; i++) {
        uint8_t guid[16];
        guidSwapByteOrder(disk.bytes.data() + 2 * kBlock + i * gpt::kEntrySize + gpt::kUniqueGUID, guid);
        volumes.list.push_back({"hfs", "/dev/disk0s1s" + std::to_string(i + 1), "/v" + std::to_string(i),
                                plist::Value(guidText(guid)), {}, {}});
    }
    for (storage::PartitionNameRow& row : storage::partition_names) row.index = -1;

    const storage::ResizeServices host{disk, volumes, info};
    const int rc = shrink ? storage::shrink_data_partition(host) : storage::expand_data_partition(host);
    if (disk.openCount != 0 || (shrink ? rc != 0 && rc != -1 : rc != 0 && rc != 1)) abort();
    if (disk.bytes == before) return 0;

    const uint64_t firstUsable = loadLE64(header + gpt::kFirstUsableLBA);
    const uint64_t lastUsable = loadLE64(header + gpt::kLastUsableLBA);
    if (std::memcmp(disk.bytes.data(), before.data(), kBlock) != 0 || firstUsable < 3 || lastUsable >= kBlocks ||
        firstUsable != loadLE64(before.data() + kBlock + gpt::kFirstUsableLBA) ||
        lastUsable != loadLE64(before.data() + kBlock + gpt::kLastUsableLBA))
        abort();
    const uint32_t written = loadLE32(header + gpt::kEntryCount);
    if (written > gpt::kMaxEntries) abort();
    for (uint32_t i = 0; i < written; i++) {
        const uint8_t* e = disk.bytes.data() + 2 * kBlock + i * gpt::kEntrySize;
        if (loadLE64(e + gpt::kFirstLBA) < firstUsable || loadLE64(e + gpt::kLastLBA) > lastUsable ||
            loadLE64(e + gpt::kLastLBA) < loadLE64(e + gpt::kFirstLBA))
            abort();
    }
    return 0;
}
