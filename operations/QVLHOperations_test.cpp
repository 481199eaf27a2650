// The operations work on the device's fixed paths, so the tests that touch
// them run only inside the device sandbox (ctest starts them there) and skip
// on a host. Firmware variables go through a swappable store and run anywhere. The commands end to end are in
// tests/e2e/.
#include "operations/QVLHOperations.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "base/QVLLogCapture.h"
#include "platform/fs/FileTree.h"
#include "platform/nvram/NvramStore.h"
#include "tests/support/TestSupport.h"

namespace qvl {
namespace {

using Lines = std::vector<std::string>;
using testing::inDeviceSandbox;
using testing::lstatOf;
using testing::readText;

void write(const std::string& path, const std::string& text = "x") {
    testing::writeText(path, text);
}

void makeFolder(const std::string& path, mode_t mode = 0755) {
    ASSERT_EQ(::mkdir(path.c_str(), mode), 0) << path;
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
}

class DeviceOperationsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!inDeviceSandbox()) GTEST_SKIP() << "needs the device sandbox (runs under tools/qvl-sandbox)";
        platform::removeTree(kWork);
        makeFolder(kWork);
    }
    void TearDown() override {
        if (inDeviceSandbox()) platform::removeTree(kWork);
    }
    std::string at(const std::string& name) const { return std::string(kWork) + "/" + name; }
    // Mounts a file system at `path`, which then can't be removed.
    bool pin(const std::string& path) {
        makeFolder(path);
        return ::mount("tmpfs", path.c_str(), "tmpfs", MS_RDONLY, nullptr) == 0;
    }

    static constexpr const char* kWork = "/private/var/tmp/ops";
    QVLHOperations operations{QVLHOperations::Services{}};
};

TEST_F(DeviceOperationsTest, PrepareDirectory) {
    for (mode_t mode : {0700, 0755, 01700}) {
        ::rmdir(at("m").c_str());
        makeFolder(at("m"), mode);
        EXPECT_TRUE(operations.prepareDirectory(at("m"), true));
        EXPECT_EQ(lstatOf(at("m")).st_mode & 07777, mode | 0077) << std::oct << mode;
    }
    EXPECT_TRUE(operations.prepareDirectory(at("new/deeper"), true));
    EXPECT_EQ(lstatOf(at("new")).st_mode & 07777, 0755u);
    write(at("file"));
    ::chmod(at("file").c_str(), 0600);
    EXPECT_TRUE(operations.prepareDirectory(at("file"), true));
    EXPECT_EQ(lstatOf(at("file")).st_mode & 07777, 0677u);

    makeFolder(at("c"));
    makeFolder(at("c/QVL_staging"));
    write(at("c/QVL_staging/f"));
    write(at("c/keep"));
    EXPECT_TRUE(operations.prepareDirectory(at("c"), true));
    EXPECT_NE(::access(at("c/QVL_staging").c_str(), F_OK), 0);
    EXPECT_EQ(::access(at("c/keep").c_str(), F_OK), 0);

    QVLLogCapture capture;
    makeFolder(at("c/QVL_staging"));
    if (!pin(at("c/QVL_staging/mnt"))) GTEST_SKIP() << "can't mount a tmpfs here";
    EXPECT_FALSE(operations.prepareDirectory(at("c"), true));
    ::umount(at("c/QVL_staging/mnt").c_str());
    const std::string name = "-[QVLHOperations prepareDirectory:writableByMobile:]";
    EXPECT_EQ(capture.lines(), Lines{name + ": Could not remove the path " + at("c/QVL_staging") +
                                     " with error - Invalid cross-device link(0x12)"});
}

