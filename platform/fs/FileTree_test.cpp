#include "platform/fs/FileTree.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "tests/support/TestSupport.h"

namespace qvl::platform {
namespace {

using testing::TempTree;

// linkTreeAt between two paths of a tree, through their folders.
int linkTree(const TempTree& t, const std::string& from, const std::string& to) {
    const auto folderOf = [&](const std::string& relative) {
        const size_t slash = relative.rfind('/');
        return UniqueFd(
            ::open(slash == std::string::npos ? t.root().c_str() : t.path(relative.substr(0, slash)).c_str(),
                   O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    };
    const auto nameOf = [](const std::string& relative) { return relative.substr(relative.rfind('/') + 1); };
    const UniqueFd fromFolder = folderOf(from), toFolder = folderOf(to);
    if (!fromFolder.valid() || !toFolder.valid()) return errno;
    return linkTreeAt(fromFolder.get(), nameOf(from), toFolder.get(), nameOf(to));
}

TEST(FileTree, LinksFolderTreeWithoutFollowingLinks) {
    TempTree t;
    t.folder("src", 0750);
    t.folder("src/sub", 0700);
    t.file("src/a", "a");
    t.file("outdir/c", "c");
    t.symlink("src/to-file", t.path("outdir/c"));
    t.symlink("src/sub/to-dir", t.path("outdir"));
    t.fifo("src/pipe");
    ASSERT_EQ(linkTree(t, "src", "dst"), 0);
    // Folders are new, with the original's mode; everything else is the same inode.
    EXPECT_EQ(t.stat("dst").st_mode & 07777, 0750u);
    EXPECT_EQ(t.stat("dst/sub").st_mode & 07777, 0700u);
    for (const char* name : {"a", "to-file", "sub/to-dir", "pipe"})
        EXPECT_EQ(t.stat(std::string("dst/") + name).st_ino, t.stat(std::string("src/") + name).st_ino)
            << name;
    EXPECT_EQ(t.stat("outdir/c").st_nlink, 1u);  // nothing behind a link was linked
    // A link given as the item is linked as itself, even to a folder.
    ASSERT_EQ(linkTree(t, "src/sub/to-dir", "alias"), 0);
    EXPECT_TRUE(S_ISLNK(t.stat("alias").st_mode));
}

TEST(FileTree, RefusalsAndFailuresLeaveEverythingAsItWas) {
    TempTree t;
    t.file("file");
    t.file("taken");
    t.file("folder/x");
    t.folder("busy");
    const struct {
        const char* from;
        const char* to;
        int error;
    } refusals[] = {
        {"file", "taken", EEXIST},  {"folder", "busy", EEXIST},         {"folder", "missing/new", ENOENT},
        {"nothing", "new", ENOENT}, {"folder", "folder/inner", EINVAL},  // would never end
    };
    for (const auto& r : refusals) EXPECT_EQ(linkTree(t, r.from, r.to), r.error) << r.to;
    EXPECT_FALSE(t.exists("busy/x") || t.exists("missing") || t.exists("new") || t.exists("folder/inner"));
    EXPECT_EQ(t.stat("file").st_nlink + t.stat("taken").st_nlink + t.stat("folder/x").st_nlink, 3u);

    // Too deep to walk: fails far down, after folders and a link were made,
    // and everything made is removed again.
    t.file("deep/top");
    std::string path = "deep";
    for (int i = 0; i < kMaxTreeDepth + 2; ++i) t.folder(path += "/d");
    EXPECT_EQ(linkTree(t, "deep", "copy"), ELOOP);
    EXPECT_FALSE(t.exists("copy"));
    EXPECT_EQ(t.stat("deep/top").st_nlink, 1u);
}

}  // namespace
}  // namespace qvl::platform
