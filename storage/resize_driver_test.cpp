// The resize driver over an in-memory host set up as each case wants it:
// what the driver logs for each disk, registry and volume it meets, and the
// faults that only a fake can cause. The ordinary shrink and expand on a real
// loop device, with the volume resized before the table is written when
// shrinking and after it when growing, are the resize end-to-end test's.
#include "storage/resize_driver.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "base/QVLLogCapture.h"
#include "platform/deviceinfo/DeviceInfo.h"
#include "platform/volumes/Volumes.h"
#include "storage/plexa_format.h"

namespace qvl::storage {
namespace {

namespace gpt = plexa::gpt;
using Lines = std::vector<std::string>;

constexpr uint32_t kBlock = 4096;
constexpr uint64_t kBlocks = 16384;  // 64 MiB; usable blocks 6 to 16378

// A disk of kBlocks blocks of which only blocks 0 to 2 hold anything, its
// volumes and its device information; every table write, sync and volume
// resize is recorded in `events`.
struct FakeHost : platform::RawDisk, platform::Volumes, platform::DeviceInfo {
    bool failStat = false, failBlockSize = false, failBlockCount = false, failList = false;
    uint32_t sectorSize = kBlock;
    uint64_t readLimit = 3 * kBlock;
    size_t writeLimit = SIZE_MAX;
    int resizeError = 0;
    std::string unregistered;  // a BSD name the registry does not know
    std::vector<uint8_t> bytes = std::vector<uint8_t>(3 * kBlock);
    std::vector<Volume> list;
    std::optional<plist::Value> usage;
    Lines events;
    int openCount = 0;

    int open(const std::string& path, Access) override {
        EXPECT_EQ(path, "/dev/rdisk0s1");
        return ++openCount, 7;
    }
    std::optional<bool> isBlockDevice(int) override { return failStat ? std::nullopt : std::optional(true); }
    bool blockSize(int, uint32_t* size) override { return !failBlockSize && (*size = sectorSize, true); }
    bool blockCount(int, uint64_t* count) override { return !failBlockCount && (*count = kBlocks, true); }
    ssize_t readAt(int, void* buffer, size_t size, uint64_t offset) override {
        size = std::min<size_t>(size, readLimit - std::min<uint64_t>(offset, readLimit));
        std::memcpy(buffer, bytes.data() + offset, size);
        return ssize_t(size);
    }
    ssize_t writeAt(int, const void* buffer, size_t size, uint64_t offset) override {
        events.push_back("write blocks at " + std::to_string(offset / kBlock));
        if (writeLimit < size) size = writeLimit, errno = EIO;
        std::memcpy(bytes.data() + offset, buffer, size);
        return ssize_t(size);
    }
    void close(int) override { openCount--; }
    void syncAll() override { events.push_back("sync"); }

    std::optional<std::vector<Volume>> mounted() const override {
        return failList ? std::nullopt : std::optional(list);
    }
    std::optional<RegistryDevice> deviceWithBSDName(std::string_view name) const override {
        for (const Volume& v : list)
            if (v.mountedFrom == "/dev/" + std::string(name) && name != unregistered)
                return RegistryDevice{v.uuid};
        return std::nullopt;
    }
    int hfsResize(const std::string& mountPoint, uint64_t newSize) override {
        if (resizeError) return errno = resizeError, -1;
        events.push_back("resize " + mountPoint + " to " + std::to_string(newSize));
        return 0;
    }

    std::optional<plist::Value> copyAnswer(std::string_view question) const override {
        EXPECT_EQ(question, "DiskUsage");
        return usage;
    }

