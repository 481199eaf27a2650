// The device-operation commands through the running helper in a sandboxed
// device root: answers as the client sees them, the files, owners, modes and
// variable files afterwards (read from the host through the device root), and
// the helper's log lines word for word.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/zrp/ZRP.h"
#include "tests/support/Sandbox.h"

namespace qvl::e2e {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

const Lines kPass = {"Response=true", "end=timeout"};
const Lines kFail = {"Response=false", "end=timeout"};

zrp::Dictionary request(const std::string& command, zrp::Value parameter) {
    zrp::Dictionary d;
    d.set(command, std::move(parameter));
    return d;
}

zrp::Dictionary pairs(std::initializer_list<std::pair<const char*, zrp::Value>> entries) {
    zrp::Dictionary d;
    for (const auto& [key, value] : entries) d.set(key, value);
    return d;
}

std::string read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

struct stat lstatOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
    return st;
}

// Starts a helper in its own device root, with the test client entitled.
std::unique_ptr<Sandbox> startHelper(std::string* failure) {
    auto sandbox = std::make_unique<Sandbox>();
    if (!sandbox->start(failure)) return nullptr;
    std::ofstream(sandbox->root() + "/etc/ostrel/entitlements/ops-e2e.plist")
        << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
           "<key>Executable</key><string>"
        << Sandbox::clientPath()
        << "</string>\n<key>UserID</key><integer>0</integer>\n<key>Entitlements</key><dict>"
           "<key>com.ostrel.private.quorvale.quorvaled</key><true/></dict>\n</dict>\n</plist>\n";
    return sandbox;
}

Lines send(Sandbox& sandbox, const zrp::Dictionary& message) {
    auto frame = zrp::encodeFrame(message);
    const std::string path =
        sandbox.writeFile("ops-request.bin", frame ? frame->bytes : std::vector<uint8_t>{});
    const CommandResult result = sandbox.exec({Sandbox::clientPath(), path});
    Lines lines;
    std::istringstream in(result.output);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

class OperationsE2ETest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        if (auto reason = Sandbox::unavailableReason()) {
            skipReason_ = *reason;
            return;
        }
        sandbox_ = startHelper(&startFailure_);
    }
    static void TearDownTestSuite() { sandbox_.reset(); }

    void SetUp() override {
        if (!skipReason_.empty()) GTEST_SKIP() << skipReason_;
        ASSERT_TRUE(sandbox_) << "the helper did not start:\n" << startFailure_;
        ASSERT_TRUE(sandbox_->running()) << "the helper has stopped";
    }

    // Sends one command; answers what the client saw.
    Lines run(const std::string& command, zrp::Value parameter) {
        return send(*sandbox_, request(command, std::move(parameter)));
    }
    // The lines logged since `from`, once the request is handled.
    Lines logSince(size_t from) const {
        EXPECT_TRUE(sandbox_->waitForLogLine("Message handled", from));
        const Lines all = sandbox_->logLines();
        return from < all.size() ? Lines(all.begin() + from, all.end()) : Lines{};
    }
    // The lines of one command: from its entry line to "Message handled".
    Lines commandLines(size_t from) const {
        const Lines lines = logSince(from);
        auto first = std::find_if(lines.begin(), lines.end(),
                                  [](const std::string& l) { return l.starts_with("Entering "); });
        auto last = std::find(first, lines.end(), "Message handled");
        return Lines(first, last);
    }
    std::string host(const std::string& devicePath) const { return sandbox_->root() + devicePath; }
    size_t mark() const { return sandbox_->logLines().size(); }

    static inline std::unique_ptr<Sandbox> sandbox_;
    static inline std::string skipReason_;
    static inline std::string startFailure_;
};

