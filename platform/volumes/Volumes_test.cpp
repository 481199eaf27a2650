#include "platform/volumes/Volumes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <tuple>

#include "platform/deviceinfo/DeviceInfo.h"
#include "plist/PropertyList.h"

namespace qvl::platform {
namespace {

namespace fs = std::filesystem;

plist::Value volume(const std::string& type, const std::string& from, const std::string& on, int64_t size,
                    int64_t used) {
    plist::Dictionary d;
    d.set("FSTypeName", plist::Value(type));
    d.set("MountedFrom", plist::Value(from));
    d.set("MountedOn", plist::Value(on));
    d.set("UUID", plist::Value("39D3E071-9323-4497-AA43-5C2A9973EC58"));
    d.set("Size", plist::Value(size));
    d.set("Used", plist::Value(used));
    return plist::Value(std::move(d));
}

class VolumesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/volumes-test-XXXXXX";
        ASSERT_TRUE(mkdtemp(pattern));
        dir_ = pattern;
    }
    void TearDown() override { fs::remove_all(dir_); }
    std::string path() const { return dir_ + "/volumes.plist"; }
    void write(const plist::Array& table, plist::Format format = plist::Format::XML) {
        ASSERT_TRUE(plist::writeFileAtomically(path(), plist::Value(table), format));
    }

    std::string dir_;
};

// Nine volumes: a getfsstat with room for eight sees the first eight, and so
// do the registry and the resize; the ninth is never found.
TEST_F(VolumesTest, OnlyTheFirstEightVolumesAreSeen) {
    plist::Array table;
    for (int i = 1; i <= 9; i++)
        table.push_back(
            volume("hfs", "/dev/disk0s1s" + std::to_string(i), "/v" + std::to_string(i), 100, 10));
    write(table);
    Volumes volumes(path());
    ASSERT_EQ(volumes.mounted()->size(), 8u);
    EXPECT_EQ(volumes.mounted()->back().mountedOn, "/v8");
    ASSERT_TRUE(volumes.deviceWithBSDName("disk0s1s8"));
    EXPECT_EQ(*volumes.deviceWithBSDName("disk0s1s8")->uuid->asString(),
              "39D3E071-9323-4497-AA43-5C2A9973EC58");
    EXPECT_FALSE(volumes.deviceWithBSDName("disk0s1s9"));
    EXPECT_EQ(volumes.hfsResize("/v9", 50), -1);
    EXPECT_EQ(errno, EINVAL);

    DeviceInfo::Paths paths;
    paths.infoFile = dir_ + "/none.plist";
    paths.volumesFile = path();
    paths.dataMountPoint = "/v8";
    auto usage = DeviceInfo(paths).copyAnswer("DiskUsage");
    ASSERT_TRUE(usage);
    EXPECT_EQ(usage->asDictionary()->getInteger("TotalDataAvailable")->asSigned(), 90);
}

TEST_F(VolumesTest, ResizeSetsTheSizeOfAnHFSVolumeOnly) {
    write({volume("hfs", "/dev/disk0s1s2", "/private/var", 1000, 400), volume("apfs", "x", "/other", 10, 0)},
          plist::Format::Binary);
    Volumes volumes(path());
    for (auto [mountPoint, size, error] : {std::tuple{"/private/var", 399, ENOSPC}, {"/other", 20, EINVAL}}) {
        EXPECT_EQ(volumes.hfsResize(mountPoint, size), -1);
        EXPECT_EQ(errno, error) << mountPoint;
    }
    EXPECT_EQ(volumes.mounted()->front().size, 1000);
    ASSERT_EQ(volumes.hfsResize("/private/var", 400), 0);
    plist::Format format = plist::Format::XML;
    EXPECT_TRUE(plist::readFile(path(), nullptr, &format));
    EXPECT_EQ(format, plist::Format::Binary);
    EXPECT_EQ(volumes.mounted()->front().size, 400);

    fs::remove(path());
    EXPECT_TRUE(volumes.mounted()->empty());
    std::ofstream(path()) << "not a table";
    EXPECT_FALSE(volumes.mounted());
}

}  // namespace
}  // namespace qvl::platform
