#include "platform/containers/ContainerLookup.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/TestSupport.h"

namespace qvl::platform {
namespace {

constexpr auto kData = ContainerClass::kSystemData;

TEST(ContainerLookupTest, CreatesMissingContainerOnceWithFixedMode) {
    testing::TempTree tree;
    const auto readOnly = FileContainerLookup(tree.path("root"), true).containerPath("x", kData);
    ASSERT_TRUE(readOnly);
    EXPECT_FALSE(readOnly->existed || tree.exists("root"));  // nothing is created

    FileContainerLookup lookup(tree.path("root"));
    const mode_t old = umask(077);
    auto made = lookup.containerPath("com.example.data", kData);
    umask(old);
    ASSERT_TRUE(made);
    EXPECT_EQ(made->path, tree.path("root/Data/System/com.example.data"));
    EXPECT_FALSE(made->existed);
    EXPECT_EQ(testing::lstatOf(made->path).st_mode & 07777, 0755u);
    EXPECT_TRUE(lookup.containerPath("com.example.data", kData)->existed);
    EXPECT_EQ(lookup.containerPath("group.example", ContainerClass::kSystemGroup)->path,
              tree.path("root/Shared/SystemGroup/group.example"));
}

TEST(ContainerLookupTest, RefusesIdentifiersThatLeaveTheClassFolder) {
    testing::TempTree tree;
    FileContainerLookup lookup(tree.root());
    using namespace std::literals;
    for (std::string_view bad : {""sv, "."sv, ".."sv, "a/b"sv, "../../etc"sv, "a\0b"sv})
        EXPECT_FALSE(lookup.containerPath(bad, kData)) << bad;
    EXPECT_FALSE(lookup.containerPath(std::string(256, 'x'), kData));
    EXPECT_FALSE(lookup.containerPath("ok", static_cast<ContainerClass>(7)));
    EXPECT_FALSE(tree.exists("etc"));
    // A file where the container should be is not a container and is left alone.
    tree.file("Data/System/file", "x");
    EXPECT_FALSE(lookup.containerPath("file", kData));
    EXPECT_TRUE(S_ISREG(tree.stat("Data/System/file").st_mode));
}

TEST(ContainerLookupTest, BackupExcludeFlagIsExactlyOne) {
    testing::TempTree tree;
    FileContainerLookup lookup(tree.root());
    const std::string path = lookup.containerPath("c", kData)->path;
    EXPECT_EQ(lookup.excludedFromBackup(path), std::optional<bool>(false));
    for (const auto& [value, excluded] : {std::pair{"1", true}, {"0", false}, {"1 and more text", false}}) {
        testing::setUserAttribute(path, "ostrel.backup.exclude", value);
        EXPECT_EQ(lookup.excludedFromBackup(path), std::optional<bool>(excluded)) << value;
    }
    EXPECT_FALSE(lookup.excludedFromBackup(tree.path("missing")));
}

}  // namespace
}  // namespace qvl::platform
