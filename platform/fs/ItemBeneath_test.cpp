// Reaching items below a folder without leaving it: what is refused on the
// way, and that a path given out stays on its item when the tree changes.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "platform/fs/LinuxFileSystem.h"
#include "tests/support/TestSupport.h"

namespace qvl::platform {
namespace {

using testing::lstatOf;
using testing::TempTree;

TEST(ItemBeneath, ReachesItemsBelowTheBaseOnlyWithoutFollowingLinks) {
    LinuxFileSystem& files = LinuxFileSystem::sharedInstance();
    TempTree t;
    t.file("base/a/b/file", "x");
    t.symlink("base/a/up", t.root());
    t.symlink("base/a/flink", "b/file");
    const UniqueFd base = files.openFolder(t.path("base"));
    ASSERT_TRUE(base.valid());
    const struct {
        const char* relative;
        int error;
        const char* reached;  // relative to the tree; the item itself, never a link's target
    } cases[] = {
        {"a/b/file", 0, "base/a/b/file"},
        {"//a/./b//file", 0, "base/a/b/file"},
        {"a/flink", 0, "base/a/flink"},
        {"/", 0, "base"},
        {"", 0, "base"},
        {"a/up/base/a/b/file", ELOOP, nullptr},
        {"a/../a/b", EXDEV, nullptr},
        {"missing/x", ENOENT, nullptr},
        {"a/b/file/x", ENOTDIR, nullptr},
    };
    for (const auto& c : cases) {
        ItemBeneath item;
        errno = 0;
        EXPECT_EQ(files.openItemBeneath(base.get(), c.relative, &item) == 0 ? 0 : errno, c.error)
            << c.relative;
        if (!c.reached) continue;
        ItemStat st;
        ASSERT_EQ(files.statItem(item.path, &st), 0) << c.relative;
        EXPECT_EQ(st.inode, lstatOf(t.path(c.reached)).st_ino) << c.relative;
    }

    // The folder is held: moving it away and planting a link in its place
    // does not redirect a path already given out.
    ItemBeneath item;
    ASSERT_EQ(files.openItemBeneath(base.get(), "a/b/file", &item), 0);
    std::filesystem::rename(t.path("base/a/b"), t.path("moved"));
    t.symlink("base/a/b", t.path("elsewhere"));
    t.file("elsewhere/file", "y");
    ASSERT_EQ(files.changeMode(item.path, 0600), 0);
    EXPECT_EQ(lstatOf(t.path("moved/file")).st_mode & 07777, 0600u);
    EXPECT_EQ(lstatOf(t.path("elsewhere/file")).st_mode & 07777, 0644u);
}

}  // namespace
}  // namespace qvl::platform