TEST_F(OperationsE2ETest, ContainersAndPreferences) {
    size_t from = mark();
    EXPECT_EQ(run("prepareWorkContainer:", "/private/var/QVLWorkContainer"), kPass);
    EXPECT_EQ(commandLines(from),
              Lines{"Entering -[QVLHMessageResponder prepareWorkContainer:] with parameter: "
                    "/private/var/QVLWorkContainer"});
    EXPECT_EQ(lstatOf(host("/private/var/QVLWorkContainer")).st_mode, S_IFDIR | 0777u);

    from = mark();
    EXPECT_EQ(run("prepareLogContainer:", "/var/tmp/logs"), kFail);
    EXPECT_EQ(commandLines(from),
              (Lines{"Entering -[QVLHMessageResponder prepareLogContainer:] with parameter: /var/tmp/logs",
                     "-[QVLHMessageResponder prepareLogContainer:]: creating logs under /var/tmp/logs is not "
                     "allowed."}));
    EXPECT_FALSE(fs::exists(host("/private/var/tmp/logs")));

    const std::string source = "/private/var/root/Library/Preferences/com.ostrel.Quorvale.plist";
    const std::string destination = "/private/var/mobile/Library/Preferences/com.ostrel.Quorvale.plist";
    std::ofstream(host(source)) << "prefs";
    EXPECT_EQ(run("migratePreferencesFile:", true), kPass);
    EXPECT_FALSE(fs::exists(host(source)));
    EXPECT_EQ(read(host(destination)), "prefs");
    EXPECT_EQ(lstatOf(host(destination)).st_uid, 501u);
    EXPECT_EQ(lstatOf(host(destination)).st_gid, 501u);
    EXPECT_EQ(run("migratePreferencesFile:", true), kFail);  // nothing left to move

    EXPECT_EQ(run("removeWorkContainer:", "/private/var/QVLWorkContainer"), kPass);
    EXPECT_FALSE(fs::exists(host("/private/var/QVLWorkContainer")));
}

TEST_F(OperationsE2ETest, StagingAndFirmwareVariables) {
    fs::create_directories(host("/private/var/mobile/Media/content/sub"));
    std::ofstream(host("/private/var/mobile/Media/content/sub/a")) << "alpha";
    fs::create_directories(host("/private/var/mobile/stage"));
    fs::create_directories(host("/private/var/backup/old"));
    EXPECT_EQ(run("createHardLink:", pairs({{"FilePath", "/private/var/mobile/Media/content"},
                                            {"StagingPath", "/private/var/mobile/stage/content"}})),
              kPass);
    EXPECT_EQ(lstatOf(host("/private/var/mobile/stage/content/sub/a")).st_ino,
              lstatOf(host("/private/var/mobile/Media/content/sub/a")).st_ino);
    size_t from = mark();
    EXPECT_EQ(run("createHardLink:", pairs({{"FilePath", "/private/var/mobile/Media/content"},
                                            {"StagingPath", "/private/var/mobile/stage/content"}})),
              kFail);
    EXPECT_EQ(
        commandLines(from).back(),
        "Could not link /private/var/mobile/Media/content to /private/var/mobile/stage/content with error "
        "-File exists.");
    EXPECT_EQ(run("moveStagingToFinal:", "/private/var/mobile/stage"), kPass);
    EXPECT_FALSE(fs::exists(host("/private/var/mobile/stage")));
    EXPECT_FALSE(fs::exists(host("/private/var/backup/old")));
    EXPECT_EQ(read(host("/private/var/backup/content/sub/a")), "alpha");

    const std::string store = "/private/var/db/platform/nvram/";
    EXPECT_EQ(run("writeNvram:", pairs({{"Name", "boot-args"}, {"Value", "demo-mode=1"}})), kPass);
    EXPECT_EQ(read(host(store + "boot-args")), "demo-mode=1");
    EXPECT_EQ(run("deleteNvram:", "boot-args"), kPass);
    EXPECT_FALSE(fs::exists(host(store + "boot-args")));
    from = mark();
    EXPECT_EQ(run("deleteNvram:", "boot-args"), kFail);
    EXPECT_EQ(commandLines(from),
              (Lines{"Entering -[QVLHMessageResponder deleteNvram:] with parameter: boot-args",
                     "Couldn't force sync new nvram to device"}));
}

