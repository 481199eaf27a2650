// The resize driver over an in-memory disk, volumes and device information
// that fail where a case wants them to.
#include "storage/resize_driver.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "platform/deviceinfo/DeviceInfo.h"
#include "platform/volumes/Volumes.h"
#include "base/QVLLogCapture.h"
#include "storage/plexa_format.h"

namespace qvl::storage {
namespace {

namespace gpt = plexa::gpt;
using Lines = std::vector<std::string>;

constexpr uint32_t kBlock = 4096;
constexpr uint64_t kBlocks = 16384;  // 64 MiB; usable blocks 6 to 16378

// Every file-system resize, table write and sync, in order.
using Events = Lines;

// Where the host layers fail.
struct Faults {
    bool failOpen = false, failStat = false, failBlockSize = false, failBlockCount = false, failList = false;
    uint64_t readLimit = 3 * kBlock;  // only blocks 0 to 2 are ever read
    size_t writeLimit = SIZE_MAX;
    int resizeError = 0;
    std::string unregistered;  // a BSD name the registry does not know
};

// A disk of kBlocks blocks of which only blocks 0 to 2 hold anything.
class FakeDisk : public platform::RawDisk {
  public:
    FakeDisk(Events& events, const Faults& faults) : events_(events), f_(faults), bytes(3 * kBlock) {}
    int open(const std::string& path, Access access) override {
        EXPECT_EQ(path, "/dev/rdisk0s1");
        if (f_.failOpen) return errno = EACCES, -1;
        openCount++;
        return 7;
    }
    std::optional<bool> isBlockDevice(int) override {
        return f_.failStat ? std::nullopt : std::optional<bool>(true);
    }
    bool blockSize(int, uint32_t* size) override { return !f_.failBlockSize && (*size = kBlock, true); }
    bool blockCount(int, uint64_t* count) override { return !f_.failBlockCount && (*count = kBlocks, true); }
    ssize_t readAt(int, void* buffer, size_t size, uint64_t offset) override {
        size = std::min<size_t>(size, f_.readLimit - std::min<uint64_t>(offset, f_.readLimit));
        std::memcpy(buffer, bytes.data() + offset, size);
        return ssize_t(size);
    }
    ssize_t writeAt(int, const void* buffer, size_t size, uint64_t offset) override {
        events_.push_back("write blocks at " + std::to_string(offset / kBlock));
        if (f_.writeLimit < size) size = f_.writeLimit, errno = EIO;
        std::memcpy(bytes.data() + offset, buffer, size);
        return ssize_t(size);
    }
    void close(int) override { openCount--; }
    void syncAll() override { events_.push_back("sync"); }

    uint8_t* entry(size_t i) { return bytes.data() + 2 * kBlock + i * gpt::kEntrySize; }
    uint64_t last(size_t i) { return plexa::loadLE64(entry(i) + gpt::kLastLBA); }
    void setCount(uint32_t n) { plexa::storeLE32(bytes.data() + kBlock + gpt::kEntryCount, n); }

    Events& events_;
    const Faults& f_;
    std::vector<uint8_t> bytes;
    int openCount = 0;
};

class FakeVolumes : public platform::Volumes {
  public:
    FakeVolumes(Events& events, const Faults& faults) : events_(events), f_(faults) {}
    std::optional<std::vector<Volume>> mounted() const override {
        return f_.failList ? std::nullopt : std::optional(list);
    }
    std::optional<RegistryDevice> deviceWithBSDName(std::string_view name) const override {
        for (const Volume& v : list)
            if (v.mountedFrom == "/dev/" + std::string(name) && name != f_.unregistered)
                return RegistryDevice{v.uuid};
        return std::nullopt;
    }
    int hfsResize(const std::string& mountPoint, uint64_t newSize) override {
        if (f_.resizeError) return errno = f_.resizeError, -1;
        events_.push_back("resize " + mountPoint + " to " + std::to_string(newSize));
        return 0;
    }