// What a client or "mobile" can plant below /private/var, tried on every
// operation that acts on a client's path: each answers false, says why once,
// and nothing changes where the path would have led.
TEST_F(DeviceOperationsTest, ClientPathsNeverLeadThroughALinkOrUpward) {
    makeFolder(at("target"), 0700);
    makeFolder(at("target/sub"), 0700);
    write(at("target/precious"), "precious");
    ::chmod(at("target/precious").c_str(), 0600);
    makeFolder(at("stage"));
    write(at("stage/f"));
    const std::string via = at("planted");
    ASSERT_EQ(::symlink(at("target").c_str(), via.c_str()), 0);
    ASSERT_EQ(::link(at("target/precious").c_str(), at("hard").c_str()), 0);
    ASSERT_EQ(::mkfifo(at("fifo").c_str(), 0600), 0);
    const std::string prepare = "-[QVLHOperations prepareDirectory:writableByMobile:]: ";
    const std::string link = " is refused: a symbolic link is on its way.";
    const struct {
        std::function<bool()> call;
        std::string line;
    } cases[] = {
        {[&] { return operations.prepareDirectory(via + "/new", true); }, prepare + via + "/new" + link},
        {[&] { return operations.prepareDirectory(via, true); }, prepare + via + link},
        {[&] { return operations.prepareLogContainer(at("stage/../target")); },
         prepare + at("stage/../target") + " is refused: it has a \"..\" component."},
        {[&] { return operations.prepareDirectory("/tmp", true); },
         prepare + "/tmp is refused: it is not below /private/var."},
        {[&] { return operations.removeDirectory(via + "/precious"); },
         "-[QVLHOperations removeDirectory:]: " + via + "/precious" + link},
        {[&] { return operations.createHardLinks(at("stage/f"), via + "/linked"); },
         "-[QVLHOperations createHardLinks:stagingPath:]: " + via + "/linked" + link},
        {[&] { return operations.createHardLinks(via + "/precious", at("stage/stolen")); },
         "-[QVLHOperations createHardLinks:stagingPath:]: " + via + "/precious" + link},
        {[&] { return operations.moveStagingToFinal(via + "/sub"); },
         "-[QVLHOperations moveStagingToFinal:]: " + via + "/sub" + link},
        {[&] { return operations.moveStagingToFinal(via); }, "Staging path " + via + " looks wrong."},
        {[&] { return operations.prepareDirectory(at("hard"), true); },
         prepare + "Cannot set attribute for " + at("hard") + " - Too many links"},
        {[&] { return operations.prepareDirectory(at("fifo"), true); },
         prepare + "Cannot set attribute for " + at("fifo") + " - Invalid argument"},
        {[&] { return operations.createHardLinks(at("stage/f"), via); },
         "Could not link " + at("stage/f") + " to " + via + " with error -File exists."},
    };
    for (const auto& c : cases) {
        QVLLogCapture capture;
        EXPECT_FALSE(c.call()) << c.line;
        EXPECT_TRUE(!capture.lines().empty() && capture.lines().back() == c.line) << c.line;
    }
    EXPECT_EQ(lstatOf(at("target")).st_mode & 07777, 0700u);
    EXPECT_EQ(readText(at("target/precious")), "precious");
    EXPECT_EQ(lstatOf(at("target/precious")).st_mode & 07777, 0600u);
    EXPECT_EQ(lstatOf(at("target/precious")).st_nlink + lstatOf(at("stage/f")).st_nlink, 3u);
    EXPECT_FALSE(::access(at("target/new").c_str(), F_OK) == 0 || ::access("/var/backup/sub", F_OK) == 0);
    // A link named as the item itself is removed as the link.
    EXPECT_TRUE(operations.removeDirectory(via));
    EXPECT_EQ(readText(at("target/precious")), "precious");
}

TEST_F(DeviceOperationsTest, PrepareLogContainerHandsOverOnlyLogFiles) {
    makeFolder(at("logs"));
    makeFolder(at("logs/sub"));
    write(at("logs/qvald-20261122.log"));
    write(at("logs/other.log"));
    write(at("logs/sub/qvald-20261121.log"));
    write(at("secret"));
    ASSERT_EQ(::symlink(at("secret").c_str(), at("logs/qvald-link").c_str()), 0);
    ASSERT_EQ(::link(at("secret").c_str(), at("logs/qvald-hard").c_str()), 0);

    EXPECT_TRUE(operations.prepareLogContainer(at("logs")));
    EXPECT_EQ(lstatOf(at("logs/qvald-20261122.log")).st_gid, 501u);
    // The link is handed over, not its target.
    for (auto [name, uid] : {std::pair{"logs/qvald-20261122.log", 501u},
                             {"logs/qvald-link", 501u},
                             {"logs/other.log", 0u},
                             {"logs/sub/qvald-20261121.log", 0u},
                             {"secret", 0u}})
        EXPECT_EQ(lstatOf(at(name)).st_uid, uid) << name;
}

