#include "platform/entitlements/EntitlementService.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "platform/fs/LinuxFileSystem.h"
#include "platform/fs/PropertyListFile.h"

namespace qvl::entitlements {
namespace {

constexpr const char* kProgram = "/usr/libexec/qvald";
constexpr const char* kName = "com.ostrel.private.quorvale.quorvaled";

zrp::AuditToken tokenFor(pid_t pid, uid_t uid, std::string exe) {
    zrp::AuditToken token;
    token.pid = pid;
    token.uid = uid;
    token.executablePath = std::move(exe);
    token.pidfd = std::make_shared<const UniqueFd>(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    return token;
}

class RegistryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/entitlements-XXXXXX";
        dir_ = mkdtemp(tmpl);
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    void writeEntry(const std::string& file, const char* exe, std::optional<int64_t> uid, plist::Value value,
                    plist::Format format = plist::Format::XML) {
        plist::Dictionary granted;
        granted.set(kName, std::move(value));
        plist::Dictionary entry;
        entry.set("Executable", exe);
        if (uid) entry.set("UserID", *uid);
        entry.set("Entitlements", granted);
        ASSERT_TRUE(platform::writePropertyListFile(platform::LinuxFileSystem::sharedInstance(),
                                                    dir_ + "/" + file, entry, format));
    }
    void writeRaw(const std::string& file, const std::string& bytes) {
        std::ofstream(dir_ + "/" + file) << bytes;
    }

    std::optional<plist::Value> lookup(uid_t uid = getuid()) {
        auto task = Task::createWithAuditToken(tokenFor(getpid(), uid, kProgram), dir_);
        EXPECT_TRUE(task);
        return task ? task->valueForEntitlement(kName) : std::nullopt;
    }

    std::string dir_;
};

TEST_F(RegistryTest, FirstMatchingEntryInNameOrderDecides) {
    writeRaw("00-broken.plist", "<?xml version=\"1.0\"?><plist><dict><key>");
    writeEntry("10-other-program.plist", "/usr/bin/other", std::nullopt, plist::Value(false));
    writeEntry("20-other-user.plist", kProgram, int64_t{getuid()} + 1, plist::Value(false));
    writeEntry("30-match.plist", kProgram, int64_t{getuid()}, plist::Value(true), plist::Format::Binary);
    writeEntry("40-later.plist", kProgram, std::nullopt, plist::Value("later"));
    writeRaw("25-not-a-registry-file.txt", "ignored");

    std::optional<plist::Value> value = lookup();
    ASSERT_TRUE(value);
    EXPECT_EQ(*value, plist::Value(true));

    // The uid binding picks the entry per uid; an unbound entry serves the rest.
    value = lookup(getuid() + 1);
    ASSERT_TRUE(value);
    EXPECT_EQ(*value, plist::Value(false));
    value = lookup(getuid() + 2);
    ASSERT_TRUE(value);
    EXPECT_EQ(*value, plist::Value("later"));
}

TEST_F(RegistryTest, MatchingEntryWithoutTheKeyGivesNoValue) {
    plist::Dictionary entry;
    entry.set("Executable", kProgram);
    entry.set("Entitlements", plist::Dictionary());
    ASSERT_TRUE(platform::writePropertyListFile(platform::LinuxFileSystem::sharedInstance(),
                                                dir_ + "/a.plist", entry, plist::Format::XML));
    writeEntry("b.plist", kProgram, std::nullopt, plist::Value(true));
    EXPECT_FALSE(lookup());
}

TEST_F(RegistryTest, RegistryIsReadAfreshForEveryLookup) {
    EXPECT_FALSE(lookup());  // empty folder
    writeEntry("a.plist", kProgram, std::nullopt, plist::Value("true"));
    std::optional<plist::Value> value = lookup();
    ASSERT_TRUE(value);
    EXPECT_EQ(*value, plist::Value("true"));  // a string stays a string
    // Rewritten in place with the same size: the new content counts.
    writeEntry("tmp.plist", kProgram, std::nullopt, plist::Value("fals"));
    std::filesystem::copy_file(dir_ + "/tmp.plist", dir_ + "/a.plist",
                               std::filesystem::copy_options::overwrite_existing);
    std::filesystem::remove(dir_ + "/tmp.plist");
    value = lookup();
    ASSERT_TRUE(value);
    EXPECT_EQ(*value, plist::Value("fals"));
    std::filesystem::remove(dir_ + "/a.plist");
    EXPECT_FALSE(lookup());

    std::filesystem::remove_all(dir_);
    EXPECT_FALSE(lookup());  // no registry at all
}

// A folder whose last change is long past is not listed again while it and
// its files keep their stamps; every kind of change must still show at once.
TEST_F(RegistryTest, SettledFolderStillSeesEveryChange) {
    const auto settle = [this] {
        // Files too, so that an edit within the same clock tick still
        // changes their stamp.
        const timespec times[2] = {{0, UTIME_OMIT}, {time(nullptr) - 3600, 0}};
        for (const auto& entry : std::filesystem::directory_iterator(dir_))
            ASSERT_EQ(utimensat(AT_FDCWD, entry.path().c_str(), times, 0), 0);
        ASSERT_EQ(utimensat(AT_FDCWD, dir_.c_str(), times, 0), 0);
        lookup();  // lists the folder with its old modification time
    };
    writeEntry("b.plist", kProgram, std::nullopt, plist::Value("true"));
    settle();
    EXPECT_EQ(lookup(), plist::Value("true"));

    writeEntry("tmp.plist", kProgram, std::nullopt, plist::Value("fals"));
    settle();
    std::filesystem::copy_file(dir_ + "/tmp.plist", dir_ + "/b.plist",
                               std::filesystem::copy_options::overwrite_existing);
    EXPECT_EQ(lookup(), plist::Value("fals"));  // edited in place, same size

    std::filesystem::remove(dir_ + "/tmp.plist");
    settle();
    writeEntry("a.plist", kProgram, std::nullopt, plist::Value(7));
    EXPECT_EQ(lookup(), plist::Value(7));  // added, and first in name order

    settle();
    std::filesystem::remove(dir_ + "/a.plist");
    EXPECT_EQ(lookup(), plist::Value("fals"));

    settle();
    std::filesystem::remove(dir_ + "/b.plist");
    EXPECT_FALSE(lookup());
}

TEST_F(RegistryTest, NonIntegerUserIDBindsNobody) {
    plist::Dictionary granted;
    granted.set(kName, true);
    plist::Dictionary entry;
    entry.set("Executable", kProgram);
    entry.set("UserID", std::to_string(getuid()));
    entry.set("Entitlements", granted);
    ASSERT_TRUE(platform::writePropertyListFile(platform::LinuxFileSystem::sharedInstance(),
                                                dir_ + "/a.plist", entry, plist::Format::XML));
    EXPECT_FALSE(lookup());
}

TEST(TaskTest, NoTaskWithoutALiveProcessAndItsPath) {
    EXPECT_TRUE(Task::createWithAuditToken(tokenFor(getpid(), getuid(), kProgram)));
    EXPECT_FALSE(Task::createWithAuditToken(tokenFor(getpid(), getuid(), "")));
    EXPECT_FALSE(Task::createWithAuditToken(zrp::AuditToken{}));

    const pid_t child = fork();
    if (child == 0) _exit(0);
    zrp::AuditToken token = tokenFor(child, getuid(), kProgram);
    waitpid(child, nullptr, 0);
    EXPECT_FALSE(Task::createWithAuditToken(token));
}

}  // namespace
}  // namespace qvl::entitlements
