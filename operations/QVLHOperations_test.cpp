// The operations work on the device's fixed paths, so the tests that touch
// them run only inside the device sandbox (ctest starts them there); run
// directly on a host they skip. Firmware variables, restart and exit go
// through swappable layers and run anywhere.
#include "operations/QVLHOperations.h"

#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "operations/FileTree.h"
#include "platform/nvram/NvramStore.h"
#include "platform/reboot/SystemRestart.h"
#include "qvald_helper/QVLLogCapture.h"

namespace qvl {
namespace {

constexpr uid_t kMobile = 501;

bool inDeviceSandbox() {
    const auto ns = platform::currentPidNamespaceInode();
    char target[64] = {};
    return ns && *ns != platform::kInitialPidNamespaceInode && ::access("/opt/qvl/src", F_OK) == 0 &&
           ::readlink("/var", target, sizeof target - 1) > 0 && std::string(target) == "private/var";
}

void write(const std::string& path, const std::string& text = "x") {
    std::ofstream(path) << text;
}
std::string read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}
bool exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}
struct stat lstatOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
    return st;
}
void makeFolder(const std::string& path, mode_t mode = 0755) {
    ASSERT_EQ(::mkdir(path.c_str(), mode), 0) << path;
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
}

class DeviceOperationsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!inDeviceSandbox()) GTEST_SKIP() << "needs the device sandbox (runs under tools/qvl-sandbox)";
        ops::removeTree(kWork);
        makeFolder(kWork);
    }
    void TearDown() override {
        if (inDeviceSandbox()) ops::removeTree(kWork);
    }
    QVLHOperations& operations = QVLHOperations::sharedInstance();
    static constexpr const char* kWork = "/private/var/tmp/ops";
    std::string at(const std::string& name) const { return std::string(kWork) + "/" + name; }
};

TEST_F(DeviceOperationsTest, MigratePreferencesFile) {
    const std::string source = "/var/root/Library/Preferences/com.ostrel.Quorvale.plist";
    const std::string destination = "/var/mobile/Library/Preferences/com.ostrel.Quorvale.plist";
    ::unlink(destination.c_str());
    EXPECT_FALSE(operations.migratePreferencesFile());  // nothing to move

    write(source, "prefs");
    write(destination, "newer");
    EXPECT_FALSE(operations.migratePreferencesFile());
    EXPECT_EQ(read(source), "prefs");
    EXPECT_EQ(read(destination), "newer");
    ::unlink(destination.c_str());

    // The move fails when the destination folder is gone: the source stays.
    ASSERT_EQ(::rename("/var/mobile/Library/Preferences", "/var/mobile/Library/Prefs.away"), 0);
    {
        QVLLogCapture capture;
        EXPECT_FALSE(operations.migratePreferencesFile());
        EXPECT_TRUE(capture.contains("Couldn't move " + source + " to " + destination));
    }
    ASSERT_EQ(::rename("/var/mobile/Library/Prefs.away", "/var/mobile/Library/Preferences"), 0);
    EXPECT_EQ(read(source), "prefs");

    EXPECT_TRUE(operations.migratePreferencesFile());
    EXPECT_FALSE(exists(source));
    EXPECT_EQ(read(destination), "prefs");
    EXPECT_EQ(lstatOf(destination).st_uid, kMobile);
    EXPECT_EQ(lstatOf(destination).st_gid, kMobile);
    EXPECT_FALSE(operations.migratePreferencesFile());  // the source is gone now
    ::unlink(destination.c_str());
}

TEST_F(DeviceOperationsTest, PrepareDirectoryOpensUpAndClearsStaging) {
    EXPECT_TRUE(operations.prepareDirectory(at("new/deeper"), true));
    EXPECT_EQ(lstatOf(at("new")).st_mode & 07777, 0755u);
    EXPECT_EQ(lstatOf(at("new/deeper")).st_mode & 07777, 0777u);
    EXPECT_EQ(lstatOf(at("new/deeper")).st_uid, 0u);

    for (mode_t mode : {0700, 0755, 01700}) {
        ::rmdir(at("m").c_str());
        makeFolder(at("m"), mode);
        EXPECT_TRUE(operations.prepareDirectory(at("m"), true));
        EXPECT_EQ(lstatOf(at("m")).st_mode & 07777, mode | 0077) << std::oct << mode;
    }

    makeFolder(at("c"));
    makeFolder(at("c/QVL_staging"));
    makeFolder(at("c/QVL_staging/sub"));
    write(at("c/QVL_staging/sub/f"));
    write(at("c/keep"));
    EXPECT_TRUE(operations.prepareDirectory(at("c"), true));
    EXPECT_FALSE(exists(at("c/QVL_staging")));
    EXPECT_TRUE(exists(at("c/keep")));

    write(at("file"));
    ::chmod(at("file").c_str(), 0600);
    EXPECT_TRUE(operations.prepareDirectory(at("file"), true));
    EXPECT_EQ(lstatOf(at("file")).st_mode & 07777, 0677u);
}