// Every path-taking command given something that is not what it needs:
// false, and nothing changes anywhere under the device's /private.
TEST_F(OperationsE2ETest, WrongParameterKindsChangeNothing) {
    fs::create_directories(host("/private/var/mobile/keep"));
    std::ofstream(host("/private/var/mobile/keep/file")) << "x";
    std::ofstream(host("/private/var/db/platform/nvram/kept")) << "v";

    auto snapshot = [&] {
        std::ostringstream out;
        for (const auto& entry : fs::recursive_directory_iterator(host("/private"))) {
            const std::string path = entry.path().string();
            if (path.find("/private/var/logs/") != std::string::npos ||
                path.find("/private/var/tmp/") != std::string::npos) {
                continue;
            }
            const struct stat st = lstatOf(path);
            out << path << ' ' << st.st_mode << ' ' << st.st_uid << ' ' << st.st_size << ' ' << st.st_nlink
                << '\n';
        }
        return out.str();
    };
    const std::string before = snapshot();

    const std::pair<const char*, zrp::Value> cases[] = {
        {"prepareWorkContainer:", int64_t{42}},
        {"prepareLogContainer:", int64_t{42}},
        {"removeWorkContainer:", pairs({{"Path", "/private/var/mobile/keep"}})},
        {"moveStagingToFinal:", true},
        {"deleteNvram:", pairs({{"Name", "kept"}})},
        {"createHardLink:", pairs({{"StagingPath", "/private/var/mobile/keep/new"}})},
        {"createHardLink:",
         pairs({{"FilePath", int64_t{1}}, {"StagingPath", "/private/var/mobile/keep/new"}})},
        {"createHardLink:", "/private/var/mobile/keep/file"},
        {"writeNvram:", pairs({{"Name", "kept"}, {"Value", int64_t{7}}})},
        {"writeNvram:", pairs({{"Name", "kept"}, {"Value", pairs({})}})},
        {"writeNvram:", pairs({{"Value", "v"}})},
        {"writeNvram:", "kept"},
    };
    for (const auto& [command, parameter] : cases) {
        const size_t from = mark();
        EXPECT_EQ(run(command, parameter), kFail) << command;
        // The entry line (a dictionary parameter spans several lines), then
        // one telling what was wrong.
        const Lines lines = commandLines(from);
        ASSERT_FALSE(lines.empty()) << command;
        EXPECT_EQ(
            std::count_if(
                lines.begin(), lines.end(),
                [&](const std::string& l) {
                    return l.starts_with(std::string("-[QVLHMessageResponder ") + command + "]: expected ") ||
                           l.starts_with("-[QVLHOperations writeNVRam:withValue:]: the value for kept");
                }),
            1)
            << ::testing::PrintToString(lines);
    }
    EXPECT_EQ(snapshot(), before);
    EXPECT_TRUE(sandbox_->running());
}

// A restart ends a helper of its own.
TEST_F(OperationsE2ETest, RebootEndsOnlyItsSandbox) {
    std::string failure;
    auto doomed = startHelper(&failure);
    ASSERT_TRUE(doomed) << failure;
    const Lines answer = send(*doomed, request("reboot:", "now"));
    EXPECT_EQ(std::count(answer.begin(), answer.end(), "Response=false"), 0);
    // The restart kills the whole PID namespace: the sandbox itself ends.
    bool ended = false;
    for (int i = 0; i < 500 && !ended; ++i) {
        ended = fs::exists(doomed->root() + "/.sandbox/ended");
        if (!ended) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_TRUE(ended) << "the restarted sandbox is still running";
    const Lines lines = doomed->logLines();
    EXPECT_NE(
        std::find(lines.begin(), lines.end(), "Entering -[QVLHMessageResponder reboot:] with parameter: now"),
        lines.end())
        << ::testing::PrintToString(lines);
    EXPECT_TRUE(std::none_of(lines.begin(), lines.end(),
                             [](const std::string& l) { return l.starts_with("reboot: "); }));
    // The machine and the other sandbox are still there.
    EXPECT_TRUE(sandbox_->running());
    EXPECT_EQ(run("removeWorkContainer:", "/private/var/none"), kPass);
}

}  // namespace
}  // namespace qvl::e2e
