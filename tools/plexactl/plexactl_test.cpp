// plexactl end to end: GPT views made by sgdisk on 4096-byte-sector loop
// devices, synthetic views, and the volume header commands on image files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "storage/plexa.h"
#include "storage/plexa_format.h"

using namespace qvl::plexa;

namespace {

constexpr uint32_t kBlock = 4096;

struct Result {
    int status = -1;
    std::string out, err;
};

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// Runs a shell command line with its output and errors collected.
Result shell(const std::string& dir, const std::string& command) {
    const std::string out = dir + "/stdout", err = dir + "/stderr";
    int raw = std::system((command + " >" + out + " 2>" + err).c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, slurp(out), slurp(err)};
}

// A loop device with 4096-byte sectors over an image, detached on every path.
class LoopDevice {
  public:
    explicit LoopDevice(const std::string& dir, const std::string& image) : dir_(dir) {
        Result r = shell(dir, "losetup --sector-size 4096 -f --show " + image);
        if (r.status == 0) device_ = r.out.substr(0, r.out.find('\n'));
    }
    ~LoopDevice() { detach(); }
    void detach() {
        if (!device_.empty()) shell(dir_, "losetup -d " + device_);
        device_.clear();
    }
    const std::string& device() const { return device_; }

  private:
    std::string dir_, device_;
};

class Plexactl : public testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/plexactl_test_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
    }
    void TearDown() override { std::system(("rm -rf " + dir_).c_str()); }
    Result run(const std::string& args) { return shell(dir_, std::string(PLEXACTL_PATH) + " " + args); }
    // Runs plexactl and expects the exit status and, word for word, the errors.
    Result expectRun(const std::string& args, int status, const std::string& err) {
        Result r = run(args);
        EXPECT_EQ(r.status, status) << args;
        EXPECT_EQ(r.err, err) << args;
        return r;
    }
    std::string image() const { return dir_ + "/disk.img"; }
    void makeImage(uint64_t size) {
        int fd = open(image().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(ftruncate(fd, off_t(size)), 0);
        close(fd);
    }
    std::string bytes() { return slurp(image()); }
    void patch(uint64_t offset, const void* data, size_t size) {
        int fd = open(image().c_str(), O_WRONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(pwrite(fd, data, size, off_t(offset)), ssize_t(size));
        close(fd);
    }
    void patch32(uint64_t offset, uint32_t value) {
        uint8_t b[4];
        storeLE32(b, value);
        patch(offset, b, 4);
    }
    // Marks the image as the volume manager's: its MBR signature, and a
    // header count of entries in use instead of table slots.
    void makeManaged(uint32_t inUse) {
        patch32(gpt::kMBRSignatureOffset, gpt::kMBRSignature);
        patch32(kBlock + gpt::kEntryCount, inUse);
    }

    // A minimal view written by hand: "EFI PART", usable LBAs 6 to `lastUsable`,
    // and `parts` as HFS Plus entries named P0, P1, ...
    void writeView(uint64_t lastUsable, const std::vector<std::pair<uint64_t, uint64_t>>& parts) {
        std::vector<uint8_t> blocks(3 * kBlock, 0);
        storeLE32(blocks.data() + gpt::kMBRSignatureOffset, gpt::kMBRSignature);
        uint8_t* h = blocks.data() + kBlock;
        std::memcpy(h, "EFI PART", 8);
        storeLE64(h + gpt::kFirstUsableLBA, 6);
        storeLE64(h + gpt::kLastUsableLBA, lastUsable);
        storeLE32(h + gpt::kEntryCount, uint32_t(parts.size()));
        for (size_t i = 0; i < parts.size(); i++) {
            uint8_t* e = blocks.data() + 2 * kBlock + i * gpt::kEntrySize;
            guidSwapByteOrder(kHFSPlusType, e + gpt::kTypeGUID);
            e[gpt::kUniqueGUID] = uint8_t(0xA0 + i);
            storeLE64(e + gpt::kFirstLBA, parts[i].first);
            storeLE64(e + gpt::kLastLBA, parts[i].second);
            e[gpt::kName] = 'P';
            e[gpt::kName + 2] = uint8_t('0' + i);
        }
        patch(0, blocks.data(), blocks.size());
    }

    std::string dir_;
};

// One row of "gpt show".
struct Row {
    uint64_t first, last;
    std::string type, unique, name;
};

std::map<int, Row> showRows(const std::string& out) {
    static const std::regex row(R"(^(\d+)\s+(\d+)\s+(\d+)\s+\d+\s+(\S{36})\s+(\S{36})\s+(.*)$)");
    std::map<int, Row> rows;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        std::smatch m;
        if (std::regex_match(line, m, row))
            rows[std::stoi(m[1])] = {std::stoull(m[2]), std::stoull(m[3]), m[4], m[5], m[6]};
    }
    return rows;
}

