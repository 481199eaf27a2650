#include "platform/nvram/NvramStore.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace qvl::platform {
namespace {

std::span<const uint8_t> bytes(std::string_view s) {
    return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
}

size_t fileCount(const std::string& folder) {
    return size_t(std::distance(std::filesystem::directory_iterator(folder), {}));
}

TEST(NvramStoreTest, SetSyncAndDelete) {
    testing::TempTree tree;
    FileNvramStore store(tree.folder("nvram"));
    EXPECT_TRUE(store.registryEntryExists(kNvramOptionsNodePath));
    EXPECT_FALSE(FileNvramStore(tree.path("absent")).registryEntryExists(kNvramOptionsNodePath));
    EXPECT_EQ(FileNvramStore(tree.path("absent")).setOptionsProperty("v", bytes("x")), ENOENT);

    ASSERT_EQ(store.setOptionsProperty("boot-args", bytes("first value")), 0);
    // The new value arrives as a new file renamed over the old one: a reader
    // of the old file still sees the old bytes in full.
    std::ifstream held(tree.path("nvram/boot-args"), std::ios::binary);
    ASSERT_EQ(store.setOptionsProperty("boot-args", bytes("2nd")), 0);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(held), {}), "first value");
    EXPECT_EQ(testing::readText(tree.path("nvram/boot-args")), "2nd");
    ASSERT_EQ(store.setOptionsProperty("empty", bytes("")), 0);
    EXPECT_TRUE(tree.exists("nvram/empty"));

    EXPECT_EQ(store.setOptionsProperty(kNvramSyncNowProperty, bytes("boot-args")), 0);
    EXPECT_EQ(store.setOptionsProperty(kNvramDeleteProperty, bytes("boot-args")), 0);
    EXPECT_FALSE(tree.exists("nvram/boot-args"));
    EXPECT_EQ(store.setOptionsProperty(kNvramSyncNowProperty, bytes("boot-args")), ENOENT);
    EXPECT_EQ(store.setOptionsProperty(kNvramDeleteProperty, bytes("boot-args")), ENOENT);
    EXPECT_EQ(fileCount(tree.path("nvram")), 1u);  // no temporary left behind
}

TEST(NvramStoreTest, RefusalsLeaveTheStoreAsItWas) {
    testing::TempTree tree;
    FileNvramStore store(tree.folder("nvram"));
    ASSERT_EQ(store.setOptionsProperty("v", bytes("old")), 0);
    using namespace std::literals;
    for (std::string_view name : {""sv, "."sv, ".."sv, "a/b"sv, "../escape"sv, "v\0x"sv}) {
        EXPECT_EQ(store.setOptionsProperty(name, bytes("new")), EINVAL) << name;
        EXPECT_EQ(store.setOptionsProperty(kNvramDeleteProperty, bytes(name)), EINVAL) << name;
        EXPECT_EQ(store.setOptionsProperty(kNvramSyncNowProperty, bytes(name)), EINVAL) << name;
    }
    EXPECT_EQ(store.setOptionsProperty("v", bytes(std::string(kMaxNvramValueSize + 1, 'x'))), E2BIG);
    EXPECT_EQ(testing::readText(tree.path("nvram/v")), "old");
    EXPECT_EQ(fileCount(tree.path("nvram")), 1u);
    EXPECT_FALSE(tree.exists("escape"));
    // Planted at a variable's name: neither followed nor waited on.
    tree.fifo("nvram/fifo");
    tree.symlink("nvram/link", "v");
    EXPECT_EQ(store.setOptionsProperty(kNvramSyncNowProperty, bytes("fifo")), EINVAL);
    EXPECT_EQ(store.setOptionsProperty(kNvramSyncNowProperty, bytes("link")), ELOOP);
    // A store folder that is a link is no options node.
    tree.symlink("alias", tree.path("nvram"));
    EXPECT_FALSE(FileNvramStore(tree.path("alias/")).registryEntryExists(kNvramOptionsNodePath));
}

}  // namespace
}  // namespace qvl::platform