    uint8_t* entry(size_t i) { return bytes.data() + 2 * kBlock + i * gpt::kEntrySize; }
    uint32_t count() { return plexa::loadLE32(bytes.data() + kBlock + gpt::kEntryCount); }
};

plist::Value usage(plist::Value capacity, plist::Value available) {
    plist::Dictionary d;
    d.set("TotalDataCapacity", std::move(capacity));
    d.set("TotalDataAvailable", std::move(available));
    return plist::Value(std::move(d));
}

// A disk made as the device makes it: System, Data and Update of 2048, 8192
// and 2048 blocks from block 6, each mounted with its GUID as UUID; Data is
// 1/4 used and 3/4 (24 MiB) available.
class ResizeDriver : public ::testing::Test {
  protected:
    void SetUp() override {
        host_ = FakeHost();
        for (PartitionNameRow& row : partition_names) row.index = -1;
        plexa::storeLE32(host_.bytes.data() + gpt::kMBRSignatureOffset, gpt::kMBRSignature);
        plexa::storeLE64(host_.bytes.data() + kBlock + gpt::kFirstUsableLBA, 6);
        plexa::storeLE64(host_.bytes.data() + kBlock + gpt::kLastUsableLBA, kBlocks - 6);
        setPartitions({{"System", 2048}, {"Data", 8192}, {"Update", 2048}});
        host_.usage = usage(plist::Value(int64_t(32) << 20), plist::Value(int64_t(24) << 20));
    }
    void setPartitions(const std::vector<std::pair<std::string, uint64_t>>& parts) {
        std::memset(host_.entry(0), 0, gpt::kTableSize);
        host_.list.clear();
        for (size_t i = 0, next = 6; i < parts.size(); next += parts[i].second, i++) {
            uint8_t guid[16] = {0xA0, uint8_t(i)};
            plexa::guidSwapByteOrder(guid, host_.entry(i) + gpt::kUniqueGUID);
            plexa::storeLE64(host_.entry(i) + gpt::kFirstLBA, next);
            plexa::storeLE64(host_.entry(i) + gpt::kLastLBA, next + parts[i].second - 1);
            for (size_t c = 0; c < parts[i].first.size(); c++)
                host_.entry(i)[gpt::kName + 2 * c] = uint8_t(parts[i].first[c]);
            const std::string on = parts[i].first == "Data" ? "/private/var" : "/mnt/" + parts[i].first;
            host_.list.push_back({"hfs",
                                  "/dev/disk0s1s" + std::to_string(i + 1),
                                  on,
                                  plist::Value(plexa::guidText(guid)),
                                  {},
                                  {}});
        }
        plexa::storeLE32(host_.bytes.data() + kBlock + gpt::kEntryCount, uint32_t(parts.size()));
    }
    // Runs one entry point; answers its result, with the log lines in lines_.
    int run(int (*entry)(const ResizeServices&)) {
        QVLLogCapture capture;
        const int rc = entry({host_, host_, host_});
        lines_ = capture.lines();
        EXPECT_EQ(host_.openCount, 0) << "a descriptor was left open";
        return rc;
    }