TEST_F(Plexactl, SgdiskLayoutIsReadAndPackedAsExpected) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root for a 4096-byte-sector loop device";
    if (shell(dir_, "command -v sgdisk").status != 0) GTEST_SKIP() << "sgdisk (gdisk) is not installed";
    makeImage(64 << 20);
    LoopDevice loop(dir_, image());
    if (loop.device().empty()) GTEST_SKIP() << "no loop device available";
    // Three partitions with gaps before each, in table order 0, 1, 2.
    Result made = shell(dir_,
                        "sgdisk -o -n 1:0:+8M -c 1:System -t 1:AF00 -n 2:+1M:+16M -c 2:Data -t 2:AF00"
                        " -n 3:+2M:+4M -c 3:Update " +
                            loop.device());
    ASSERT_EQ(made.status, 0) << made.err;
    Result printed = shell(dir_, "sgdisk -p " + loop.device());
    std::vector<std::string> info;
    for (int n = 1; n <= 3; n++)
        info.push_back(shell(dir_, "sgdisk -i " + std::to_string(n) + " " + loop.device()).out);
    Result onDevice = run("gpt show " + loop.device());
    loop.detach();
    ASSERT_EQ(onDevice.status, 0) << onDevice.err;
    EXPECT_NE(onDevice.out.find("Block size:         4096\n"), std::string::npos);

    Result onImage = run("gpt show " + image());
    ASSERT_EQ(onImage.status, 0) << onImage.err;
    EXPECT_EQ(onImage.out.substr(onImage.out.find("Block size")),
              onDevice.out.substr(onDevice.out.find("Block size")));
    std::map<int, Row> rows = showRows(onImage.out);
    ASSERT_EQ(rows.size(), 3u) << onImage.out;

    static const std::regex sgdiskRow(R"(^\s+(\d+)\s+(\d+)\s+(\d+)\s+\S+ \S+\s+\S+\s+(.*)$)");
    std::istringstream lines(printed.out);
    int seen = 0;
    for (std::string line; std::getline(lines, line);) {
        std::smatch m;
        if (!std::regex_match(line, m, sgdiskRow)) continue;
        const int index = std::stoi(m[1]) - 1;
        SCOPED_TRACE(line);
        ASSERT_TRUE(rows.count(index));
        EXPECT_EQ(rows[index].first, std::stoull(m[2]));
        EXPECT_EQ(rows[index].last, std::stoull(m[3]));
        EXPECT_EQ(rows[index].name, m[4].str());
        EXPECT_NE(info[size_t(index)].find("Partition unique GUID: " + rows[index].unique),
                  std::string::npos);
        EXPECT_NE(info[size_t(index)].find("Partition GUID code: " + rows[index].type), std::string::npos);
        seen++;
    }
    EXPECT_EQ(seen, 3);

    // Resizing partition 1 to 20 MiB packs everything from the first usable
    // LBA in start order, each keeping its length and slot.
    makeManaged(3);
    const std::string before = bytes();
    Result resized = run("gpt resize " + image() + " 1 20M");
    ASSERT_EQ(resized.status, 0) << resized.err;
    std::map<int, Row> after = showRows(resized.out);
    const uint64_t lengths[] = {rows[0].last - rows[0].first, 20 * 256 - 1, rows[2].last - rows[2].first};
    uint64_t next = 6;  // the first usable LBA
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(after[i].first, next);
        EXPECT_EQ(after[i].last, next + lengths[i]);
        next = after[i].last + 1;
        EXPECT_EQ(after[i].unique, rows[i].unique);
        EXPECT_EQ(after[i].name, rows[i].name);
    }
    // Exactly blocks 1 and 2 were rewritten: the header image and the first
    // 8 entries, the rest of both blocks zero.
    const std::string now = bytes();
    ASSERT_EQ(now.size(), before.size());
    EXPECT_EQ(now.compare(0, kBlock, before, 0, kBlock), 0);
    EXPECT_EQ(now.compare(3 * kBlock, std::string::npos, before, 3 * kBlock, std::string::npos), 0);
    EXPECT_EQ(now.compare(kBlock, 40, before, kBlock, 40), 0);
    EXPECT_EQ(now.substr(kBlock + gpt::kHeaderSize, kBlock - gpt::kHeaderSize),
              std::string(kBlock - gpt::kHeaderSize, '\0'));
    EXPECT_EQ(now.substr(2 * kBlock + gpt::kTableSize, kBlock - gpt::kTableSize),
              std::string(kBlock - gpt::kTableSize, '\0'));
}

