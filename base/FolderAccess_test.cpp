// A folder another user can write, tried as that user would: a link, a fifo,
// a hard link or a folder at the name the caller opens, and a tree deeper
// than any path for the caller to remove.
#include "base/FolderAccess.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "tests/support/TestSupport.h"

namespace qvl {
namespace {

using testing::TempTree;

// A link, a fifo, a folder, a hard link and a file of another user at the
// name are tried through the log model's own test; these are the options it
// does not use.
TEST(FolderAccess, OpenRegularFileOptions) {
    TempTree t;
    t.file("file", "x");
    t.symlink("link", t.path("file"));
    t.fifo("fifo");
    RegularFileOptions following, creating, exclusive;
    following.followLinks = true;
    creating.create = true;
    exclusive.create = exclusive.exclusive = true;
    const struct {
        const char* name;
        const RegularFileOptions& options;
        int error;
    } cases[] = {
        {"link", following, 0}, {"missing", {}, ENOENT},      {"new", creating, 0},
        {"fifo", creating, EINVAL}, {"file", exclusive, EEXIST},
    };
    const UniqueFd folder(::open(t.root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (const auto& c : cases) {
        UniqueFd fd;
        EXPECT_EQ(openRegularFileAt(folder.get(), c.name, c.options, &fd), c.error) << c.name;
        EXPECT_EQ(fd.valid(), c.error == 0) << c.name;
    }
    EXPECT_TRUE(S_ISREG(t.stat("new").st_mode));
}

TEST(FolderAccess, RemovesTreesOfAnyDepthAndBreadthWithoutFollowingLinks) {
    TempTree t("/dev/shm");  // in memory: a disk takes half a minute for the deep tree
    t.file("keep/precious", "x");
    const UniqueFd top(::open(t.root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // Ten thousand levels: far past the longest path and the descriptors a
    // process may hold, with a file and a link out of the tree on the way.
    ASSERT_EQ(::mkdirat(top.get(), "deep", 0755), 0);
    UniqueFd level(::openat(top.get(), "deep", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (int depth = 0; depth < 10000 && level.valid(); ++depth) {
        if (depth % 1000 == 0) {
            ASSERT_EQ(::symlinkat(t.path("keep").c_str(), level.get(), "out"), 0);
            UniqueFd(::openat(level.get(), "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
        }
        ASSERT_EQ(::mkdirat(level.get(), "d", 0755), 0);
        level.reset(::openat(level.get(), "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    ASSERT_TRUE(level.valid());
    level.reset();
    // Wide: many folders that each hold something.
    for (int i = 0; i < 200; ++i) t.file("wide/f" + std::to_string(i) + "/inner/x");
    t.symlink("alias", t.path("keep"));

    for (const char* name : {"deep", "wide", "alias"}) EXPECT_EQ(removeTreeAt(top.get(), name), 0) << name;
    EXPECT_FALSE(t.exists("deep") || t.exists("wide") || t.exists("alias"));
    EXPECT_TRUE(t.exists("keep/precious"));
    EXPECT_EQ(removeTreeAt(top.get(), "deep"), ENOENT);
}

}  // namespace
}  // namespace qvl
