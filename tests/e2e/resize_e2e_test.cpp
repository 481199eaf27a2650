// The two storage commands through the running helper in a sandbox whose
// data disk is a loop device over an image made by "plexactl device-image
// create": qvalctl's answer, the helper's log lines that matter, the GPT view
// read back with "plexactl gpt show", the data volume's size in the volumes
// file after each command, and the image's bytes.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "platform/fs/LinuxFileSystem.h"
#include "platform/fs/PropertyListFile.h"
#include "tests/support/Sandbox.h"
#include "tests/support/TestSupport.h"

namespace qvl::e2e {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

constexpr size_t kBlock = 4096;
const char* const kShrink = "shrinkDataPartition:";
const char* const kExpand = "expandDataPartition:";

struct Span {
    uint64_t first, last;
    bool operator==(const Span&) const = default;
};

struct Case {
    const char* what;
    std::vector<const char*> commands;
    int status;  // qvalctl's exit status for each command
    // In this order among the helper's lines; "{Name}" stands for the UUID of
    // the partition of that name.
    Lines lines;
    // The view afterwards; empty: as it was, and the image not written at all.
    std::vector<Span> table = {};
    // The data volume's size after each command; empty: as it was.
    std::vector<int64_t> dataSizes = {};
    std::vector<const char*> partitions = {"System:8M", "Data:32M:4M", "Update:8M"};
    std::function<void(std::string& blocks)> patch = nullptr;  // blocks 0 to 2 of the image
    std::function<void(plist::Array& volumes)> editVolumes = nullptr;
    std::optional<std::pair<int64_t, int64_t>> diskUsage = std::nullopt;  // capacity, available
    std::vector<const char*> options = {"--disk", "IMAGE"};
    const char* absent = nullptr;  // no line may start with this
};

plist::Array volumesOf(const std::string& path) {
    auto value = platform::readPropertyListFile(platform::LinuxFileSystem::sharedInstance(), path);
    return value && value->isArray() ? *value->asArray() : plist::Array{};
}

plist::Dictionary* volumeOn(plist::Array& volumes, const std::string& mountPoint) {
    for (plist::Value& v : volumes)
        if (v.asDictionary() && v.asDictionary()->getString("MountedOn") &&
            *v.asDictionary()->getString("MountedOn") == mountPoint)
            return v.asDictionary();
    return nullptr;
}

int64_t dataSize(const std::string& volumesFile) {
    plist::Array volumes = volumesOf(volumesFile);
    const plist::Dictionary* data = volumeOn(volumes, "/private/var");
    return data && data->getInteger("Size") ? data->getInteger("Size")->asSigned() : -1;
}

std::vector<Span> gptShow(const std::string& image) {
    const CommandResult shown = runCommand({PLEXACTL_PATH, "gpt", "show", image});
    EXPECT_EQ(shown.status, 0) << shown.output;
    static const std::regex row(R"(^\d+\s+(\d+)\s+(\d+)\s+\d+\s+\S{36}\s+\S{36}.*$)");
    std::vector<Span> spans;
    std::istringstream lines(shown.output);
    for (std::string line; std::getline(lines, line);) {
        std::smatch m;
        if (std::regex_match(line, m, row)) spans.push_back({std::stoull(m[1]), std::stoull(m[2])});
    }
    return spans;
}

class ResizeE2ETest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (auto reason = Sandbox::unavailableReason()) GTEST_SKIP() << *reason;
    }

    // Makes the image, edits it and its volumes file as the case asks, runs
    // the commands in a helper started for the case, and checks what they
    // left. Answers false when the case can't run here (no loop device).
    bool run(Sandbox& sandbox, const Case& c, const std::string& image);

    testing::TempTree images_{"/tmp"};
};

// "{System}" and "{Data}" in a line become those volumes' UUIDs.
std::string withUUIDs(std::string line, const std::string& volumesFile) {
    plist::Array volumes = volumesOf(volumesFile);
    for (auto [name, volume] :
         {std::pair{"{System}", volumeOn(volumes, "/")}, {"{Data}", volumeOn(volumes, "/private/var")}})
        if (size_t at = line.find(name); at != std::string::npos && volume && volume->getString("UUID"))
            line.replace(at, std::strlen(name), *volume->getString("UUID"));
    return line;
}

