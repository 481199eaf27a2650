#include "qvald_helper/QVLLogModel.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "qvald_helper/QVLLog.h"
#include "qvald_helper/QVLLogCapture.h"

namespace fs = std::filesystem;
using qvl::QVLLogModel;

namespace {

class LogModelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/qvllog-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override {
        model().closeLogFileForTesting();
        model().setClockForTesting({});
        fs::remove_all(dir_);
    }
    static QVLLogModel& model() { return QVLLogModel::sharedInstance(); }
    static double realNow() { return static_cast<double>(time(nullptr)); }
    static std::string readAll(const std::string& path) {
        std::ifstream in(path);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    void touch(const std::string& name) { std::ofstream(dir_ + "/" + name) << "x"; }
    std::string dir_;
};

}  // namespace

TEST_F(LogModelTest, DateTextAndFileName) {
    EXPECT_EQ(QVLLogModel::dateText(1795381445.0), "2026-11-22 21:04:05 +0000");
    const std::string name = QVLLogModel::fileNameForTodayUnder("/private/var/logs/qvald", "qvald_helper");
    EXPECT_TRUE(std::regex_match(name, std::regex(R"(/private/var/logs/qvald/qvald_helper-20\d{6}\.log)")))
        << name;
}

// Lines carry the date of their own second, whatever was logged before, and
// a long line between short ones leaves them whole.
TEST_F(LogModelTest, EachLineCarriesItsOwnSecond) {
    const std::string path = dir_ + "/lines.log";
    ASSERT_TRUE(model().enableLogToFile(path));
    double clock = 1795381445.25;
    model().setClockForTesting([&clock] { return clock; });
    const std::string longText(10000, 'x');
    model().logMessage("one");
    clock = 1795381445.999;
    model().logMessage(longText);
    clock = 1795381446.0;
    model().logMessage("two");
    clock = 1795381444.5;  // the clock was set back
    model().logMessage("three");
    EXPECT_EQ(readAll(path), "2026-11-22 21:04:05 +0000 one\n2026-11-22 21:04:05 +0000 " + longText +
                                 "\n2026-11-22 21:04:06 +0000 two\n2026-11-22 21:04:04 +0000 three\n");
}

TEST_F(LogModelTest, ExpiryCutOffAndTheKeptFile) {
    touch("qvald_helper-20200101.log");
    touch("finish-demo-retore.log");
    fs::create_directories(dir_ + "/old-folder/inner");
    touch("old-folder/inner/file");

    // Four days on, nothing has expired.
    model().setClockForTesting([] { return realNow() + 4 * 86400.0; });
    ASSERT_TRUE(model().enableLogToFilesUnder_skipFinishDemoRestore(dir_, "qvald_helper", 5));
    EXPECT_TRUE(fs::exists(dir_ + "/qvald_helper-20200101.log"));
    EXPECT_TRUE(fs::exists(dir_ + "/old-folder"));

    // Five days and a second on, everything but the kept file goes, folders included.
    qvl::QVLLogCapture capture;
    model().setClockForTesting([] { return realNow() + 5 * 86400.0 + 2; });
    ASSERT_TRUE(model().enableLogToFilesUnder_skipFinishDemoRestore(dir_, "qvald_helper", 5));
    EXPECT_FALSE(fs::exists(dir_ + "/qvald_helper-20200101.log"));
    EXPECT_FALSE(fs::exists(dir_ + "/old-folder"));
    EXPECT_TRUE(fs::exists(dir_ + "/finish-demo-retore.log"));
    EXPECT_FALSE(fs::exists(dir_ + "/testWritability.log"));
    EXPECT_TRUE(
        capture.containsPrefix("Checking existing log file (full path) " + dir_ + "/old-folder against "));
    EXPECT_TRUE(capture.containsPrefix("Removing " + dir_ + "/old-folder whose creation date is "));
    for (const auto& line : capture.lines())
        EXPECT_EQ(line.find("finish-demo-retore.log"), std::string::npos) << line;

    // The plain variant spares nothing.
    model().closeLogFileForTesting();
    ASSERT_TRUE(model().enableLogToFilesUnder(dir_, "other", 5));
    EXPECT_FALSE(fs::exists(dir_ + "/finish-demo-retore.log"));
}

TEST_F(LogModelTest, UnwritableFolderFailsAndLeavesNoProbe) {
    const std::string folder = dir_ + "/ro";
    fs::create_directories(folder);
    chmod(dir_.c_str(), 0755);
    chmod(folder.c_str(), 0555);
    // Root writes anywhere, so the check runs as an unprivileged user in a child.
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(3);
        const bool ok = QVLLogModel::sharedInstance().enableLogToFilesUnder(folder, "p", 5);
        _exit(ok ? 1 : 0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_FALSE(fs::exists(folder + "/testWritability.log"));
    EXPECT_TRUE(fs::is_empty(folder));
}

TEST_F(LogModelTest, MissingFolderIsCreatedAndASecondStartAppends) {
    const std::string folder = dir_ + "/a/b/c";
    ASSERT_TRUE(model().enableLogToFilesUnder_skipFinishDemoRestore(folder, "qvald_helper", 5));
    EXPECT_TRUE(model().logToFileEnabled());
    QVLLog("first %d", 1);
    model().closeLogFileForTesting();
    ASSERT_TRUE(model().enableLogToFilesUnder_skipFinishDemoRestore(folder, "qvald_helper", 5));
    QVLLog("second %@", std::string("start"));
    const std::string text = readAll(QVLLogModel::fileNameForTodayUnder(folder, "qvald_helper"));
    ASSERT_TRUE(
        std::regex_match(text, std::regex(R"((\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \+0000 [a-z0-9 ]+\n){2})")))
        << text;
    EXPECT_NE(text.find("first 1\n"), std::string::npos);
    EXPECT_LT(text.find("first 1\n"), text.find("second start\n"));
}

TEST_F(LogModelTest, ConcurrentWritersNeverInterleaveWithinALine) {
    const std::string path = dir_ + "/concurrent.log";
    ASSERT_TRUE(model().enableLogToFile(path));
    constexpr int kThreads = 8, kLines = 1500;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t] {
            const std::string pad(200, 'a' + t);
            for (int i = 0; i < kLines; ++i) QVLLog("writer %d line %d %s", t, i, pad);
        });
    for (auto& th : threads) th.join();
    std::ifstream in(path);
    std::string l;
    int count = 0;
    const std::regex shape(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \+0000 writer (\d) line \d+ ([a-h])\2{199})");
    while (std::getline(in, l)) {
        ASSERT_TRUE(std::regex_match(l, shape)) << l;
        ++count;
    }
    EXPECT_EQ(count, kThreads * kLines);
}

TEST_F(LogModelTest, EnableLogToFileFailsWhenTheParentCannotBeMade) {
    touch("plainfile");
    EXPECT_FALSE(model().enableLogToFile(dir_ + "/plainfile/sub/x.log"));
    EXPECT_FALSE(model().logToFileEnabled());
}