TEST_F(DeviceOperationsTest, PrepareDirectoryFailures) {
    // A link at the path is not followed: its target keeps its mode.
    makeFolder(at("target"), 0700);
    ASSERT_EQ(::symlink(at("target").c_str(), at("link").c_str()), 0);
    {
        QVLLogCapture capture;
        EXPECT_FALSE(operations.prepareDirectory(at("link"), true));
        EXPECT_TRUE(capture.contains(
            "-[QVLHOperations prepareDirectory:writableByMobile:]: Cannot set attribute for " + at("link") +
            " - Operation not supported"));
    }
    EXPECT_EQ(lstatOf(at("target")).st_mode & 07777, 0700u);

    // A staging folder that can't be removed: it holds another file system.
    makeFolder(at("c"));
    makeFolder(at("c/QVL_staging"));
    makeFolder(at("c/QVL_staging/mnt"));
    if (::mount("tmpfs", at("c/QVL_staging/mnt").c_str(), "tmpfs", 0, nullptr) != 0) {
        GTEST_SKIP() << "can't mount a tmpfs here";
    }
    QVLLogCapture capture;
    EXPECT_FALSE(operations.prepareDirectory(at("c"), true));
    ::umount(at("c/QVL_staging/mnt").c_str());
    EXPECT_TRUE(
        capture.contains("-[QVLHOperations prepareDirectory:writableByMobile:]: Could not remove the path " +
                         at("c/QVL_staging") + " with error - Invalid cross-device link(0x12)"));
}

TEST_F(DeviceOperationsTest, PrepareLogContainerHandsOverOnlyLogFiles) {
    makeFolder(at("logs"), 0755);
    makeFolder(at("logs/sub"));
    write(at("logs/qvald-20261122.log"));
    write(at("logs/other.log"));
    write(at("logs/sub/qvald-20261121.log"));
    write(at("secret"));
    ASSERT_EQ(::symlink(at("secret").c_str(), at("logs/qvald-link").c_str()), 0);

    EXPECT_TRUE(operations.prepareLogContainer(at("logs")));
    EXPECT_EQ(lstatOf(at("logs")).st_mode & 07777, 0777u);
    EXPECT_EQ(lstatOf(at("logs/qvald-20261122.log")).st_uid, kMobile);
    EXPECT_EQ(lstatOf(at("logs/qvald-20261122.log")).st_gid, kMobile);
    EXPECT_EQ(lstatOf(at("logs/other.log")).st_uid, 0u);
    EXPECT_EQ(lstatOf(at("logs/sub/qvald-20261121.log")).st_uid, 0u);
    EXPECT_EQ(lstatOf(at("secret")).st_uid, 0u);  // the link was handed over, not its target
}

TEST_F(DeviceOperationsTest, RemoveDirectoryAndHardLinks) {
    EXPECT_TRUE(operations.removeDirectory(at("absent")));
    makeFolder(at("tree"));
    write(at("tree/f"), "one");
    EXPECT_TRUE(operations.createHardLinks(at("tree"), at("linked")));
    EXPECT_EQ(lstatOf(at("linked/f")).st_ino, lstatOf(at("tree/f")).st_ino);
    {
        QVLLogCapture capture;
        EXPECT_FALSE(operations.createHardLinks(at("tree/f"), at("linked/f")));
        EXPECT_FALSE(operations.createHardLinks(at("tree/f"), at("none/f")));
        EXPECT_EQ(capture.lines(),
                  (std::vector<std::string>{"Could not link " + at("tree/f") + " to " + at("linked/f") +
                                                " with error -File exists.",
                                            "Could not link " + at("tree/f") + " to " + at("none/f") +
                                                " with error -No such file or directory."}));
    }
    EXPECT_TRUE(operations.removeDirectory(at("linked")));
    EXPECT_FALSE(exists(at("linked")));
    EXPECT_EQ(read(at("tree/f")), "one");
}

