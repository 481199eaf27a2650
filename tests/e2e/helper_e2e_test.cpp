// End-to-end tests of the helper: the real binary in a sandboxed device root,
// driven through its real socket by qvalctl inside the sandbox (so the
// entitlement registry can recognise it) or, to use up its descriptors, by
// plain connections from the host. One test per family of commands; log lines
// are checked word for word in the helper's own log file. Hostile frames and
// hang-ups are the service's unit tests' (platform/zrp).
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/zrp/ZRP.h"
#include "tests/support/Sandbox.h"
#include "tests/support/TestSupport.h"

namespace qvl::e2e {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;
using testing::lstatOf;
using testing::readText;

constexpr const char* kService = "com.ostrel.quorvaledhelper";
const std::string kGate = "-[QVLHMessageResponder hasEntitlementQuorvaled]: ";
const std::string kRefused = "The client does not have proper entitlement";

std::string lastLine(const Sandbox& sandbox) {
    const Lines lines = sandbox.logLines();
    return lines.empty() ? std::string() : lines.back();
}

bool contains(const Lines& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

class HelperE2ETest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        if (auto reason = Sandbox::unavailableReason()) {
            skipReason_ = *reason;
            return;
        }
        sandbox_ = std::make_unique<Sandbox>();
        if (!sandbox_->start(&startFailure_)) return;
        // "daemon" holds the entitlement as a string, which must not count.
        sandbox_->entitleClient(1, "<string>true</string>");
    }
    // Everything above has run against this one helper: it must still end
    // cleanly (under the sanitizers, that includes its leak check at exit).
    static void TearDownTestSuite() {
        if (sandbox_ && sandbox_->running()) {
            EXPECT_EQ(sandbox_->stop("TERM"), 0);
        }
        sandbox_.reset();
    }
    void SetUp() override {
        if (!skipReason_.empty()) GTEST_SKIP() << skipReason_;
        ASSERT_TRUE(sandbox_->running()) << "the helper is not running:\n" << startFailure_;
    }
    size_t mark() const { return sandbox_->logLines().size(); }
    std::pair<int, Lines> run(const std::vector<std::string>& command) { return sandbox_->request(command); }
    std::string host(const std::string& path) const { return sandbox_->host(path); }

    static inline std::unique_ptr<Sandbox> sandbox_;
    static inline std::string skipReason_;
    static inline std::string startFailure_;
};

// A request's way through the socket, step by step, shown with a command
// nobody answers (the dispatch's cases are the responder's unit test's).
TEST_F(HelperE2ETest, LogsEachStepOfAConnection) {
    // The first line goes to the system log only: the file is not open yet.
    ASSERT_TRUE(fs::exists(sandbox_->logFilePath())) << sandbox_->logFilePath();
    const Lines logged = sandbox_->logLines();
    EXPECT_FALSE(std::any_of(logged.begin(), logged.end(),
                             [](const std::string& l) { return l.ends_with(" started"); }));
    const size_t from = mark();
    EXPECT_EQ(sandbox_->qvalctl({"--timeout", "1", "noSuchCommand:"}).status, 2);
    EXPECT_TRUE(sandbox_->waitForLogLine("ZRP disconnected by client", from));
    EXPECT_EQ(
        sandbox_->handledSince(from),
        (Lines{"It's an ZRP_TYPE_CONNECTION", "Start to deal with new connection", "Received an ZRP request?",
               "QVLH: Received a ZRP request", "QVLHMessageResponder does not respond to noSuchCommand:.",
               "Message handled", "ZRP disconnected by client"}));
}

// The gate's cases are its unit test's; here, the registry read through it.
TEST_F(HelperE2ETest, ClientsWithoutABooleanEntitlementGetNoAnswer) {
    size_t from = mark();
    // The connection stays open: the client hears nothing until it gives up.
    EXPECT_EQ(sandbox_->qvalctl({"--timeout", "1", "noSuchCommand:"}, "daemon").status, 2);
    const Lines lines = sandbox_->handledSince(from);
    const auto at = std::find(lines.begin(), lines.end(), kGate + "format not correct: true");
    ASSERT_TRUE(at != lines.end() && at + 1 != lines.end());
    EXPECT_EQ(*(at + 1), kRefused);
    EXPECT_FALSE(contains(lines, "QVLHMessageResponder does not respond to noSuchCommand:."));
}

// The device-operation commands, one test per family: the answer qvalctl
// sees, the files afterwards (read from the host through the device root)
// and the log lines. The cases of each command are the unit tests' work.
TEST_F(HelperE2ETest, ContainersAndPreferences) {
    EXPECT_EQ(run({"prepareWorkContainer:", "/private/var/QVLWorkContainer"}).first, 0);
    EXPECT_EQ(lstatOf(host("/private/var/QVLWorkContainer")).st_mode, S_IFDIR | 0777u);
    EXPECT_EQ(run({"prepareLogContainer:", "/var/tmp/logs"}),
              (std::pair<int, Lines>{
                  1,
                  {"Entering -[QVLHMessageResponder prepareLogContainer:] with parameter: /var/tmp/logs",
                   "-[QVLHMessageResponder prepareLogContainer:]: creating logs under /var/tmp/logs is not "
                   "allowed."}}));
    EXPECT_FALSE(fs::exists(host("/private/var/tmp/logs")));

    const std::string destination = "/private/var/mobile/Library/Preferences/com.ostrel.Quorvale.plist";
    sandbox_->writeFile("/private/var/root/Library/Preferences/com.ostrel.Quorvale.plist", "prefs");
    EXPECT_EQ(run({"migratePreferencesFile:"}).first, 0);
    EXPECT_EQ(readText(host(destination)), "prefs");
    EXPECT_EQ(lstatOf(host(destination)).st_uid, 501u);
    EXPECT_EQ(run({"removeWorkContainer:", "/private/var/QVLWorkContainer"}).first, 0);
    EXPECT_FALSE(fs::exists(host("/private/var/QVLWorkContainer")));
}

