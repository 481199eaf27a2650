#include "operations/FileTree.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

namespace qvl::ops {
namespace {

class FileTreeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/qvl-filetree-XXXXXX";
        ASSERT_NE(::mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override { removeTree(dir_); }

    std::string at(const std::string& name) const { return dir_ + "/" + name; }
    void file(const std::string& name) const { std::ofstream(at(name)) << name; }
    void folder(const std::string& name, mode_t mode = 0755) const {
        ASSERT_EQ(::mkdir(at(name).c_str(), mode), 0);
        ASSERT_EQ(::chmod(at(name).c_str(), mode), 0);
    }
    void link(const std::string& target, const std::string& name) const {
        ASSERT_EQ(::symlink(at(target).c_str(), at(name).c_str()), 0);
    }
    struct stat st(const std::string& name) const {
        struct stat s {};
        EXPECT_EQ(::lstat(at(name).c_str(), &s), 0) << name;
        return s;
    }
    bool exists(const std::string& name) const {
        return ::access(at(name).c_str(), F_OK) == 0 || errno != ENOENT;
    }

    std::string dir_;
};

TEST_F(FileTreeTest, LinksFolderTreeWithoutFollowingLinks) {
    folder("src", 0750);
    folder("src/sub", 0700);
    file("src/a");
    folder("outdir");
    file("outdir/c");
    link("outdir/c", "src/to-file");
    link("outdir", "src/sub/to-dir");
    ASSERT_EQ(::mkfifo(at("src/pipe").c_str(), 0600), 0);

    ASSERT_EQ(linkTree(at("src"), at("dst")), 0);
    // Folders are new, with the original's mode; everything else is the same inode.
    EXPECT_NE(st("dst").st_ino, st("src").st_ino);
    EXPECT_EQ(st("dst").st_mode & 07777, 0750u);
    EXPECT_EQ(st("dst/sub").st_mode & 07777, 0700u);
    for (const char* name : {"a", "to-file", "sub/to-dir", "pipe"}) {
        EXPECT_EQ(st(std::string("dst/") + name).st_ino, st(std::string("src/") + name).st_ino) << name;
    }
    EXPECT_TRUE(S_ISLNK(st("dst/sub/to-dir").st_mode));
    EXPECT_EQ(st("outdir/c").st_nlink, 1u);  // nothing behind a link was linked

    // A link given as the item is linked as itself, even to a folder.
    ASSERT_EQ(linkTree(at("src/sub/to-dir"), at("alias")), 0);
    EXPECT_TRUE(S_ISLNK(st("alias").st_mode));
}

TEST_F(FileTreeTest, RefusesAndLeavesEverythingAsItWas) {
    file("file");
    file("taken");
    folder("folder");
    file("folder/x");
    folder("busy");

    EXPECT_EQ(linkTree(at("file"), at("taken")), EEXIST);
    EXPECT_EQ(linkTree(at("folder"), at("busy")), EEXIST);
    EXPECT_FALSE(exists("busy/x"));
    EXPECT_EQ(linkTree(at("folder"), at("missing/new")), ENOENT);
    EXPECT_EQ(linkTree(at("nothing"), at("new")), ENOENT);
    EXPECT_EQ(linkTree(at("folder"), at("folder/inner")), EINVAL);  // would never end
    EXPECT_FALSE(exists("missing") || exists("new") || exists("folder/inner"));
    EXPECT_EQ(st("file").st_nlink + st("taken").st_nlink + st("folder/x").st_nlink, 3u);
}

TEST_F(FileTreeTest, FailureMidwayRemovesWhatWasCreated) {
    // Too deep to walk: fails far down, after folders and a link were made.
    folder("deep");
    file("deep/top");
    std::string path = "deep";
    for (int i = 0; i < kMaxTreeDepth + 2; ++i) folder(path += "/d");
    EXPECT_EQ(linkTree(at("deep"), at("copy")), ELOOP);
    EXPECT_FALSE(exists("copy"));
    EXPECT_EQ(st("deep/top").st_nlink, 1u);
}

TEST_F(FileTreeTest, RemoveTreeNeverFollowsLinks) {
    folder("keep");
    file("keep/precious");
    folder("gone");
    folder("gone/sub");
    file("gone/sub/f");
    link("keep", "gone/sub/link");
    link("keep", "alias");

    EXPECT_EQ(removeTree(at("gone")), 0);
    EXPECT_EQ(removeTree(at("alias")), 0);
    EXPECT_FALSE(exists("gone") || exists("alias"));
    EXPECT_TRUE(exists("keep/precious"));
    EXPECT_EQ(removeTree(at("gone")), ENOENT);
}

}  // namespace
}  // namespace qvl::ops