bool ResizeE2ETest::run(Sandbox& sandbox, const Case& c, const std::string& image) {
    std::vector<std::string> create = {PLEXACTL_PATH, "device-image", "create", image, "--size", "64M"};
    for (const char* p : c.partitions) create.insert(create.end(), {"--partition", p});
    const CommandResult made = runCommand(create);
    EXPECT_EQ(made.status, 0) << made.output;
    const std::string volumesFile = image + ".volumes.plist";
    Lines expected;
    for (const std::string& line : c.lines) expected.push_back(withUUIDs(line, volumesFile));

    // A mark in block 1 past the header image, which any write of the table clears.
    std::string blocks = testing::readText(image).substr(0, 3 * kBlock);
    blocks[kBlock + 2000] = 'M';
    if (c.patch) c.patch(blocks);
    std::fstream(image, std::ios::binary | std::ios::in | std::ios::out).write(blocks.data(), 3 * kBlock);
    if (c.editVolumes) {
        plist::Array volumes = volumesOf(volumesFile);
        c.editVolumes(volumes);
        EXPECT_TRUE(platform::writePropertyListFile(platform::LinuxFileSystem::sharedInstance(), volumesFile,
                                                    plist::Value(volumes), plist::Format::XML));
    }
    const std::string before = testing::readText(image);
    const std::vector<Span> tableBefore = gptShow(image);

    std::vector<std::string> options;
    for (const char* o : c.options) options.push_back(std::string(o) == "IMAGE" ? image : o);
    std::string output;
    if (!sandbox.start(&output, options)) {
        if (output.find("qvl-sandbox: no loop device") != std::string::npos) return false;
        ADD_FAILURE() << "the helper did not start:\n" << output;
        return true;
    }
    // Device information answers "DiskUsage" from its file when the case
    // gives one, else from the data volume.
    std::ofstream(sandbox.root() + "/etc/ostrel/deviceinfo.plist")
        << "<plist version=\"1.0\"><dict>"
        << (c.diskUsage ? "<key>DiskUsage</key><dict><key>TotalDataCapacity</key><integer>" +
                              std::to_string(c.diskUsage->first) +
                              "</integer><key>TotalDataAvailable</key><integer>" +
                              std::to_string(c.diskUsage->second) + "</integer></dict>"
                        : "")
        << "</dict></plist>\n";

    const std::string sandboxVolumes = sandbox.root() + "/private/var/db/platform/volumes.plist";
    const int64_t sizeBefore = dataSize(sandboxVolumes);
    const size_t from = sandbox.logLines().size();
    std::vector<int64_t> sizes;
    for (const char* command : c.commands) {
        const CommandResult answer = sandbox.exec({"qvalctl", "--timeout", "120", command});
        EXPECT_EQ(answer.status, c.status) << command << ": " << answer.output;
        sizes.push_back(dataSize(sandboxVolumes));
    }
    EXPECT_TRUE(sandbox.waitForLogLine("Message handled", from));
    const Lines all = sandbox.logLines();
    const Lines log(all.begin() + std::ptrdiff_t(std::min(from, all.size())), all.end());
    EXPECT_EQ(sandbox.stop(), 0);  // ends the helper and detaches the disk

    std::string text;
    for (const std::string& line : log) text += line + "\n";
    auto at = log.begin();
    for (const std::string& line : expected) {
        at = std::find(at, log.end(), line);
        EXPECT_NE(at, log.end()) << "missing, or out of order: " << line << "\nlog:\n" << text;
        if (at == log.end()) break;
    }
    for (const std::string& line : log) EXPECT_FALSE(c.absent && line.starts_with(c.absent)) << line;

    EXPECT_EQ(gptShow(image), c.table.empty() ? tableBefore : c.table);
    const std::string after = testing::readText(image);
    EXPECT_EQ(after.size(), before.size());
    EXPECT_EQ(after.compare(0, kBlock, before, 0, kBlock), 0) << "block 0 changed";
    EXPECT_EQ(after.compare(3 * kBlock, std::string::npos, before, 3 * kBlock), 0) << "blocks from 3 changed";
    if (c.table.empty()) {
        EXPECT_EQ(after, before) << "the table was written";
    }
    EXPECT_EQ(sizes, c.dataSizes.empty() ? std::vector<int64_t>(c.commands.size(), sizeBefore) : c.dataSizes);
    return true;
}

std::function<void(std::string&)> setCount(uint32_t count) {
    return [count](std::string& blocks) {
        for (int i = 0; i < 4; i++) blocks[kBlock + 80 + i] = char(count >> (8 * i));
    };
}