TEST_F(DeviceOperationsTest, FailedMovesLoseNothing) {
    const std::string source = "/var/root/Library/Preferences/com.ostrel.Quorvale.plist";
    const std::string destination = "/var/mobile/Library/Preferences/com.ostrel.Quorvale.plist";
    write(source, "prefs");
    ASSERT_EQ(::rename("/var/mobile/Library/Preferences", "/var/mobile/Library/Prefs.away"), 0);
    QVLLogCapture capture;
    EXPECT_FALSE(operations.migratePreferencesFile());
    ASSERT_EQ(::rename("/var/mobile/Library/Prefs.away", "/var/mobile/Library/Preferences"), 0);
    EXPECT_EQ(readText(source), "prefs");
    ::unlink(source.c_str());

    // The final place can't be cleared, so the move fails and staging stays whole.
    platform::removeTree("/var/backup");
    makeFolder("/var/backup");
    makeFolder(at("staging"));
    write(at("staging/new"), "content");
    EXPECT_FALSE(operations.moveStagingToFinal("/var/backup"));
    if (!pin("/var/backup/mnt")) GTEST_SKIP() << "can't mount a tmpfs here";
    EXPECT_FALSE(operations.moveStagingToFinal(at("staging")));
    ::umount("/var/backup/mnt");
    platform::removeTree("/var/backup");
    EXPECT_EQ(readText(at("staging/new")), "content");
    EXPECT_EQ(
        capture.lines(),
        (Lines{"Couldn't move " + source + " to " + destination, "Move the whole thing together.",
               "Staging path /var/backup looks wrong.", "Move the whole thing together.",
               "Could not move " + at("staging") + " to /var/backup with error - Directory not empty"}));
}

// A store that refuses one thing: the port, the node, or one property.
class RefusingStore final : public platform::NvramStore {
  public:
    explicit RefusingStore(std::string_view refused) : refused_(refused) {}
    bool masterPortAvailable() const override { return refused_ != "port"; }
    bool registryEntryExists(std::string_view) const override { return refused_ != "node"; }
    int setOptionsProperty(std::string_view name, std::span<const uint8_t>) override {
        return name == refused_ ? EIO : 0;
    }

  private:
    std::string refused_;
};

TEST(FirmwareOperationsTest, RefusalsAreLoggedWordForWord) {
    const struct {
        const char* refused;
        const char* line;
    } cases[] = {{"port", "Couldn't locate bootstrap_port mach port"},
                 {"node", "Couldn't locate options node in VXDeviceTree"},
                 {"name", "Couldn't write nvram"},
                 {"VXNVRAM-SYNCNOW-PROPERTY", "Couldn't force sync new nvram to device"}};
    for (const auto& c : cases) {
        RefusingStore store(c.refused);
        QVLHOperations operations({.nvram = &store});
        QVLLogCapture capture;
        EXPECT_FALSE(operations.writeNVRam("name", plist::Value("v")));
        EXPECT_EQ(capture.lines(), Lines{c.line}) << c.refused;
    }
    QVLLogCapture capture;
    // A value that is not a string never reaches the store.
    RefusingStore acceptingAll("nothing");
    EXPECT_FALSE(QVLHOperations({.nvram = &acceptingAll}).writeNVRam("name", plist::Value(7)));
    EXPECT_EQ(capture.lines(),
              Lines{"-[QVLHOperations writeNVRam:withValue:]: the value for name is not a string: 7"});
}

}  // namespace
}  // namespace qvl