TEST_F(HelperE2ETest, StagingAndInstallation) {
    fs::create_directories(host("/private/var/mobile/Media/content/sub"));
    sandbox_->writeFile("/private/var/mobile/Media/content/sub/a", "alpha");
    fs::create_directories(host("/private/var/mobile/stage"));
    fs::create_directories(host("/private/var/backup/old"));
    const std::vector<std::string> link = {"createHardLink:", "FilePath=/private/var/mobile/Media/content",
                                           "StagingPath=/private/var/mobile/stage/content"};
    EXPECT_EQ(run(link).first, 0);
    EXPECT_EQ(lstatOf(host("/private/var/mobile/stage/content/sub/a")).st_ino,
              lstatOf(host("/private/var/mobile/Media/content/sub/a")).st_ino);
    EXPECT_EQ(run({"moveStagingToFinal:", "/private/var/mobile/stage"}).first, 0);
    EXPECT_FALSE(fs::exists(host("/private/var/mobile/stage")) ||
                 fs::exists(host("/private/var/backup/old")));
    EXPECT_EQ(readText(host("/private/var/backup/content/sub/a")), "alpha");
}

TEST_F(HelperE2ETest, FirmwareVariables) {
    const std::string variable = host("/private/var/db/platform/nvram/boot-args");
    EXPECT_EQ(run({"writeNvram:", "Name=boot-args", "Value=demo-mode=1"}).first, 0);
    EXPECT_EQ(readText(variable), "demo-mode=1");
    EXPECT_EQ(run({"deleteNvram:", "boot-args"}).first, 0);
    EXPECT_FALSE(fs::exists(variable));
    EXPECT_EQ(
        run({"deleteNvram:", "boot-args"}),  // nothing left to delete
        (std::pair<int, Lines>{1,
                               {"Entering -[QVLHMessageResponder deleteNvram:] with parameter: boot-args",
                                "Couldn't force sync new nvram to device"}}));
}

// Each way the helper ends, on a sandbox of its own: the exit status and the
// last line logged.
TEST(HelperLifecycleTest, EndsWithTheStatusOfItsCause) {
    if (auto reason = Sandbox::unavailableReason()) GTEST_SKIP() << *reason;
    {
        Sandbox sandbox;
        ASSERT_TRUE(sandbox.start());
        EXPECT_EQ(sandbox.qvalctl({"quitHelper:"}).status, 2);  // no answer: the connection ends first
        EXPECT_EQ(sandbox.waitForExit(std::chrono::seconds(10)), 0);
        EXPECT_EQ(lastLine(sandbox), "Entering -[QVLHMessageResponder quitHelper:] with parameter: 1");
    }
    {
        Sandbox sandbox;
        ASSERT_TRUE(sandbox.start());
        EXPECT_EQ(sandbox.stop("TERM"), 0);
        EXPECT_EQ(lastLine(sandbox), "ZRP connection will be closed");
        // A file where the socket folder should be: no listener can be made.
        fs::remove_all(sandbox.socketDirectory());
        sandbox.writeFile("/private/var/run/zrp", "not a folder\n");
        std::string output;
        EXPECT_FALSE(sandbox.start(&output));
        EXPECT_NE(output.find("the helper ended with status 1"), std::string::npos) << output;
        EXPECT_EQ(lastLine(sandbox), "Could not create ZRP listener.");
    }
    // With its descriptors used up, accepting fails: an error of the listener
    // other than termination or invalidation.
    Sandbox sandbox;
    ASSERT_TRUE(sandbox.start());
    const pid_t pid = sandbox.helperPid();
    ASSERT_GT(pid, 0);
    const size_t limit = openDescriptorCount(pid) + 4;
    ASSERT_EQ(
        runCommand({"prlimit", "--pid", std::to_string(pid), "--nofile=" + std::to_string(limit)}).status, 0);
    std::vector<std::unique_ptr<zrp::Client>> held;
    for (int i = 0; i < 32 && sandbox.running(); ++i) {
        held.push_back(zrp::Client::connect(kService, nullptr, sandbox.socketDirectory()));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_EQ(sandbox.waitForExit(std::chrono::seconds(10)), 1);
    held.clear();
    EXPECT_EQ(lastLine(sandbox), "Got ZRP error on listener connection: Too many open files");

    // A restart ends the sandbox as it ends the device, and nothing else.
    Sandbox doomed;
    ASSERT_TRUE(doomed.start());
    EXPECT_EQ(doomed.qvalctl({"--timeout", "5", "reboot:", "now"}).output.find("Response: false"),
              std::string::npos);
    bool ended = false;
    for (int i = 0; i < 500 && !(ended = fs::exists(doomed.root() + "/.sandbox/ended")); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_TRUE(ended) << "the restarted sandbox is still running";
    const Lines lines = doomed.logLines();
    EXPECT_TRUE(contains(lines, "Entering -[QVLHMessageResponder reboot:] with parameter: now"));
    EXPECT_TRUE(std::none_of(lines.begin(), lines.end(),
                             [](const std::string& l) { return l.starts_with("reboot: "); }));
    EXPECT_TRUE(sandbox.running());
}

}  // namespace
}  // namespace qvl::e2e
