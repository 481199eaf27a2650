// plexactl end to end: views checked against sgdisk on 4096-byte-sector loop
// devices, refusals that leave an image alone, the volume header commands,
// and the text conversions beneath.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <regex>
#include <sstream>
#include <string>

#include "plist/PropertyList.h"
#include "storage/plexa.h"
#include "storage/plexa_format.h"
#include "tests/support/TestSupport.h"
#include "tools/plexactl/Text.h"

using namespace qvl::plexa;
using qvl::testing::runTool;
using qvl::testing::ToolRun;

namespace {

constexpr uint32_t kBlock = 4096;

// A loop device with 4096-byte sectors over an image, detached on every path.
class LoopDevice {
  public:
    explicit LoopDevice(const std::string& image) {
        const ToolRun r = runTool("losetup --sector-size 4096 -f --show " + image);
        if (r.status == 0) device_ = r.out.substr(0, r.out.find('\n'));
    }
    ~LoopDevice() {
        if (!device_.empty()) runTool("losetup -d " + device_);
    }
    const std::string& device() const { return device_; }

  private:
    std::string device_;
};

// Rows of "gpt show", or of "sgdisk -p" (whose numbers count from 1).
using Row = qvl::testing::GptRow;
using Rows = std::map<int, Row>;
using qvl::testing::gptShowRows;

class Plexactl : public testing::Test {
  protected:
    ToolRun run(const std::string& args) { return runTool(std::string(PLEXACTL_PATH) + " " + args); }
    // Runs plexactl and expects the exit status and, word for word, the errors.
    ToolRun expectRun(const std::string& args, int status, const std::string& err) {
        ToolRun r = run(args);
        EXPECT_EQ(r.status, status) << args;
        EXPECT_EQ(r.err, err) << args;
        return r;
    }
    std::string bytes() { return qvl::testing::readText(image_); }
    void patch(uint64_t offset, const void* data, size_t size) {
        const int fd = open(image_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(pwrite(fd, data, size, off_t(offset)), ssize_t(size));
        close(fd);
    }
    void patch64(uint64_t offset, uint64_t value) {
        uint8_t b[8];
        storeLE64(b, value);
        patch(offset, b, 8);
    }
    void makeImage(uint64_t size) {
        patch(0, "", 0);  // creates it
        ASSERT_EQ(truncate(image_.c_str(), off_t(size)), 0);
    }
    // Rows of sgdisk on a loop device over the image, with each unique GUID.
    Rows sgdiskRows(bool* tablesSound = nullptr) {
        LoopDevice loop(image_);
        if (loop.device().empty()) return {};
        if (tablesSound) {
            const ToolRun v = runTool("sgdisk -v " + loop.device() + " 2>&1");
            *tablesSound = v.says("Main header: OK") && v.says("Main partition table: OK");
        }
        static const std::regex row(R"(^\s+(\d+)\s+(\d+)\s+(\d+)\s+\S+ \S+\s+\S+\s+(.*)$)");
        Rows rows;
        std::istringstream lines(runTool("sgdisk -p " + loop.device()).out);
        for (std::string line; std::getline(lines, line);) {
            std::smatch m;
            if (!std::regex_match(line, m, row)) continue;
            const std::string info = runTool("sgdisk -i " + m[1].str() + " " + loop.device()).out;
            const size_t at = info.find("Partition unique GUID: ");
            rows[std::stoi(m[1]) - 1] = {std::stoull(m[2]), std::stoull(m[3]),
                                         at == std::string::npos ? "" : info.substr(at + 23, 36), m[4]};
        }
        return rows;
    }

    qvl::testing::TempTree tree_;
    const std::string image_ = tree_.path("disk.img");
};

TEST_F(Plexactl, SgdiskAndPlexactlReadEachOthersViews) {
    // A device image reads back in sgdisk as plexactl shows it, with sound CRCs.
    const ToolRun made =
        run("device-image create " + image_ +
            " --size 64M --partition System:8M --partition Data:32M:4M --partition Update:3M");
    ASSERT_EQ(made.status, 0) << made.err;
    if (geteuid() != 0 || runTool("command -v sgdisk").status != 0 || LoopDevice(image_).device().empty())
        GTEST_SKIP() << "needs root, sgdisk (gdisk) and a free loop device";
    bool sound = false;
    const Rows rows = gptShowRows(made.out);
    EXPECT_EQ(sgdiskRows(&sound), rows);
    EXPECT_TRUE(sound);
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows.at(2), (Row{2054 + 8192, 2054 + 8192 + 767, rows.at(2).unique, "Update"}));
    const auto volumes = qvl::plist::read(qvl::testing::readText(image_ + ".volumes.plist"));
    ASSERT_TRUE(volumes && volumes->isArray());
    const auto& data = *(*volumes->asArray())[1].asDictionary();
    EXPECT_EQ(*data.getString("MountedOn"), "/private/var");
    EXPECT_EQ(*data.getString("MountedFrom"), "/dev/disk0s1s2");
    EXPECT_EQ(*data.getString("UUID"), rows.at(1).unique);
    EXPECT_EQ(data.getInteger("Size")->asSigned(), 32 << 20);
    EXPECT_EQ(data.getInteger("Used")->asSigned(), 4 << 20);
    unlink(image_.c_str());