TEST_F(Plexactl, FailedAdjustmentsLeaveTheImageAlone) {
    makeImage(8 << 20);
    writeView(1000, {{6, 105}, {200, 299}});
    const std::string before = bytes();
    struct Case {
        std::string args, err;
        int status;
    } cases[] = {
        // 995 usable blocks; 1100 + 100 asked for leave 205 missing.
        {"gpt resize IMG 0 4400K", "plexa: new layout does not fit, overflows by 0xcd blocks\n", 1},
        {"gpt resize IMG 3 4K", "plexa: cannot adjust partition 3 - out of range\n", 1},
        {"gpt resize IMG 0 0", "plexactl: a partition can't be resized to 0 bytes (use gpt delete)\n", 2},
        {"gpt resize IMG 0 12Q", "plexactl: invalid size '12Q' (bytes, or a number followed by K, M or G)\n",
         2},
        {"gpt delete IMG -1", "plexactl: invalid partition index '-1'\n", 2},
        {"gpt create IMG", "plexactl: usage: plexactl gpt create IMAGE SIZE\n", 2},
        {"gpt show IMG/missing", "plexactl: IMG/missing: cannot open: Not a directory\n", 1},
    };
    for (const Case& c : cases) {
        std::string args = std::regex_replace(c.args, std::regex("IMG"), image());
        SCOPED_TRACE(args);
        expectRun(args, c.status, std::regex_replace(c.err, std::regex("IMG"), image()));
        EXPECT_EQ(bytes(), before);
    }

    // The next free slot gets the new entry, packed after the others.
    Result created = run("gpt create " + image() + " 1M");
    ASSERT_EQ(created.status, 0) << created.err;
    std::map<int, Row> rows = showRows(created.out);
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[2].name, "New");
    EXPECT_EQ(rows[2].first, 206u);
    EXPECT_EQ(rows[2].last, 461u);

    patch32(gpt::kMBRSignatureOffset, 0);
    expectRun("gpt delete " + image() + " 0", 1,
              "plexactl: " + image() + ": not managed by Plexa (no signature at byte 440 of block 0)\n");
}

TEST_F(Plexactl, HeaderLifecycle) {
    makeImage(16 << 20);  // 16 KiB chunks: the backup copy sits at 12 KiB
    const uint64_t backup = 12 << 10;
    EXPECT_NE(expectRun("header create " + image(), 0, "").out.find("Partitions:       1\n"),
              std::string::npos);
    std::string disk = bytes();
    EXPECT_EQ(disk.compare(0, 4096, disk, backup, 4096), 0);
    expectRun("header create " + image(), 1,
              "plexactl: " + image() + ": already holds a volume header (--force replaces it)\n");

    EXPECT_EQ(expectRun("header check " + image(), 0, "").out, image() + ": volume header consistent\n");

    // A damaged main copy: read from the backup, and repair restores it.
    patch(3000, "x", 1);
    EXPECT_EQ(run("header check " + image()).status, 0);
    expectRun("header repair " + image(), 0, "");
    EXPECT_EQ(bytes(), disk);
    EXPECT_EQ(run("header repair " + image()).out, image() + ": nothing to repair\n");

    // Drop chunk offset 5 of partition 0 from both copies (CRC kept valid).
    std::array<uint8_t, 4096> h;
    std::memcpy(h.data(), disk.data(), h.size());
    header::setChunkEntry(h.data(), 6, header::kChunkFree);
    plexaSetHeaderCRC(h.data());
    patch(0, h.data(), h.size());
    patch(backup, h.data(), h.size());
    const std::string broken = bytes();
    expectRun("header check " + image(), 1, "plexa: partition 0 missing chunk 0x0005\n");
    expectRun("header repair --strict " + image(), 1, "plexa: partition 0 missing chunk 0x0005\n");
    EXPECT_EQ(bytes(), broken);
    Result fixed = run("header repair " + image());
    EXPECT_EQ(fixed.status, 0);
    // Cut at the gap; offsets 6 to 1015 (entries 7 to 1016) go back to free.
    EXPECT_EQ(
        fixed.err.rfind(
            "plexa: truncated partition 0\nplexa: reclaiming chunk 0x0007 off the end of partition 0\n", 0),
        0u);
    EXPECT_EQ(std::count(fixed.err.begin(), fixed.err.end(), '\n'), 1 + 1010);
    EXPECT_EQ(run("header check " + image()).status, 0);
    Result shown = run("header show " + image());
    EXPECT_NE(shown.out.find("  0  bytes 24576-106496 (81920)"), std::string::npos) << shown.out;

    EXPECT_EQ(run("header show " + dir_ + "/stdout").status, 1);  // an empty file
}

}  // namespace