    Events& events_;
    const Faults& f_;
    std::vector<Volume> list;
};

class FakeDeviceInfo : public platform::DeviceInfo {
  public:
    std::optional<plist::Value> copyAnswer(std::string_view question) const override {
        EXPECT_EQ(question, "DiskUsage");
        return usage;
    }
    std::optional<plist::Value> usage;
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
        faults_ = Faults();
        events_.clear();
        for (PartitionNameRow& row : partition_names) row.index = -1;
        plexa::storeLE32(disk_.bytes.data() + gpt::kMBRSignatureOffset, gpt::kMBRSignature);
        uint8_t* header = disk_.bytes.data() + kBlock;
        plexa::storeLE64(header + gpt::kFirstUsableLBA, 6);
        plexa::storeLE64(header + gpt::kLastUsableLBA, kBlocks - 6);
        setPartitions({{"System", 2048}, {"Data", 8192}, {"Update", 2048}});
        info_.usage = usage(plist::Value(int64_t(32) << 20), plist::Value(int64_t(24) << 20));
    }
    void setPartitions(const std::vector<std::pair<std::string, uint64_t>>& parts) {
        std::memset(disk_.entry(0), 0, gpt::kTableSize);
        volumes_.list.clear();
        uint64_t next = 6;
        for (size_t i = 0; i < parts.size(); i++) {
            uint8_t guid[16] = {0xA0, uint8_t(i)};
            plexa::guidSwapByteOrder(guid, disk_.entry(i) + gpt::kUniqueGUID);
            plexa::storeLE64(disk_.entry(i) + gpt::kFirstLBA, next);
            plexa::storeLE64(disk_.entry(i) + gpt::kLastLBA, next + parts[i].second - 1);
            for (size_t c = 0; c < parts[i].first.size(); c++)
                disk_.entry(i)[gpt::kName + 2 * c] = uint8_t(parts[i].first[c]);
            next += parts[i].second;
            const std::string from = "/dev/disk0s1s" + std::to_string(i + 1);
            const std::string on = parts[i].first == "Data" ? "/private/var" : "/mnt/" + parts[i].first;
            volumes_.list.push_back({"hfs", from, on, plist::Value(plexa::guidText(guid)), {}, {}});
        }
        disk_.setCount(uint32_t(parts.size()));
    }
    // Runs one entry point; answers its result, with the log lines in lines_.
    int run(int (*entry)(const ResizeServices&)) {
        QVLLogCapture capture;
        const int rc = entry(host_);
        lines_ = capture.lines();
        EXPECT_EQ(disk_.openCount, 0) << "a descriptor was left open";
        return rc;
    }
    bool logged(const std::string& line) const {
        return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
    }

