// The simulated volumes beyond what the resize end-to-end test shows (the
// first 8 volumes seen, the registry by BSD name, ENOSPC below "Used"): the
// resize of a volume that is not HFS or not mounted, the table kept in its
// encoding, and a missing or unreadable table.
#include "platform/volumes/Volumes.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "plist/PropertyList.h"
#include "tests/support/TestSupport.h"

namespace qvl::platform {
namespace {

TEST(Volumes, ResizeTableAndItsAbsence) {
    testing::TempTree tree;
    plist::Array table;
    for (const char* type : {"hfs", "apfs"})
        table.push_back(testing::dict(
            {{"FSTypeName", type}, {"MountedOn", std::string("/") + type}, {"Size", 1000}, {"Used", 400}}));
    const std::string path = tree.file("volumes.plist", plist::writeBinary(table));
    Volumes volumes(path);
    for (const char* mountPoint : {"/apfs", "/nowhere"}) {
        EXPECT_EQ(volumes.hfsResize(mountPoint, 500), -1);
        EXPECT_EQ(errno, EINVAL) << mountPoint;
    }
    ASSERT_EQ(volumes.hfsResize("/hfs", 400), 0);
    EXPECT_EQ(testing::readText(path).substr(0, 8), "bplist00");
    EXPECT_EQ(volumes.mounted()->front().size, 400);
    EXPECT_EQ(volumes.mounted()->back().size, 1000);

    std::remove(path.c_str());
    EXPECT_TRUE(volumes.mounted()->empty());
    tree.file("volumes.plist", "not a table");
    EXPECT_FALSE(volumes.mounted());
    EXPECT_EQ(volumes.hfsResize("/hfs", 400), -1);
    EXPECT_EQ(errno, EIO);
}

}  // namespace
}  // namespace qvl::platform
