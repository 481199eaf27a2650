#include "platform/nvram/NvramStore.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

namespace qvl::platform {
namespace {

std::span<const uint8_t> bytes(std::string_view s) {
    return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
}

class NvramStoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/qvl-nvram-XXXXXX";
        ASSERT_NE(::mkdtemp(tmpl), nullptr);
        root_ = tmpl;
        ASSERT_EQ(::mkdir(folder().c_str(), 0755), 0);
    }
    void TearDown() override { std::filesystem::remove_all(root_); }

    std::string folder() const { return root_ + "/nvram"; }
    std::string variable(const std::string& name) const {
        std::ifstream in(folder() + "/" + name, std::ios::binary);
        return in ? std::string(std::istreambuf_iterator<char>(in), {}) : "(none)";
    }
    size_t fileCount() const {
        auto it = std::filesystem::directory_iterator(folder());
        return static_cast<size_t>(std::distance(it, std::filesystem::directory_iterator()));
    }

    std::string root_;
};

TEST_F(NvramStoreTest, SetSyncAndDelete) {
    FileNvramStore store(folder());
    EXPECT_TRUE(store.registryEntryExists(kNvramOptionsNodePath));
    EXPECT_FALSE(FileNvramStore(root_ + "/absent").registryEntryExists(kNvramOptionsNodePath));

    ASSERT_EQ(store.setOptionsProperty("boot-args", bytes("first value")), 0);
    // The new value arrives as a new file renamed over the old one: a reader
    // of the old file still sees the old bytes in full.
    std::ifstream held(folder() + "/boot-args", std::ios::binary);
    ASSERT_EQ(store.setOptionsProperty("boot-args", bytes("2nd")), 0);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(held), {}), "first value");
    EXPECT_EQ(variable("boot-args"), "2nd");
    ASSERT_EQ(store.setOptionsProperty("empty", bytes("")), 0);
    EXPECT_EQ(variable("empty"), "");

    EXPECT_EQ(store.setOptionsProperty(kNvramSyncNowProperty, bytes("boot-args")), 0);
    EXPECT_EQ(store.setOptionsProperty(kNvramDeleteProperty, bytes("boot-args")), 0);
    EXPECT_EQ(variable("boot-args"), "(none)");
    EXPECT_EQ(store.setOptionsProperty(kNvramSyncNowProperty, bytes("boot-args")), ENOENT);
    EXPECT_EQ(store.setOptionsProperty(kNvramDeleteProperty, bytes("boot-args")), ENOENT);
    EXPECT_EQ(fileCount(), 1u);  // no temporary left behind
}

TEST_F(NvramStoreTest, RefusalsLeaveTheStoreAsItWas) {
    FileNvramStore store(folder());
    ASSERT_EQ(store.setOptionsProperty("v", bytes("old")), 0);
    const std::string_view names[] = {"", ".", "..", "a/b", "../escape", std::string_view("v\0x", 3)};
    for (std::string_view name : names) {
        EXPECT_EQ(store.setOptionsProperty(name, bytes("new")), EINVAL) << name;
        EXPECT_EQ(store.setOptionsProperty(kNvramDeleteProperty, bytes(name)), EINVAL) << name;
        EXPECT_EQ(store.setOptionsProperty(kNvramSyncNowProperty, bytes(name)), EINVAL) << name;
    }
    EXPECT_EQ(store.setOptionsProperty("v", bytes(std::string(kMaxNvramValueSize + 1, 'x'))), E2BIG);
    EXPECT_EQ(variable("v"), "old");
    EXPECT_EQ(fileCount(), 1u);
    EXPECT_FALSE(std::filesystem::exists(root_ + "/escape"));
    // Planted at a variable's name: neither followed nor waited on.
    ASSERT_EQ(::mkfifo((folder() + "/fifo").c_str(), 0644), 0);
    ASSERT_EQ(::symlink("v", (folder() + "/link").c_str()), 0);
    EXPECT_EQ(store.setOptionsProperty(kNvramSyncNowProperty, bytes("fifo")), EINVAL);
    EXPECT_EQ(store.setOptionsProperty(kNvramSyncNowProperty, bytes("link")), ELOOP);
    // A store folder that is a link is no options node.
    ASSERT_EQ(::symlink(folder().c_str(), (root_ + "/alias").c_str()), 0);
    EXPECT_FALSE(FileNvramStore(root_ + "/alias/").registryEntryExists(kNvramOptionsNodePath));
    EXPECT_EQ(FileNvramStore(root_ + "/absent").setOptionsProperty("v", bytes("x")), ENOENT);
}

}  // namespace
}  // namespace qvl::platform
