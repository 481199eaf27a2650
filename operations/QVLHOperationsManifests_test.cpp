// The device manifest and restore operations on the device's fixed paths: run
// inside the device sandbox only. The commands end to end, with their tables
// of cases, are in tests/e2e/manifest_e2e_test.cpp; here are the failures a
// running helper can't be made to meet.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "base/QVLLogCapture.h"
#include "manifest/QVLSignedManifestTestSupport.h"
#include "operations/QVLHOperations.h"
#include "platform/fs/FileTree.h"
#include "plist/PropertyList.h"
#include "tests/support/FaultyFileSystem.h"
#include "tests/support/TestSupport.h"

namespace qvl {
namespace {

constexpr const char* kWork = "/private/var/QVLWorkContainer";
const std::string kSigned = std::string(kWork) + "/Manifest.plist.signed";
const std::string kDevice = std::string(kWork) + "/DeviceManifest.plist";
const std::string kWriteFailure =
    "-[QVLHOperations createDeviceManifest:forBackup:range:]: Cannot write the "
    "device manifest - " +
    kDevice + ": cannot write: ";

class ManifestOperationsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!testing::inDeviceSandbox())
            GTEST_SKIP() << "needs the device sandbox (runs under tools/qvl-sandbox)";
        platform::removeTree(kWork);
        ASSERT_EQ(::mkdir(kWork, 0777), 0);
    }
    void place(const plist::Dictionary& manifest) {
        testing::writeText(kSigned, plist::writeBinary(plist::Value(manifest)));
    }
    testing::FaultyFileSystem files;
    QVLHOperations operations{{&files, nullptr, nullptr, std::nullopt, [this] { ++transactions; }}};
    int transactions = 0;
};

TEST_F(ManifestOperationsTest, AFailedWriteLeavesTheEarlierFileAndAnswersFalse) {
    place(testing::segmented("manual-signer"));
    testing::TempTree tree;
    tree.file("a");
    ASSERT_TRUE(operations.createDeviceManifest(tree.root(), false, {}));
    const std::string earlier = testing::readText(kDevice);

    QVLLogCapture capture;
    files.writeError = ENOSPC;  // the volume is full
    EXPECT_FALSE(operations.createDeviceManifest(tree.root(), false, {}));
    EXPECT_EQ(capture.lines().back(), kWriteFailure + "No space left on device");
    EXPECT_EQ(testing::readText(kDevice), earlier);

    // The work folder gone: the manifest stays loaded, nothing is made.
    files.writeError = 0;
    platform::removeTree(kWork);
    EXPECT_FALSE(operations.createDeviceManifest(tree.root(), false, {}));
    EXPECT_EQ(capture.lines().back(), kWriteFailure + "No such file or directory");
    EXPECT_NE(::access(kWork, F_OK), 0);
    EXPECT_EQ(transactions, 1);
}

TEST_F(ManifestOperationsTest, ABackupWithoutAnySelectionRecordsNothing) {
    // Version 3 without a "Backup" section: the range is not used, and no
    // limiting list means no records, never the whole of /private/var.
    plist::Dictionary manifest = testing::segmented("manual-signer");
    manifest.set("Version", plist::Value(3));
    manifest.erase("Backup");
    manifest.erase("InstallationOrder");
    place(manifest);
    EXPECT_TRUE(operations.createDeviceManifest("/", true, {-7, 99}));
    const auto written = plist::read(testing::readText(kDevice));
    ASSERT_TRUE(written && written->asDictionary());
    EXPECT_TRUE(written->asDictionary()->empty());
    EXPECT_TRUE(operations.restoreBackupAttributesUnder("/nowhere", {99, -1}));
}

}  // namespace
}  // namespace qvl
