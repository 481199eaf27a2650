#include "platform/containers/ContainerLookup.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace qvl::platform {
namespace {

namespace fs = std::filesystem;

class ContainerLookupTest : public ::testing::Test {
  protected:
    void SetUp() override {
        root_ = fs::temp_directory_path() / ("qvl-containers-" + std::to_string(getpid()));
        fs::remove_all(root_);
    }
    void TearDown() override { fs::remove_all(root_); }
    fs::path root_;
};

TEST_F(ContainerLookupTest, CreatesMissingContainerOnceWithFixedMode) {
    // Read-only, nothing is created.
    const auto notThere = FileContainerLookup(root_.string(), true).containerPath("x", ContainerClass::kSystemData);
    ASSERT_TRUE(notThere);
    EXPECT_FALSE(notThere->existed || fs::exists(root_));

    FileContainerLookup lookup(root_.string());
    const mode_t old = umask(077);
    auto made = lookup.containerPath("com.example.data", ContainerClass::kSystemData);
    umask(old);
    ASSERT_TRUE(made);
    EXPECT_EQ(made->path, (root_ / "Data/System/com.example.data").string());
    EXPECT_FALSE(made->existed);
    struct stat st {};
    ASSERT_EQ(stat(made->path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u);
    if (geteuid() == 0) {
        EXPECT_EQ(st.st_uid, 0u);
    }
    EXPECT_TRUE(lookup.containerPath("com.example.data", ContainerClass::kSystemData)->existed);
    EXPECT_EQ(lookup.containerPath("group.example", ContainerClass::kSystemGroup)->path,
              (root_ / "Shared/SystemGroup/group.example").string());
}

TEST_F(ContainerLookupTest, RefusesIdentifiersThatLeaveTheClassFolder) {
    FileContainerLookup lookup(root_.string());
    for (const char* bad : {"", ".", "..", "a/b", "../../etc"}) {
        EXPECT_FALSE(lookup.containerPath(bad, ContainerClass::kSystemData)) << bad;
    }
    EXPECT_FALSE(lookup.containerPath(std::string_view("a\0b", 3), ContainerClass::kSystemData));
    EXPECT_FALSE(lookup.containerPath(std::string(256, 'x'), ContainerClass::kSystemData));
    EXPECT_FALSE(lookup.containerPath("ok", static_cast<ContainerClass>(7)));
    EXPECT_FALSE(fs::exists(root_ / "etc"));

    // A file where the container should be is not a container and is left alone.
    fs::create_directories(root_ / "Data/System");
    std::ofstream(root_ / "Data/System/file") << "x";
    EXPECT_FALSE(lookup.containerPath("file", ContainerClass::kSystemData));
    EXPECT_TRUE(fs::is_regular_file(root_ / "Data/System/file"));
}

TEST_F(ContainerLookupTest, BackupExcludeFlagIsExactlyOne) {
    FileContainerLookup lookup(root_.string());
    auto info = lookup.containerPath("c", ContainerClass::kSystemData);
    ASSERT_TRUE(info);
    EXPECT_EQ(lookup.excludedFromBackup(info->path), std::optional<bool>(false));
    if (setxattr(info->path.c_str(), FileContainerLookup::kExcludeAttribute, "1", 1, 0) != 0) {
        GTEST_SKIP() << "the temporary folder does not take user extended attributes";
    }
    EXPECT_EQ(lookup.excludedFromBackup(info->path), std::optional<bool>(true));
    ASSERT_EQ(setxattr(info->path.c_str(), FileContainerLookup::kExcludeAttribute, "0", 1, 0), 0);
    EXPECT_EQ(lookup.excludedFromBackup(info->path), std::optional<bool>(false));
    ASSERT_EQ(setxattr(info->path.c_str(), FileContainerLookup::kExcludeAttribute, "1 and more text", 15, 0),
              0);
    EXPECT_EQ(lookup.excludedFromBackup(info->path), std::optional<bool>(false));
    EXPECT_FALSE(lookup.excludedFromBackup((root_ / "missing").string()));
}

}  // namespace
}  // namespace qvl::platform