// Usable blocks 6 to 16378; System, Data and Update of 2048, 8192 and 2048
// blocks unless a case says otherwise.
const Case kCases[] = {
    {.what = "shrink by half the free space, then expand over all the others leave",
     .commands = {kShrink, kExpand},
     .status = 0,
     .lines = {"Entering -[QVLHMessageResponder shrinkDataPartition:] with parameter: 1",
               "freeSize = 29360128(bytes), totalSize = 33554432(bytes), newSize = 18874368(bytes)",
               "scanning 3 filesystems for {Data}", "UUID {System} does not match", "UUID {Data} match",
               "matched /dev/disk0s1s2 on /private/var",
               "shrinking HFS filesystem on /private/var from 33554432 to 18874368",
               "Wrote GPT header back to disk",
               "Entering -[QVLHMessageResponder expandDataPartition:] with parameter: 1",
               "Block numbers that could be used as data partition = 12277", "Wrote GPT header back to disk",
               "expanding HFS filesystem on /private/var to 50286592"},
     .table = {{6, 2053}, {2054, 14330}, {14331, 16378}},
     .dataSizes = {18874368, 50286592}},
    {.what = "already the right size: no change, no write",
     .commands = {kExpand},
     .status = 0,
     .lines = {"partition: requiredSize=12277", "no change in size"},
     .partitions = {"System:8M", "Data:50286592", "Update:8M"}},
    {.what = "the data volume is not mounted",
     .commands = {kExpand},
     .status = 1,
     .lines = {"scanning 2 filesystems for {Data}",
               "filesystem must be mounted (mountPoint=(null),which=1,nPartitions=3,newSize=12277)",
               "failed to adjust partition 1"},
     .editVolumes = [](plist::Array& v) { v.erase(v.begin() + 1); }},
    {.what = "a size that does not fit: nothing after the size line",
     .commands = {kShrink},
     .status = 1,
     .lines = {"partition: requiredSize=268435456"},
     .diskUsage = std::pair<int64_t, int64_t>(int64_t(1) << 40, 0),
     .absent = "scanning"},
    {.what = "no Data partition: one is created, no volume step",
     .commands = {kExpand},
     .status = 0,
     .lines = {"Creating new partition instead of adjusting existing one",
               "About to adjust with settings partitionIndex:1 size:55 MB"},
     .table = {{6, 2053}, {2054, 16378}},
     .partitions = {"System:8M"}},
    {.what = "expansion counts entry 1 as the data partition",
     .commands = {kExpand},
     .status = 0,
     .lines = {"Partition 1: first = 2054, last = 3077, lbaNumber = 1024",
               "Block numbers that could be used as data partition = 10229",
               "Resizing existing partition with GPT index 2"},
     .table = {{6, 2053}, {2054, 3077}, {3078, 13306}},
     .dataSizes = {41897984},
     .partitions = {"System:8M", "Update:4M", "Data:16M:1M"}},
    {.what = "a size of 0 is refused with the number 1",
     .commands = {kShrink},
     .status = 1,
     .lines = {"partition: requiredSize=0", "deletion of partition 1 disallowed"},
     .partitions = {"System:8M", "Update:8M", "Data:32M"},
     .diskUsage = std::pair<int64_t, int64_t>(0, 0)},
    {.what = "a node that is not a block device",
     .commands = {kExpand},
     .status = 1,
     .lines = {"/dev/rdisk0s1 is not a suitable device (try /dev/rdisk*)", "newSize = 0(bytes)"},
     .options = {"--bind", "IMAGE", "/dev/rdisk0s1"}},
    {.what = "the volume refuses the shrink",
     .commands = {kShrink},
     .status = 1,
     .lines = {"HFS resize failed. errno=28", "can't shrink partition 1, currently mounted on /private/var",
               "failed to adjust partition 1"},
     .editVolumes = [](plist::Array& v) { volumeOn(v, "/private/var")->set("Used", plist::Value(30 << 20)); },
     .diskUsage = std::pair<int64_t, int64_t>(32 << 20, 28 << 20)},
    {.what = "a header claiming 9 entries",
     .commands = {kExpand},
     .status = 1,
     .lines = {"GPT header of /dev/rdisk0s1 claims 9 partitions; the view holds 8"},
     .patch = setCount(9)},
    // Device information and the mount scan see the first 8 of 9 volumes: the
    // data volume as the 8th, and a volume without UUID passed over.
    {.what = "9 volumes",
     .commands = {kShrink},
     .status = 0,
     .lines = {"freeSize = 29360128(bytes), totalSize = 33554432(bytes), newSize = 18874368(bytes)",
               "scanning 8 filesystems for {Data}", "device matching disk0s1s1 has no UUID (unexpected)",
               "UUID {Data} match"},
     .table = {{6, 2053}, {2054, 6661}, {6662, 8709}},
     .dataSizes = {18874368},
     .editVolumes =
         [](plist::Array& v) {
             v[0].asDictionary()->erase("UUID");
             v.insert(v.begin() + 1, 6, plist::Value(plist::Dictionary()));
         }},
    {.what = "no volume manager's mark",
     .commands = {kExpand},
     .status = 1,
     .lines = {"/dev/rdisk0s1 not managed by Plexa"},
     .patch = [](std::string& b) { b[440] = 0; }},
    {.what = "512-byte sectors",
     .commands = {kExpand},
     .status = 1,
     .lines = {"Device /dev/rdisk0s1 not suitable"},
     .options = {"--disk", "IMAGE", "--disk-sector-size", "512"}},
    {.what = "a read-only disk",
     .commands = {kExpand},
     .status = 1,
     .lines = {"failed to open /dev/rdisk0s1",
               "Failed to open /dev/rdisk0s1 to write new GPT header out to disk."},
     .options = {"--disk", "IMAGE", "--disk-read-only"}},
};

// One device root for all cases; each starts its own helper on its own disk,
// so the names the driver keeps never carry over from one case to the next.
TEST_F(ResizeE2ETest, Cases) {
    Sandbox sandbox;
    for (size_t i = 0; i < std::size(kCases); i++) {
        SCOPED_TRACE(kCases[i].what);
        if (!run(sandbox, kCases[i], images_.path("disk" + std::to_string(i) + ".img")))
            GTEST_SKIP() << "no loop device";
    }
}

}  // namespace
}  // namespace qvl::e2e