    Events events_;
    Faults faults_;
    FakeDisk disk_{events_, faults_};
    FakeVolumes volumes_{events_, faults_};
    FakeDeviceInfo info_;
    ResizeServices host_{disk_, volumes_, info_};
    Lines lines_;
};

TEST_F(ResizeDriver, ShrinksTheVolumeFirstAndGrowsItLast) {
    ASSERT_EQ(run(shrink_data_partition), 0);  // 32 MiB - 24 MiB / 2 = 20 MiB
    ASSERT_EQ(run(expand_data_partition), 0);
    EXPECT_EQ(events_, (Events{"resize /private/var to 20971520", "write blocks at 1", "sync",
                               "write blocks at 1", "sync", "resize /private/var to 50286592"}));
    EXPECT_EQ(disk_.last(2), kBlocks - 6);
}

// Host failures that only a fake can cause, each before the table is written:
// the disk keeps every byte and no volume is resized.
TEST_F(ResizeDriver, RefusalsChangeNothing) {
    const struct Case {
        std::function<void()> setUp;
        int (*entry)(const ResizeServices&);
        int rc;
        std::string line;
    } cases[] = {
        {[this] { faults_.failOpen = true; }, expand_data_partition, 1, "failed to open /dev/rdisk0s1"},
        {[this] { faults_.failStat = true; }, expand_data_partition, 1, "failed to stat /dev/rdisk0s1"},
        {[this] { faults_.failBlockSize = true; }, expand_data_partition, 1,
         "ioctl DKIOCGETBLOCKSIZE failed"},
        {[this] { faults_.failBlockCount = true; }, expand_data_partition, 1,
         "ioctl DKIOCGETBLOCKCOUNT failed"},
        {[this] { faults_.readLimit = 100; }, expand_data_partition, 1,
         "Failed to read MBR from /dev/rdisk0s1"},
        {[this] { faults_.readLimit = 2 * kBlock; }, expand_data_partition, 1,
         "Failed to read GPT header and table from /dev/rdisk0s1"},
        {[this] { disk_.bytes[kBlock + gpt::kFirstUsableLBA] = 2; }, expand_data_partition, 1,
         "GPT view of /dev/rdisk0s1 has usable blocks 2 to 16378, outside blocks 3 to 16383"},
        {[this] { plexa::storeLE64(disk_.bytes.data() + kBlock + gpt::kLastUsableLBA, kBlocks); },
         expand_data_partition, 1,
         "GPT view of /dev/rdisk0s1 has usable blocks 6 to 16384, outside blocks 3 to 16383"},
        {[this] { info_.usage.reset(); }, shrink_data_partition, -1, "Cannot get disk usage."},
        {[this] { info_.usage = usage(plist::Value(100), plist::Value(1.5)); }, shrink_data_partition, -1,
         "Disk usage needs whole non-negative TotalDataCapacity and TotalDataAvailable: "
         "{\n    TotalDataCapacity = 100;\n    TotalDataAvailable = 1.5;\n}"},
        {[this] { faults_.failList = true; }, expand_data_partition, 1,
         "failed to get filesystem information"},
        {[this] { faults_.unregistered = "disk0s1s2"; }, expand_data_partition, 1,
         "failed to find an VXService owning disk0s1s2 (unexpected)"},
        {[this] { volumes_.list[1].uuid = plist::Value(1); }, expand_data_partition, 1,
         "failed to get string from UUID property (unexpected)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        SetUp();
        c.setUp();
        const std::vector<uint8_t> start = disk_.bytes;
        EXPECT_EQ(run(c.entry), c.rc);
        EXPECT_TRUE(logged(c.line));
        EXPECT_EQ(disk_.bytes, start);
        EXPECT_TRUE(events_.empty());
    }
}

TEST_F(ResizeDriver, FailuresAfterTheTableIsOut) {
    faults_.writeLimit = kBlock;
    EXPECT_EQ(run(shrink_data_partition), -1);
    EXPECT_TRUE(logged(
        "failed to write GPT header and table to /dev/rdisk0s1 (return 4096). errno=5 : Input/output error"));

    SetUp();
    faults_.resizeError = ENOSPC;
    EXPECT_EQ(run(expand_data_partition), 1);
    EXPECT_EQ(Lines(lines_.end() - 4, lines_.end()),
              (Lines{"Wrote GPT header back to disk", "expanding HFS filesystem on /private/var to 50286592",
                     "HFS resize failed. errno=28", "can't expanding HFS filesystem on /private/var"}));
}

// The names found stay for the life of the process: a disk without "Data"
// gets a new partition on every request, and an index found on one disk
// outlives that disk.
TEST_F(ResizeDriver, PartitionNamesOutliveTheRequest) {
    setPartitions({{"System", 2048}});
    info_.usage = usage(plist::Value(int64_t(8) << 20), plist::Value(0));
    for (uint32_t count : {2u, 3u}) {
        ASSERT_EQ(run(shrink_data_partition), 0);
        EXPECT_TRUE(logged("Creating new partition instead of adjusting existing one"));
        EXPECT_EQ(plexa::loadLE32(disk_.bytes.data() + kBlock + gpt::kEntryCount), count);
    }
    EXPECT_EQ(events_, (Events{"write blocks at 1", "sync", "write blocks at 1", "sync"}));

    setPartitions({{"System", 2048}, {"Update", 2048}, {"Data", 2048}});
    ASSERT_EQ(run(shrink_data_partition), 0);
    EXPECT_EQ(partition_names[1].index, 2);
    setPartitions({{"System", 2048}});
    EXPECT_EQ(run(shrink_data_partition), -1);
    EXPECT_EQ(Lines(lines_.end() - 2, lines_.end()),
              (Lines{"bad partion number", "failed to adjust partition 2"}));
}

}  // namespace
}  // namespace qvl::storage
