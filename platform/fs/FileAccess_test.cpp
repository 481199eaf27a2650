// The calls of the file-system layer meant for folders that another user can
// write, tested through the interface as the layers above use them (the
// opening of a file itself is base/FolderAccess's, the bounded read of one
// base/DescriptorIO's).
#include "platform/fs/FileAccess.h"

#include <gtest/gtest.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "platform/fs/LinuxFileSystem.h"
#include "tests/support/TestSupport.h"

namespace qvl::platform {
namespace {

using testing::readText;
using testing::TempTree;

LinuxFileSystem& files() {
    return LinuxFileSystem::sharedInstance();
}

// The error of a call that answers a descriptor; 0 when it opened one.
int errorOf(const UniqueFd& fd) {
    return fd.valid() ? 0 : errno;
}

size_t entriesIn(const std::string& folder) {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

TEST(FileAccess, WriteFileAtomicallyReplacesWholeAndNeverFollowsTheName) {
    TempTree t;
    const auto write = [&](const std::string& name, const std::string& text, std::optional<uint32_t> mode) {
        return files().writeFileAtomically(
                   t.path(name), {reinterpret_cast<const uint8_t*>(text.data()), text.size()}, mode) == 0
                   ? 0
                   : errno;
    };
    EXPECT_EQ(write("new", "one", std::nullopt), 0);
    EXPECT_EQ(t.stat("new").st_mode & 07777, 0644u);
    ASSERT_EQ(::chmod(t.path("new").c_str(), 0600), 0);
    EXPECT_EQ(write("new", "two", std::nullopt), 0);  // a replaced file keeps its mode
    EXPECT_EQ(t.stat("new").st_mode & 07777, 0600u);
    EXPECT_EQ(write("new", "three", 0640), 0);
    EXPECT_EQ(t.stat("new").st_mode & 07777, 0640u);
    EXPECT_EQ(readText(t.path("new")), "three");

    // A link or a fifo planted at the name is replaced, its target untouched.
    t.file("target", "secret", 0600);
    t.symlink("link", t.path("target"));
    t.fifo("fifo");
    EXPECT_EQ(write("link", "mine", std::nullopt), 0);
    EXPECT_EQ(write("fifo", "mine", std::nullopt), 0);
    EXPECT_EQ(readText(t.path("target")), "secret");
    EXPECT_EQ(t.stat("link").st_mode & 07777, 0644u);
    EXPECT_TRUE(S_ISREG(t.stat("fifo").st_mode));

    // Failures leave no temporary file and the old content in place.
    t.folder("sub");
    const size_t before = entriesIn(t.root());
    EXPECT_EQ(write("sub", "x", std::nullopt), EISDIR);
    EXPECT_EQ(write("none/x", "x", std::nullopt), ENOENT);
    EXPECT_EQ(entriesIn(t.root()), before);
    EXPECT_EQ(readText(t.path("new")), "three");
}

// Both walks below a base folder go one name at a time, refuse ".." and
// follow no link on the way; the item walk stops short of the last name.
TEST(FileAccess, WalksBeneathABaseStayBelowIt) {
    TempTree t;
    t.file("base/a/b/file", "x");
    t.folder("outside");
    t.symlink("base/escape", t.path("outside"));
    t.symlink("base/a/up", t.root());
    const UniqueFd base = files().openFolder(t.path("base"));
    ASSERT_TRUE(base.valid());
    const struct {
        const char* relative;
        int folderError, itemError;
        const char*
            reached;  // by the item walk, relative to the tree: the item itself, never a link's target
    } cases[] = {
        {"a/b", 0, 0, "base/a/b"},
        {"//a/./b//file", ENOTDIR, 0, "base/a/b/file"},
        {"", 0, 0, "base"},
        {"escape", ELOOP, 0, "base/escape"},
        {"escape/x", ELOOP, ELOOP, nullptr},
        {"a/up/base/a/b/file", ELOOP, ELOOP, nullptr},
        {"a/../a", EXDEV, EXDEV, nullptr},
        {"missing/x", ENOENT, ENOENT, nullptr},
        {"a/b/file/x", ENOTDIR, ENOTDIR, nullptr},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(errorOf(files().openFolderBeneath(t.path("base"), c.relative, false, 0755)), c.folderError)
            << c.relative;
        ItemBeneath item;
        errno = 0;
        EXPECT_EQ(files().openItemBeneath(base.get(), c.relative, &item) == 0 ? 0 : errno, c.itemError)
            << c.relative;
        ItemStat st;
        if (c.reached)
            EXPECT_EQ(files().statItem(item.path, &st) == 0 ? st.inode : 0, t.stat(c.reached).st_ino);
    }
    // Creating the missing folders on the way.
    for (const auto& [relative, error] :
         {std::pair{"a/new/deeper", 0}, {"..", EXDEV}, {"escape/x", ELOOP}, {"a/b/file/x", ENOTDIR}})
        EXPECT_EQ(errorOf(files().openFolderBeneath(t.path("base"), relative, true, 0755)), error)
            << relative;
    EXPECT_TRUE(S_ISDIR(t.stat("base/a/new/deeper").st_mode));
    EXPECT_FALSE(t.exists("outside/x"));
    EXPECT_EQ(errorOf(files().openFolder(t.path("base/escape"))), ELOOP);

    // The item's folder is held: moving it away and planting a link in its
    // place does not redirect a path already given out.
    ItemBeneath item;
    ASSERT_EQ(files().openItemBeneath(base.get(), "a/b/file", &item), 0);
    std::filesystem::rename(t.path("base/a/b"), t.path("moved"));
    t.symlink("base/a/b", t.path("elsewhere"));
    t.file("elsewhere/file", "y");
    ASSERT_EQ(files().changeMode(item.path, 0600), 0);
    EXPECT_EQ(t.stat("moved/file").st_mode & 07777, 0600u);
    EXPECT_EQ(t.stat("elsewhere/file").st_mode & 07777, 0644u);
}

// Other tools on the device read the class from this attribute by name.
TEST(FileAccess, ProtectionClassIsATrustedAttribute) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to write trusted. attributes";
    TempTree t;
    ASSERT_EQ(files().setProtectionClass(t.file("f"), "NSFileProtectionComplete"), 0);
    char value[64] = {};
    ::lgetxattr(t.path("f").c_str(), "trusted.ostrel.protection-class", value, sizeof value - 1);
    EXPECT_EQ(std::string(value), "NSFileProtectionComplete");
}

}  // namespace
}  // namespace qvl::platform