    // A layout sgdisk makes, with gaps, is shown as sgdisk shows it; a resize
    // (whose packing is the library's) rewrites blocks 1 and 2 only.
    makeImage(64 << 20);
    {
        LoopDevice loop(image_);
        ASSERT_EQ(
            runTool("sgdisk -o -n 1:0:+8M -c 1:System -n 2:+1M:+16M -c 2:Data -n 3:+2M:+4M -c 3:Update " +
                    loop.device())
                .status,
            0);
    }
    EXPECT_EQ(gptShowRows(run("gpt show " + image_).out), sgdiskRows());
    patch(gpt::kMBRSignatureOffset, "axlP", 4);
    const uint8_t inUse[4] = {3};
    patch(kBlock + gpt::kEntryCount, inUse, 4);
    const std::string before = bytes();
    const Rows resized = gptShowRows(expectRun("gpt resize " + image_ + " 1 20M", 0, "").out);
    EXPECT_EQ(resized.at(1).last - resized.at(1).first + 1, 20u * 256);
    const std::string now = bytes();
    EXPECT_EQ(now.compare(0, kBlock, before, 0, kBlock), 0);
    EXPECT_EQ(now.compare(3 * kBlock, std::string::npos, before, 3 * kBlock), 0);
}

TEST_F(Plexactl, RefusalsLeaveTheImageAlone) {
    ASSERT_EQ(
        run("device-image create " + image_ + " --size 8M --partition A:400K --partition B:400K").status, 0);
    const std::string before = bytes();
    const struct {
        std::string args, err;
        int status;
    } cases[] = {
        {"gpt resize IMG 0 0", "plexactl: a partition can't be resized to 0 bytes (use gpt delete)\n", 2},
        {"gpt resize IMG 0 12Q", "plexactl: invalid size '12Q' (bytes, or a number followed by K, M or G)\n",
         2},
        {"gpt delete IMG -1", "plexactl: invalid partition index '-1'\n", 2},
        {"gpt create IMG", "plexactl: usage: plexactl gpt create IMAGE SIZE\n", 2},
        {"header create IMG",
         "plexactl: IMG: carries a GPT view that the header would overwrite (--force writes it anyway)\n", 1},
        {"device-image create IMG --size 8M --partition A:1M", "plexactl: IMG: cannot create: File exists\n",
         1},
        {"device-image create IMG2 --size 8M --partition A:1M:2M",
         "plexactl: invalid partition 'A:1M:2M' (NAME:SIZE[:USED], an ASCII name of up to 36 characters "
         "without "
         "':', USED no more than SIZE)\n",
         2},
        {"device-image create IMG2 --size 8M --partition A:8M",
         "plexactl: partition 'A' does not fit: blocks 6 to 2042 are usable\n", 1},
    };
    for (const auto& c : cases) {
        const std::string args = std::regex_replace(c.args, std::regex("IMG"), image_);
        expectRun(args, c.status, std::regex_replace(c.err, std::regex("IMG"), image_));
        EXPECT_EQ(bytes(), before) << args;
    }
    EXPECT_NE(access((image_ + "2").c_str(), F_OK), 0);

    // Usable blocks reaching past the end are never packed into.
    patch64(kBlock + gpt::kLastUsableLBA, 2048);
    expectRun("gpt delete " + image_ + " 0", 1,
              "plexactl: " + image_ + ": usable blocks 6 to 2048 lie outside blocks 3 to 2047 of the disk\n");
    patch(gpt::kMBRSignatureOffset, "\0\0\0\0", 4);
    expectRun("gpt delete " + image_ + " 0", 1,
              "plexactl: " + image_ + ": not managed by Plexa (no signature at byte 440 of block 0)\n");
}

TEST_F(Plexactl, HeaderLifecycle) {
    makeImage(16 << 20);  // 16 KiB chunks: the backup copy sits at 12 KiB
    EXPECT_TRUE(expectRun("header create " + image_, 0, "").says("Partitions:       1\n"));
    const std::string disk = bytes();
    expectRun("header create " + image_, 1,
              "plexactl: " + image_ + ": already holds a volume header (--force replaces it)\n");
    EXPECT_EQ(expectRun("header check " + image_, 0, "").out, image_ + ": volume header consistent\n");

    // A damaged main copy: read from the backup, and repair restores it.
    patch(3000, "x", 1);
    expectRun("header repair " + image_, 0, "");
    EXPECT_EQ(bytes(), disk);
    EXPECT_EQ(run("header repair " + image_).out, image_ + ": nothing to repair\n");

    // Chunk offset 5 of partition 0 gone from both copies (CRC kept valid):
    // refused by the check and the strict repair, mended by the other.
    std::string h = disk.substr(0, 4096);
    header::setChunkEntry(reinterpret_cast<uint8_t*>(h.data()), 6, header::kChunkFree);
    plexaSetHeaderCRC(reinterpret_cast<uint8_t*>(h.data()));
    patch(0, h.data(), h.size());
    patch(12 << 10, h.data(), h.size());
    const std::string broken = bytes();
    expectRun("header check " + image_, 1, "plexa: partition 0 missing chunk 0x0005\n");
    expectRun("header repair --strict " + image_, 1, "plexa: partition 0 missing chunk 0x0005\n");
    EXPECT_EQ(bytes(), broken);
    EXPECT_EQ(run("header repair " + image_).status, 0);
    EXPECT_TRUE(run("header show " + image_).says("  0  bytes 24576-106496 (81920)"));
}

TEST(PlexactlText, SizesIndexesAndNames) {
    using namespace qvl::plexactl;
    EXPECT_EQ(parseSize("4096"), 4096u);
    EXPECT_EQ(parseSize("64m"), 64u << 20);
    EXPECT_EQ(parseSize("17179869183G"), 17179869183ull << 30);
    for (const char* bad :
         {"", "K", "-1", "1.5G", "12KB", "1T", " 1", "18446744073709551616", "17179869184G", "0x10"})
        EXPECT_EQ(parseSize(bad), std::nullopt) << bad;
    EXPECT_EQ(parseIndex("7"), 7);
    EXPECT_EQ(parseIndex("1x"), std::nullopt);
    EXPECT_EQ(parseIndex("99999999999"), std::nullopt);
    // "Dä", U+1F600 as a surrogate pair, an unpaired high surrogate, NUL; a full field ends at its size.
    const uint8_t name[] = {'D', 0, 0xE4, 0, 0x3D, 0xD8, 0x00, 0xDE, 0x00, 0xD8, 'x', 0, 0, 0, 'y', 0};
    EXPECT_EQ(utf16leName(name, sizeof name), "D\xC3\xA4\xF0\x9F\x98\x80\xEF\xBF\xBDx");
    EXPECT_EQ(utf16leName(name, 5), "D\xC3\xA4");
}

}  // namespace
