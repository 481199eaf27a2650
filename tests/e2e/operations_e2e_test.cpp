// The device-operation commands through the running helper in a sandboxed
// device root, one test per family of commands: answers as qvalctl sees them,
// the files, owners, modes and variable files afterwards (read from the host
// through the device root), and the helper's log lines word for word. The
// cases of each command are the unit tests' work (operations/, qvald_helper/).
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Sandbox.h"
#include "tests/support/TestSupport.h"

namespace qvl::e2e {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;
using testing::lstatOf;
using testing::readText;

class OperationsE2ETest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        if (auto reason = Sandbox::unavailableReason()) {
            skipReason_ = *reason;
            return;
        }
        sandbox_ = std::make_unique<Sandbox>();
        sandbox_->start(&startFailure_);
    }
    static void TearDownTestSuite() { sandbox_.reset(); }

    void SetUp() override {
        if (!skipReason_.empty()) GTEST_SKIP() << skipReason_;
        ASSERT_TRUE(sandbox_->running()) << "the helper is not running:\n" << startFailure_;
    }
    // Runs one command; its exit status (0 true, 1 false).
    int run(const std::vector<std::string>& command) { return sandbox_->qvalctl(command).status; }
    // The lines of the command logged since `from`: its entry line on.
    Lines commandLines(size_t from) const {
        const Lines lines = sandbox_->handledSince(from);
        auto first = std::find_if(lines.begin(), lines.end(),
                                  [](const std::string& l) { return l.starts_with("Entering "); });
        return Lines(first, std::find(first, lines.end(), "Message handled"));
    }
    std::string host(const std::string& path) const { return sandbox_->host(path); }
    size_t mark() const { return sandbox_->logLines().size(); }

    static inline std::unique_ptr<Sandbox> sandbox_;
    static inline std::string skipReason_;
    static inline std::string startFailure_;
};

TEST_F(OperationsE2ETest, ContainersAndPreferences) {
    size_t from = mark();
    EXPECT_EQ(run({"prepareWorkContainer:", "/private/var/QVLWorkContainer"}), 0);
    EXPECT_EQ(commandLines(from),
              Lines{"Entering -[QVLHMessageResponder prepareWorkContainer:] with parameter: "
                    "/private/var/QVLWorkContainer"});
    EXPECT_EQ(lstatOf(host("/private/var/QVLWorkContainer")).st_mode, S_IFDIR | 0777u);

    from = mark();
    EXPECT_EQ(run({"prepareLogContainer:", "/var/tmp/logs"}), 1);
    EXPECT_EQ(commandLines(from),
              (Lines{"Entering -[QVLHMessageResponder prepareLogContainer:] with parameter: /var/tmp/logs",
                     "-[QVLHMessageResponder prepareLogContainer:]: creating logs under /var/tmp/logs is not "
                     "allowed."}));
    EXPECT_FALSE(fs::exists(host("/private/var/tmp/logs")));

    const std::string source = "/private/var/root/Library/Preferences/com.ostrel.Quorvale.plist";
    const std::string destination = "/private/var/mobile/Library/Preferences/com.ostrel.Quorvale.plist";
    sandbox_->writeFile(source, "prefs");
    EXPECT_EQ(run({"migratePreferencesFile:"}), 0);
    EXPECT_FALSE(fs::exists(host(source)));
    EXPECT_EQ(readText(host(destination)), "prefs");
    EXPECT_EQ(lstatOf(host(destination)).st_uid, 501u);
    EXPECT_EQ(lstatOf(host(destination)).st_gid, 501u);
    EXPECT_EQ(run({"migratePreferencesFile:"}), 1);  // nothing left to move

    EXPECT_EQ(run({"removeWorkContainer:", "/private/var/QVLWorkContainer"}), 0);
    EXPECT_FALSE(fs::exists(host("/private/var/QVLWorkContainer")));
}

TEST_F(OperationsE2ETest, StagingAndInstallation) {
    fs::create_directories(host("/private/var/mobile/Media/content/sub"));
    sandbox_->writeFile("/private/var/mobile/Media/content/sub/a", "alpha");
    fs::create_directories(host("/private/var/mobile/stage"));
    fs::create_directories(host("/private/var/backup/old"));
    const std::vector<std::string> link = {"createHardLink:", "FilePath=/private/var/mobile/Media/content",
                                           "StagingPath=/private/var/mobile/stage/content"};
    EXPECT_EQ(run(link), 0);
    EXPECT_EQ(lstatOf(host("/private/var/mobile/stage/content/sub/a")).st_ino,
              lstatOf(host("/private/var/mobile/Media/content/sub/a")).st_ino);
    const size_t from = mark();
    EXPECT_EQ(run(link), 1);
    EXPECT_EQ(
        commandLines(from).back(),
        "Could not link /private/var/mobile/Media/content to /private/var/mobile/stage/content with error "
        "-File exists.");
    EXPECT_EQ(run({"moveStagingToFinal:", "/private/var/mobile/stage"}), 0);
    EXPECT_FALSE(fs::exists(host("/private/var/mobile/stage")));
    EXPECT_FALSE(fs::exists(host("/private/var/backup/old")));
    EXPECT_EQ(readText(host("/private/var/backup/content/sub/a")), "alpha");
}

TEST_F(OperationsE2ETest, FirmwareVariables) {
    const std::string store = host("/private/var/db/platform/nvram/");
    EXPECT_EQ(run({"writeNvram:", "Name=boot-args", "Value=demo-mode=1"}), 0);
    EXPECT_EQ(readText(store + "boot-args"), "demo-mode=1");
    EXPECT_EQ(run({"deleteNvram:", "boot-args"}), 0);
    EXPECT_FALSE(fs::exists(store + "boot-args"));
    const size_t from = mark();
    EXPECT_EQ(run({"deleteNvram:", "boot-args"}), 1);
    EXPECT_EQ(commandLines(from),
              (Lines{"Entering -[QVLHMessageResponder deleteNvram:] with parameter: boot-args",
                     "Couldn't force sync new nvram to device"}));
}

// A restart ends a helper of its own, and only its sandbox.
TEST_F(OperationsE2ETest, RebootEndsOnlyItsSandbox) {
    Sandbox doomed;
    ASSERT_TRUE(doomed.start());
    const CommandResult answer = doomed.qvalctl({"--timeout", "5", "reboot:", "now"});
    EXPECT_EQ(answer.output.find("Response: false"), std::string::npos) << answer.output;
    bool ended = false;
    for (int i = 0; i < 500 && !(ended = fs::exists(doomed.root() + "/.sandbox/ended")); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_TRUE(ended) << "the restarted sandbox is still running";
    const Lines lines = doomed.logLines();
    EXPECT_NE(
        std::find(lines.begin(), lines.end(), "Entering -[QVLHMessageResponder reboot:] with parameter: now"),
        lines.end());
    EXPECT_TRUE(std::none_of(lines.begin(), lines.end(),
                             [](const std::string& l) { return l.starts_with("reboot: "); }));
    EXPECT_TRUE(sandbox_->running());
    EXPECT_EQ(run({"removeWorkContainer:", "/private/var/none"}), 0);
}

}  // namespace
}  // namespace qvl::e2e
