#include "platform/nvram/NvramStore.h"

#include <dirent.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

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
        folder_ = root_ + "/nvram";
        ASSERT_EQ(::mkdir(folder_.c_str(), 0755), 0);
    }
    void TearDown() override {
        for (const std::string& name : entries()) ::unlink((folder_ + "/" + name).c_str());
        ::rmdir(folder_.c_str());
        ::rmdir(root_.c_str());
    }

    std::optional<std::string> variable(const std::string& name) const {
        std::ifstream in(folder_ + "/" + name, std::ios::binary);
        if (!in) return std::nullopt;
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    std::vector<std::string> entries() const {
        std::vector<std::string> names;
        if (DIR* d = ::opendir(folder_.c_str())) {
            while (const dirent* e = ::readdir(d)) {
                const std::string name = e->d_name;
                if (name != "." && name != "..") names.push_back(name);
            }
            ::closedir(d);
        }
        return names;
    }

    std::string root_;
    std::string folder_;
};

TEST_F(NvramStoreTest, OptionsNodeExistsWithTheFolder) {
    EXPECT_TRUE(FileNvramStore(folder_).masterPortAvailable());
    EXPECT_TRUE(FileNvramStore(folder_).registryEntryExists(kNvramOptionsNodePath));
    EXPECT_FALSE(FileNvramStore(folder_).registryEntryExists("VXDeviceTree:/chosen"));
    EXPECT_FALSE(FileNvramStore(root_ + "/absent").registryEntryExists(kNvramOptionsNodePath));
}

TEST_F(NvramStoreTest, SetReplaceSyncAndDelete) {
    FileNvramStore store(folder_);
    ASSERT_EQ(store.setOptionsProperty("boot-args", bytes("-v")), 0);
    EXPECT_EQ(variable("boot-args"), "-v");
    ASSERT_EQ(store.setOptionsProperty("boot-args", bytes("demo=1")), 0);
    EXPECT_EQ(variable("boot-args"), "demo=1");
    // An empty value is a zero-length variable, not a deletion.
    ASSERT_EQ(store.setOptionsProperty("empty", bytes("")), 0);
    EXPECT_EQ(variable("empty"), "");

    EXPECT_EQ(store.setOptionsProperty(kNvramSyncNowProperty, bytes("boot-args")), 0);
    EXPECT_EQ(store.setOptionsProperty(kNvramDeleteProperty, bytes("boot-args")), 0);
    EXPECT_EQ(variable("boot-args"), std::nullopt);

    // Sync and delete of a missing variable are refused.
    EXPECT_EQ(store.setOptionsProperty(kNvramSyncNowProperty, bytes("boot-args")), ENOENT);
    EXPECT_EQ(store.setOptionsProperty(kNvramDeleteProperty, bytes("boot-args")), ENOENT);
    // No temporary file is left behind by any of it.
    EXPECT_EQ(entries(), std::vector<std::string>{"empty"});
}

TEST_F(NvramStoreTest, RefusesNamesThatAreNotOneFileInTheFolder) {
    FileNvramStore store(folder_);
    ASSERT_EQ(::mkdir((root_ + "/victim").c_str(), 0755), 0);
    const std::string_view names[] = {"", ".", "..", "a/b", "../victim/x", std::string_view("a\0b", 3)};
    for (std::string_view name : names) {
        EXPECT_EQ(store.setOptionsProperty(name, bytes("v")), EINVAL) << name;
        EXPECT_EQ(store.setOptionsProperty(kNvramDeleteProperty, bytes(name)), EINVAL) << name;
        EXPECT_EQ(store.setOptionsProperty(kNvramSyncNowProperty, bytes(name)), EINVAL) << name;
    }
    EXPECT_TRUE(entries().empty());
    EXPECT_NE(::rmdir((root_ + "/victim").c_str()), -1);  // still empty
}

TEST_F(NvramStoreTest, OversizedValueAndMissingFolderLeaveOldValue) {
    FileNvramStore store(folder_);
    ASSERT_EQ(store.setOptionsProperty("v", bytes("old")), 0);
    const std::string big(kMaxNvramValueSize + 1, 'x');
    EXPECT_EQ(store.setOptionsProperty("v", bytes(big)), E2BIG);
    EXPECT_EQ(variable("v"), "old");
    EXPECT_EQ(FileNvramStore(root_ + "/absent").setOptionsProperty("v", bytes("x")), ENOENT);
}

TEST_F(NvramStoreTest, WriteIsAtomicRename) {
    // A reader holding the old file keeps seeing the old bytes in full: the
    // new value arrives as a new file renamed over the old one.
    FileNvramStore store(folder_);
    ASSERT_EQ(store.setOptionsProperty("v", bytes("first value")), 0);
    std::ifstream held(folder_ + "/v", std::ios::binary);
    struct stat before {};
    ASSERT_EQ(::stat((folder_ + "/v").c_str(), &before), 0);
    ASSERT_EQ(store.setOptionsProperty("v", bytes("2nd")), 0);
    struct stat after {};
    ASSERT_EQ(::stat((folder_ + "/v").c_str(), &after), 0);
    EXPECT_NE(before.st_ino, after.st_ino);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(held), {}), "first value");
    EXPECT_EQ(variable("v"), "2nd");
}

}  // namespace
}  // namespace qvl::platform
