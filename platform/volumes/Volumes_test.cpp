// The simulated volumes beyond what the resize end-to-end test shows (the
// first 8 volumes seen, the registry by BSD name, ENOSPC below "Used"): the
// resize of a volume that is not HFS or not mounted, the table kept in its
// encoding, and a missing or unreadable table.
#include "platform/volumes/Volumes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "platform/fs/LinuxFileSystem.h"
#include "platform/fs/PropertyListFile.h"

namespace qvl::platform {
namespace {

TEST(Volumes, ResizeTableAndItsAbsence) {
    char pattern[] = "/tmp/volumes-test-XXXXXX";
    ASSERT_TRUE(mkdtemp(pattern));
    const std::string dir = pattern, path = dir + "/volumes.plist";
    plist::Array table;
    for (const char* type : {"hfs", "apfs"}) {
        plist::Dictionary d;
        d.set("FSTypeName", plist::Value(type));
        d.set("MountedOn", plist::Value(std::string("/") + type));
        d.set("Size", plist::Value(1000));
        d.set("Used", plist::Value(400));
        table.push_back(plist::Value(std::move(d)));
    }
    ASSERT_TRUE(writePropertyListFile(LinuxFileSystem::sharedInstance(), path, plist::Value(table),
                                      plist::Format::Binary));
    Volumes volumes(path);
    for (const char* mountPoint : {"/apfs", "/nowhere"}) {
        EXPECT_EQ(volumes.hfsResize(mountPoint, 500), -1);
        EXPECT_EQ(errno, EINVAL) << mountPoint;
    }
    ASSERT_EQ(volumes.hfsResize("/hfs", 400), 0);
    plist::Format format = plist::Format::XML;
    EXPECT_TRUE(readPropertyListFile(LinuxFileSystem::sharedInstance(), path, nullptr, &format));
    EXPECT_EQ(format, plist::Format::Binary);
    EXPECT_EQ(volumes.mounted()->front().size, 400);
    EXPECT_EQ(volumes.mounted()->back().size, 1000);

    std::filesystem::remove(path);
    EXPECT_TRUE(volumes.mounted()->empty());
    std::ofstream(path) << "not a table";
    EXPECT_FALSE(volumes.mounted());
    EXPECT_EQ(volumes.hfsResize("/hfs", 400), -1);
    EXPECT_EQ(errno, EIO);
    std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace qvl::platform
