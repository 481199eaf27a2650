#include "platform/deviceinfo/DeviceInfo.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace qvl::platform {
namespace {

namespace fs = std::filesystem;

std::string plistXML(const std::string& body) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n" + body + "\n</plist>\n";
}

class DeviceInfoTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/deviceinfo-test-XXXXXX";
        ASSERT_TRUE(mkdtemp(pattern));
        dir_ = pattern;
        paths_.infoFile = dir_ + "/deviceinfo.plist";
        paths_.volumesFile = dir_ + "/volumes.plist";
        paths_.dataMountPoint = "/private/var";
    }
    void TearDown() override { fs::remove_all(dir_); }

    void write(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

    int64_t usage(const plist::Value& answer, const char* key) {
        const auto* d = answer.asDictionary();
        EXPECT_TRUE(d);
        const auto* n = d ? d->getInteger(key) : nullptr;
        EXPECT_TRUE(n);
        return n ? n->asSigned() : -1;
    }

    std::string dir_;
    DeviceInfo::Paths paths_;
};

// Answers are read anew each time; a missing file or key, or a value of
// another kind, is no answer.
TEST_F(DeviceInfoTest, AnswersComeFromTheFileEachTime) {
    DeviceInfo info(paths_);
    EXPECT_FALSE(info.signingFuse() || info.productName());
    write(paths_.infoFile, plistXML("<dict><key>SigningFuse</key><false/>"
                                    "<key>ProductName</key><string>Kelto OS</string></dict>"));
    EXPECT_EQ(info.signingFuse(), false);
    EXPECT_EQ(info.productName(), "Kelto OS");
    write(paths_.infoFile, plistXML("<dict><key>SigningFuse</key><true/></dict>"));
    EXPECT_EQ(info.signingFuse(), true);
    write(paths_.infoFile, plistXML("<dict><key>SigningFuse</key><string>no</string></dict>"));
    EXPECT_FALSE(info.signingFuse() || info.productName());
    write(paths_.infoFile, "not a property list");
    EXPECT_FALSE(info.signingFuse());
}

TEST_F(DeviceInfoTest, DiskUsageComesFromFileThenVolumesThenFileSystem) {
    DeviceInfo info(paths_);
    write(paths_.volumesFile,
          plistXML("<array><dict><key>MountedOn</key><string>/</string>"
                   "<key>Size</key><integer>1</integer><key>Used</key><integer>1</integer></dict>"
                   "<dict><key>MountedOn</key><string>/private/var</string>"
                   "<key>Size</key><integer>4096000</integer><key>Used</key><integer>1000</integer></dict>"
                   "</array>"));
    auto fromVolumes = info.copyAnswer("DiskUsage");
    ASSERT_TRUE(fromVolumes);
    EXPECT_EQ(usage(*fromVolumes, "TotalDataCapacity"), 4096000);
    EXPECT_EQ(usage(*fromVolumes, "TotalDataAvailable"), 4095000);

    write(paths_.infoFile, plistXML("<dict><key>DiskUsage</key><dict><key>TotalDataCapacity</key>"
                                    "<integer>100</integer><key>TotalDataAvailable</key><integer>7</integer>"
                                    "</dict></dict>"));
    auto fromFile = info.copyAnswer("DiskUsage");
    ASSERT_TRUE(fromFile);
    EXPECT_EQ(usage(*fromFile, "TotalDataCapacity"), 100);
    EXPECT_EQ(usage(*fromFile, "TotalDataAvailable"), 7);

    fs::remove(paths_.infoFile);
    fs::remove(paths_.volumesFile);
    paths_.dataMountPoint = dir_;
    auto fromFileSystem = DeviceInfo(paths_).copyAnswer("DiskUsage");
    ASSERT_TRUE(fromFileSystem);
    EXPECT_GT(usage(*fromFileSystem, "TotalDataCapacity"), 0);
}

}  // namespace
}  // namespace qvl::platform