TEST_F(DeviceOperationsTest, MoveStagingToFinal) {
    ops::removeTree("/var/backup");
    makeFolder("/var/backup");
    write("/var/backup/old");
    write(at("file"));
    makeFolder(at("staging"));
    write(at("staging/new"), "content");
    {
        QVLLogCapture capture;
        EXPECT_FALSE(operations.moveStagingToFinal(at("file")));
        EXPECT_FALSE(operations.moveStagingToFinal("/var/backup"));
        EXPECT_EQ(capture.lines(),
                  (std::vector<std::string>{
                      "Move the whole thing together.", "Staging path " + at("file") + " looks wrong.",
                      "Move the whole thing together.", "Staging path /var/backup looks wrong."}));
        EXPECT_TRUE(exists("/var/backup/old"));
    }

    // When the final place can't be cleared the move fails and the staging
    // folder stays whole.
    makeFolder("/var/backup/mnt");
    if (::mount("tmpfs", "/var/backup/mnt", "tmpfs", 0, nullptr) == 0) {
        QVLLogCapture capture;
        EXPECT_FALSE(operations.moveStagingToFinal(at("staging")));
        ::umount("/var/backup/mnt");
        EXPECT_TRUE(capture.contains("Could not move " + at("staging") +
                                     " to /var/backup with error - Directory not empty"));
        EXPECT_EQ(read(at("staging/new")), "content");
    }

    EXPECT_TRUE(operations.moveStagingToFinal(at("staging")));
    EXPECT_FALSE(exists(at("staging")));
    EXPECT_EQ(read("/var/backup/new"), "content");
    EXPECT_FALSE(exists("/var/backup/old"));
    EXPECT_FALSE(exists("/var/backup/mnt"));
    ops::removeTree("/var/backup");
}

// ---- Firmware variables, restart and exit: through the platform layers.

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

class FirmwareOperationsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/qvl-ops-nvram-XXXXXX";
        ASSERT_NE(::mkdtemp(tmpl), nullptr);
        folder_ = tmpl;
        operations.setNvramStoreForTesting(std::make_shared<platform::FileNvramStore>(folder_));
    }
    void TearDown() override {
        operations.setNvramStoreForTesting(nullptr);
        ops::removeTree(folder_);
    }
    QVLHOperations& operations = QVLHOperations::sharedInstance();
    std::string folder_;
};

TEST_F(FirmwareOperationsTest, WriteAndDelete) {
    EXPECT_TRUE(operations.writeNVRam("boot-args", plist::Value("demo=1")));
    EXPECT_EQ(read(folder_ + "/boot-args"), "demo=1");
    EXPECT_TRUE(operations.writeNVRam("empty", plist::Value("")));
    EXPECT_TRUE(exists(folder_ + "/empty"));
    EXPECT_EQ(read(folder_ + "/empty"), "");
    EXPECT_TRUE(operations.deleteNvram("boot-args"));
    EXPECT_FALSE(exists(folder_ + "/boot-args"));

    QVLLogCapture capture;
    EXPECT_FALSE(operations.writeNVRam("n", plist::Value(7)));
    EXPECT_FALSE(operations.writeNVRam("n", plist::Value(plist::Dictionary())));
    EXPECT_FALSE(exists(folder_ + "/n"));
    EXPECT_FALSE(operations.deleteNvram("boot-args"));  // the store refuses a missing variable
    EXPECT_FALSE(operations.writeNVRam("a/b", plist::Value("v")));
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0].rfind("-[QVLHOperations writeNVRam:withValue:]: the value for n is not a string", 0),
              0u);
    EXPECT_EQ(lines[2], "Couldn't force sync new nvram to device");
    EXPECT_EQ(lines[3], "Couldn't write nvram");
}

TEST_F(FirmwareOperationsTest, StoreRefusalsAreLoggedWordForWord) {
    const struct {
        const char* refused;
        const char* line;
    } cases[] = {{"port", "Couldn't locate bootstrap_port mach port"},
                 {"node", "Couldn't locate options node in VXDeviceTree"},
                 {"VXNVRAM-SYNCNOW-PROPERTY", "Couldn't force sync new nvram to device"},
                 {"name", "Couldn't write nvram"}};
    for (const auto& c : cases) {
        operations.setNvramStoreForTesting(std::make_shared<RefusingStore>(c.refused));
        QVLLogCapture capture;
        EXPECT_FALSE(operations.writeNVRam("name", plist::Value("v")));
        EXPECT_EQ(capture.lines(), std::vector<std::string>{c.line}) << c.refused;
    }
    operations.setNvramStoreForTesting(std::make_shared<RefusingStore>("VXNVRAM-DELETE-PROPERTY"));
    QVLLogCapture capture;
    EXPECT_FALSE(operations.deleteNvram("name"));
    EXPECT_EQ(capture.lines(), std::vector<std::string>{"Couldn't force sync new nvram to device"});
}

TEST(RestartAndExitTest, RebootAnswersFalseWhenItReturns) {
    struct CountingRestart final : platform::SystemRestart {
        int calls = 0;
        void restart() override { ++calls; }
    };
    auto restart = std::make_shared<CountingRestart>();
    QVLHOperations::sharedInstance().setSystemRestartForTesting(restart);
    EXPECT_FALSE(QVLHOperations::sharedInstance().reboot());
    QVLHOperations::sharedInstance().setSystemRestartForTesting(nullptr);
    EXPECT_EQ(restart->calls, 1);
}

TEST(RestartAndExitTest, QuitHelperExitsWithZero) {
    EXPECT_EXIT(QVLHOperations::sharedInstance().quitHelper(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace qvl
