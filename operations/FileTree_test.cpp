#include "operations/FileTree.h"

#include <fcntl.h>
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
    void write(const std::string& name, const std::string& text) const { std::ofstream(at(name)) << text; }
    void mkdir(const std::string& name, mode_t mode = 0755) const {
        ASSERT_EQ(::mkdir(at(name).c_str(), mode), 0);
        ASSERT_EQ(::chmod(at(name).c_str(), mode), 0);
    }
    struct stat lstatOf(const std::string& name) const {
        struct stat st {};
        EXPECT_EQ(::lstat(at(name).c_str(), &st), 0) << name;
        return st;
    }
    bool exists(const std::string& name) const {
        struct stat st;
        return ::lstat(at(name).c_str(), &st) == 0;
    }

    std::string dir_;
};

TEST_F(FileTreeTest, LinksFolderTreeWithoutFollowingLinks) {
    mkdir("src", 0750);
    mkdir("src/sub", 0700);
    write("src/a", "alpha");
    write("src/sub/b", "beta");
    write("outside", "secret");
    mkdir("outdir");
    write("outdir/c", "gamma");
    ASSERT_EQ(::symlink(at("outside").c_str(), at("src/to-file").c_str()), 0);
    ASSERT_EQ(::symlink(at("outdir").c_str(), at("src/sub/to-dir").c_str()), 0);
    ASSERT_EQ(::mkfifo(at("src/pipe").c_str(), 0600), 0);

    ASSERT_EQ(linkTree(at("src"), at("dst")), 0);

    // Folders are new folders with the original's mode; everything else is
    // the same inode.
    EXPECT_NE(lstatOf("dst").st_ino, lstatOf("src").st_ino);
    EXPECT_EQ(lstatOf("dst").st_mode & 07777, 0750u);
    EXPECT_EQ(lstatOf("dst/sub").st_mode & 07777, 0700u);
    for (const char* name : {"a", "sub/b", "to-file", "sub/to-dir", "pipe"}) {
        EXPECT_EQ(lstatOf(std::string("dst/") + name).st_ino, lstatOf(std::string("src/") + name).st_ino)
            << name;
    }
    EXPECT_TRUE(S_ISLNK(lstatOf("dst/to-file").st_mode));
    EXPECT_TRUE(S_ISLNK(lstatOf("dst/sub/to-dir").st_mode));
    EXPECT_TRUE(S_ISFIFO(lstatOf("dst/pipe").st_mode));
    EXPECT_EQ(lstatOf("outdir/c").st_nlink, 1u);  // the folder behind a link was not walked into
    EXPECT_EQ(lstatOf("outside").st_nlink, 1u);

    // A change through one name shows through the other.
    std::ofstream(at("dst/a"), std::ios::app) << "+";
    std::ifstream in(at("src/a"));
    std::string text;
    in >> text;
    EXPECT_EQ(text, "alpha+");
}

TEST_F(FileTreeTest, LinkOfTopLevelSymlinkIsTheLinkItself) {
    mkdir("target");
    ASSERT_EQ(::symlink(at("target").c_str(), at("link").c_str()), 0);
    ASSERT_EQ(linkTree(at("link"), at("copy")), 0);
    EXPECT_TRUE(S_ISLNK(lstatOf("copy").st_mode));
    EXPECT_EQ(lstatOf("copy").st_ino, lstatOf("link").st_ino);
}

TEST_F(FileTreeTest, RefusesAndLeavesEverythingAsItWas) {
    write("file", "one");
    write("taken", "two");
    mkdir("folder");
    write("folder/x", "x");
    mkdir("busy");

    EXPECT_EQ(linkTree(at("file"), at("taken")), EEXIST);
    EXPECT_EQ(linkTree(at("folder"), at("busy")), EEXIST);
    EXPECT_EQ(lstatOf("taken").st_nlink, 1u);
    EXPECT_FALSE(exists("busy/x"));

    EXPECT_EQ(linkTree(at("file"), at("missing/new")), ENOENT);
    EXPECT_EQ(linkTree(at("folder"), at("missing/new")), ENOENT);
    EXPECT_FALSE(exists("missing"));

    EXPECT_EQ(linkTree(at("nothing"), at("new")), ENOENT);
    EXPECT_FALSE(exists("new"));

    // Linking a folder into itself would never end.
    EXPECT_EQ(linkTree(at("folder"), at("folder/inner")), EINVAL);
    EXPECT_FALSE(exists("folder/inner"));
    EXPECT_EQ(lstatOf("file").st_nlink, 1u);
}

TEST_F(FileTreeTest, FailureMidwayRemovesWhatWasCreated) {
    // A tree deeper than the walk allows fails deep down, after many folders
    // and a file link were already made.
    mkdir("deep");
    write("deep/top", "t");
    std::string path = "deep";
    for (int i = 0; i < kMaxTreeDepth + 2; ++i) {
        path += "/d";
        mkdir(path);
    }
    EXPECT_EQ(linkTree(at("deep"), at("copy")), ELOOP);
    EXPECT_FALSE(exists("copy"));
    EXPECT_EQ(lstatOf("deep/top").st_nlink, 1u);
    EXPECT_TRUE(exists(path));
}

TEST_F(FileTreeTest, RemoveTreeNeverFollowsLinks) {
    mkdir("keep");
    write("keep/precious", "p");
    mkdir("gone");
    mkdir("gone/sub");
    write("gone/sub/f", "f");
    ASSERT_EQ(::symlink(at("keep").c_str(), at("gone/sub/link").c_str()), 0);

    EXPECT_EQ(removeTree(at("gone")), 0);
    EXPECT_FALSE(exists("gone"));
    EXPECT_TRUE(exists("keep/precious"));
    EXPECT_EQ(removeTree(at("gone")), ENOENT);

    // A link given as the path is removed as itself.
    ASSERT_EQ(::symlink(at("keep").c_str(), at("alias").c_str()), 0);
    EXPECT_EQ(removeTree(at("alias")), 0);
    EXPECT_TRUE(exists("keep/precious"));
}

}  // namespace
}  // namespace qvl::ops