    FakeHost host_;
    Lines lines_;
};

// The names found stay for the life of the process: a disk without "Data"
// gets a new partition on every request, and an index found on one disk
// outlives that disk.
TEST_F(ResizeDriver, PartitionNamesOutliveTheRequest) {
    setPartitions({{"System", 2048}});
    host_.usage = usage(plist::Value(int64_t(8) << 20), plist::Value(0));
    for (uint32_t count : {2u, 3u}) {
        ASSERT_EQ(run(shrink_data_partition), 0);
        EXPECT_NE(std::ranges::find(lines_, "Creating new partition instead of adjusting existing one"),
                  lines_.end());
        EXPECT_EQ(host_.count(), count);
    }

    setPartitions({{"System", 2048}, {"Update", 2048}, {"Data", 2048}});
    ASSERT_EQ(run(shrink_data_partition), 0);
    setPartitions({{"System", 2048}});
    EXPECT_EQ(run(shrink_data_partition), -1);
    EXPECT_EQ(Lines(lines_.end() - 2, lines_.end()),
              (Lines{"bad partion number", "failed to adjust partition 2"}));
}

// The runs a real disk can be set up for, each by what it logs in order. A
// failure leaves the disk with what reached it (`events`); one that comes
// before the table is written keeps every byte.
TEST_F(ResizeDriver, EachRunLogsWhatItFound) {
    const auto failing = [](bool FakeHost::*fault) { return [fault](FakeHost& h) { h.*fault = true; }; };
    const Lines written = {"write blocks at 1", "sync"};
    const struct Case {
        std::function<void(FakeHost&)> setUp;
        int (*entry)(const ResizeServices&);
        int rc;
        Lines lines;
        Lines events = {};
        const char* absent = nullptr;  // no line may start with this
    } cases[] = {
        // clang-format off
        {failing(&FakeHost::failStat), expand_data_partition, 1, {"failed to stat /dev/rdisk0s1"}},
        {failing(&FakeHost::failBlockSize), expand_data_partition, 1, {"ioctl DKIOCGETBLOCKSIZE failed"}},
        {failing(&FakeHost::failBlockCount), expand_data_partition, 1, {"ioctl DKIOCGETBLOCKCOUNT failed"}},
        {[](FakeHost& h) { h.readLimit = 100; },
         expand_data_partition, 1, {"Failed to read MBR from /dev/rdisk0s1"}},
        {[](FakeHost& h) { h.readLimit = 2 * kBlock; },
         expand_data_partition, 1, {"Failed to read GPT header and table from /dev/rdisk0s1"}},
        {[](FakeHost& h) { h.bytes[kBlock + gpt::kFirstUsableLBA] = 2; }, expand_data_partition, 1,
         {"GPT view of /dev/rdisk0s1 has usable blocks 2 to 16378, outside blocks 3 to 16383"}},
        {[](FakeHost& h) { plexa::storeLE64(h.bytes.data() + kBlock + gpt::kLastUsableLBA, kBlocks); },
         expand_data_partition, 1,
         {"GPT view of /dev/rdisk0s1 has usable blocks 6 to 16384, outside blocks 3 to 16383"}},
        {[](FakeHost& h) { h.usage.reset(); }, shrink_data_partition, -1, {"Cannot get disk usage."}},
        {[](FakeHost& h) { h.usage = usage(plist::Value(100), plist::Value(1.5)); },
         shrink_data_partition, -1,
         {"Disk usage needs whole non-negative TotalDataCapacity and TotalDataAvailable: "
          "{\n    TotalDataCapacity = 100;\n    TotalDataAvailable = 1.5;\n}"}},
        {failing(&FakeHost::failList), expand_data_partition, 1, {"failed to get filesystem information"}},
        {[](FakeHost& h) { h.unregistered = "disk0s1s2"; },
         expand_data_partition, 1, {"failed to find an VXService owning disk0s1s2 (unexpected)"}},
        {[](FakeHost& h) { h.list[1].uuid = plist::Value(1); },
         expand_data_partition, 1, {"failed to get string from UUID property (unexpected)"}},
        {[](FakeHost& h) { h.writeLimit = kBlock; }, shrink_data_partition, -1,
         {"failed to write GPT header and table to /dev/rdisk0s1 (return 4096). "
          "errno=5 : Input/output error"},
         {"resize /private/var to 20971520", "write blocks at 1"}},
        // Growing writes the table first: a volume that will not follow leaves it written.
        {[](FakeHost& h) { h.resizeError = ENOSPC; }, expand_data_partition, 1,
         {"Wrote GPT header back to disk", "expanding HFS filesystem on /private/var to 50286592",
          "HFS resize failed. errno=28", "can't expanding HFS filesystem on /private/var"}, written},
        {[](FakeHost& h) { h.resizeError = ENOSPC; }, shrink_data_partition, -1,
         {"HFS resize failed. errno=28", "can't shrink partition 1, currently mounted on /private/var",
          "failed to adjust partition 1"}},
        {[this](FakeHost&) { setPartitions({{"System", 2048}, {"Data", 12277}, {"Update", 2048}}); },
         expand_data_partition, 0, {"partition: requiredSize=12277", "no change in size"}},
        {[](FakeHost& h) { h.list.erase(h.list.begin() + 1); },
         expand_data_partition, 1, {"scanning 2 filesystems for A0010000-0000-0000-0000-000000000000",
          "filesystem must be mounted (mountPoint=(null),which=1,nPartitions=3,newSize=12277)",
          "failed to adjust partition 1"}},
        {[](FakeHost& h) { h.usage = usage(plist::Value(int64_t(1) << 40), plist::Value(0)); },
         shrink_data_partition, -1, {"partition: requiredSize=268435456"}, {}, "scanning"},
        {[this](FakeHost&) { setPartitions({{"System", 2048}}); },
         expand_data_partition, 0, {"Creating new partition instead of adjusting existing one",
          "About to adjust with settings partitionIndex:1 size:55 MB"}},
        {[this](FakeHost&) { setPartitions({{"System", 2048}, {"Update", 1024}, {"Data", 4096}}); },
         expand_data_partition, 0, {"Partition 1: first = 2054, last = 3077, lbaNumber = 1024",
          "Block numbers that could be used as data partition = 10229",
          "Resizing existing partition with GPT index 2"}},
        {[this](FakeHost& h) { setPartitions({{"System", 2048}, {"Update", 2048}, {"Data", 8192}});
                  h.usage = usage(plist::Value(0), plist::Value(0)); },
         shrink_data_partition, -1, {"partition: requiredSize=0", "deletion of partition 1 disallowed"}},
        {[](FakeHost& h) { plexa::storeLE32(h.bytes.data() + kBlock + gpt::kEntryCount, 9); },
         expand_data_partition, 1, {"GPT header of /dev/rdisk0s1 claims 9 partitions; the view holds 8"}},
        // The scan sees the first 8 volumes: here the data volume is the 8th.
        {[](FakeHost& h) { h.list[0].uuid.reset();
                  h.list.insert(h.list.begin() + 1, 6, platform::Volumes::Volume{}); },
         shrink_data_partition, 0, {"scanning 8 filesystems for A0010000-0000-0000-0000-000000000000",
          "device matching disk0s1s1 has no UUID (unexpected)",
          "UUID A0010000-0000-0000-0000-000000000000 match"}},
        {[](FakeHost& h) { h.bytes[gpt::kMBRSignatureOffset] = 0; },
         expand_data_partition, 1, {"/dev/rdisk0s1 not managed by Plexa"}},
        {[](FakeHost& h) { h.sectorSize = 512; },
         expand_data_partition, 1, {"Device /dev/rdisk0s1 not suitable"}},
        // clang-format on
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.lines.front());
        SetUp();
        c.setUp(host_);
        const std::vector<uint8_t> start = host_.bytes;
        EXPECT_EQ(run(c.entry), c.rc);
        auto at = lines_.begin();
        for (const std::string& line : c.lines) {
            at = std::find(at, lines_.end(), line);
            ASSERT_NE(at, lines_.end()) << "missing, or out of order: " << line;
        }
        for (const std::string& line : lines_) EXPECT_FALSE(c.absent && line.starts_with(c.absent)) << line;
        if (c.rc == 0) continue;
        EXPECT_EQ(host_.events, c.events);
        if (c.events.empty()) {
            EXPECT_EQ(host_.bytes, start);
        }
    }
}

}  // namespace
}  // namespace qvl::storage
