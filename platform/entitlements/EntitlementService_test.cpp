#include "platform/entitlements/EntitlementService.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include <gtest/gtest.h>

#include "plist/PropertyList.h"
#include "tests/support/TestSupport.h"

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
    // An entry for `exe`, bound to `uid` when given, granting `value` (no
    // entitlement at all when empty).
    void entry(const std::string& file, const char* exe, std::optional<plist::Value> uid,
               std::optional<plist::Value> value, plist::Format format = plist::Format::XML) {
        plist::Dictionary granted, entry = testing::dict({{"Executable", exe}});
        if (value) granted.set(kName, std::move(*value));
        if (uid) entry.set("UserID", std::move(*uid));
        entry.set("Entitlements", granted);
        tree_.file(file, plist::write(entry, format));
    }
    std::optional<plist::Value> lookup(uid_t uid = getuid()) {
        auto task = Task::createWithAuditToken(tokenFor(getpid(), uid, kProgram), tree_.root());
        EXPECT_TRUE(task);
        return task ? task->valueForEntitlement(kName) : std::nullopt;
    }
    testing::TempTree tree_;
};

TEST_F(RegistryTest, FirstMatchingEntryInNameOrderDecides) {
    const int64_t uid = getuid();
    tree_.file("00-broken.plist", "<?xml version=\"1.0\"?><plist><dict><key>");
    entry("10-other-program.plist", "/usr/bin/other", std::nullopt, plist::Value(false));
    entry("20-other-user.plist", kProgram, uid + 1, plist::Value(false));
    entry("21-user-as-text.plist", kProgram, std::to_string(uid), plist::Value(false));  // binds nobody
    tree_.file("25-not-a-registry-file.txt", "ignored");
    entry("30-match.plist", kProgram, uid, plist::Value(true), plist::Format::Binary);
    entry("40-later.plist", kProgram, std::nullopt, plist::Value("later"));
    // The uid binding picks the entry per uid; an unbound entry serves the rest.
    EXPECT_EQ(lookup(), plist::Value(true));
    EXPECT_EQ(lookup(uid + 1), plist::Value(false));
    EXPECT_EQ(lookup(uid + 2), plist::Value("later"));
    // A matching entry without the key gives no value, even with a later one that has it.
    entry("05-without-the-key.plist", kProgram, std::nullopt, std::nullopt);
    EXPECT_FALSE(lookup());
}

// The registry is read afresh for every lookup. A folder whose last change is
// long past is not listed again while it and its files keep their stamps;
// every kind of change must still show at once.
TEST_F(RegistryTest, EveryChangeShowsAtTheNextLookup) {
    EXPECT_FALSE(lookup());  // empty folder
    const auto settle = [this] {
        // Files too, so that an edit within the same clock tick still changes their stamp.
        const timespec times[2] = {{0, UTIME_OMIT}, {time(nullptr) - 3600, 0}};
        for (const auto& file : std::filesystem::directory_iterator(tree_.root()))
            ASSERT_EQ(utimensat(AT_FDCWD, file.path().c_str(), times, 0), 0);
        ASSERT_EQ(utimensat(AT_FDCWD, tree_.root().c_str(), times, 0), 0);
        lookup();  // lists the folder with its old modification time
    };
    entry("b.plist", kProgram, std::nullopt, plist::Value("true"));
    settle();
    EXPECT_EQ(lookup(), plist::Value("true"));  // a string stays a string
    entry("tmp.plist", kProgram, std::nullopt, plist::Value("fals"));
    settle();
    std::filesystem::copy_file(tree_.path("tmp.plist"), tree_.path("b.plist"),
                               std::filesystem::copy_options::overwrite_existing);
    EXPECT_EQ(lookup(), plist::Value("fals"));  // edited in place, same size
    std::filesystem::remove(tree_.path("tmp.plist"));
    settle();
    entry("a.plist", kProgram, std::nullopt, plist::Value(7));
    EXPECT_EQ(lookup(), plist::Value(7));  // added, and first in name order
    settle();
    std::filesystem::remove(tree_.path("a.plist"));
    EXPECT_EQ(lookup(), plist::Value("fals"));
    settle();
    std::filesystem::remove(tree_.path("b.plist"));
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
