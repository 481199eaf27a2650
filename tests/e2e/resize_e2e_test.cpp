// The two storage commands through the running helper in a sandbox whose
// data disk is a loop device over an image made by "plexactl device-image
// create": qvalctl's answer, the helper's log lines that matter, the GPT view
// read back with "plexactl gpt show", the data volume's size in the volumes
// file after each command, and the image's bytes.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/volumes/Volumes.h"
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
    std::vector<const char*> options = {"--disk", "IMAGE"};
};

// The volume mounted at `mountPoint` in a volumes file.
std::optional<platform::Volumes::Volume> volumeOn(const std::string& volumesFile,
                                                  const std::string& mountPoint) {
    for (auto& volume :
         platform::Volumes(volumesFile).mounted().value_or(std::vector<platform::Volumes::Volume>{}))
        if (volume.mountedOn == mountPoint) return volume;
    return std::nullopt;
}

int64_t dataSize(const std::string& volumesFile) {
    const auto data = volumeOn(volumesFile, "/private/var");
    return data && data->size ? *data->size : -1;
}

std::vector<Span> gptShow(const std::string& image) {
    const CommandResult shown = runCommand({PLEXACTL_PATH, "gpt", "show", image});
    EXPECT_EQ(shown.status, 0) << shown.output;
    std::vector<Span> spans;
    for (const auto& [index, row] : testing::gptShowRows(shown.output))
        spans.push_back({row.first, row.last});
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
    for (auto [name, mountPoint] : {std::pair{"{System}", "/"}, {"{Data}", "/private/var"}}) {
        const auto volume = volumeOn(volumesFile, mountPoint);
        if (size_t at = line.find(name);
            at != std::string::npos && volume && volume->uuid && volume->uuid->asString())
            line.replace(at, std::strlen(name), *volume->uuid->asString());
    }
    return line;
}

bool ResizeE2ETest::run(Sandbox& sandbox, const Case& c, const std::string& image) {
    const CommandResult made =
        runCommand({PLEXACTL_PATH, "device-image", "create", image, "--size", "64M", "--partition",
                    "System:8M", "--partition", "Data:32M:4M", "--partition", "Update:8M"});
    EXPECT_EQ(made.status, 0) << made.output;
    const std::string volumesFile = image + ".volumes.plist";
    Lines expected;
    for (const std::string& line : c.lines) expected.push_back(withUUIDs(line, volumesFile));

    // A mark in block 1 past the header image, which any write of the table clears.
    std::string blocks = testing::readText(image).substr(0, 3 * kBlock);
    blocks[kBlock + 2000] = 'M';
    std::fstream(image, std::ios::binary | std::ios::in | std::ios::out).write(blocks.data(), 3 * kBlock);
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

// Usable blocks 6 to 16378; System, Data and Update of 2048, 8192 and 2048
// blocks. The cases of the driver are its unit test's; here, the ordinary run
// and the refusals of the real disk layer.
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
    {.what = "a node that is not a block device",
     .commands = {kExpand},
     .status = 1,
     .lines = {"/dev/rdisk0s1 is not a suitable device (try /dev/rdisk*)", "newSize = 0(bytes)"},
     .options = {"--bind", "IMAGE", "/dev/rdisk0s1"}},
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
