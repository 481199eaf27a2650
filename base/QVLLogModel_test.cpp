#include "base/QVLLogModel.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "base/QVLLog.h"
#include "base/QVLLogCapture.h"

namespace qvl {
namespace {

namespace fs = std::filesystem;

constexpr const char* kLine = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \+0000 )";

class LogModelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/qvllog-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override { fs::remove_all(dir_); }
    static double realNow() { return static_cast<double>(time(nullptr)); }
    static std::string readAll(const std::string& path) {
        std::ifstream in(path);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    void touch(const std::string& name) { std::ofstream(dir_ + "/" + name) << "x"; }
    // A model whose clock reads `clock` and whose system log stays quiet.
    static QVLLogModel::Services at(const double& clock) {
        return {[&clock] { return clock; }, [](std::string_view) {}};
    }
    std::string dir_;
};

TEST_F(LogModelTest, DateTextAndFileName) {
    EXPECT_EQ(QVLLogModel::dateText(1795381445.0), "2026-11-22 21:04:05 +0000");
    const std::string name = QVLLogModel::fileNameForTodayUnder("/private/var/logs/qvald", "qvald_helper");
    EXPECT_TRUE(std::regex_match(name, std::regex(R"(/private/var/logs/qvald/qvald_helper-20\d{6}\.log)")))
        << name;
}

// Lines carry the date of their own second, whatever was logged before, and
// a long line between short ones leaves them whole. Observers see the
// message alone.
TEST_F(LogModelTest, EachLineCarriesItsOwnSecond) {
    double clock = 1795381445.25;
    QVLLogModel model(at(clock));
    QVLLogCapture capture(model);
    const std::string path = dir_ + "/lines.log";
    ASSERT_TRUE(model.enableLogToFile(path));
    const std::string longText(10000, 'x');
    model.logMessage("one");
    clock = 1795381445.999;
    model.logMessage(longText);
    clock = 1795381446.0;
    model.logMessage("two");
    clock = 1795381444.5;  // the clock was set back
    model.logMessage("three");
    EXPECT_EQ(readAll(path), "2026-11-22 21:04:05 +0000 one\n2026-11-22 21:04:05 +0000 " + longText +
                                 "\n2026-11-22 21:04:06 +0000 two\n2026-11-22 21:04:04 +0000 three\n");
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{"one", longText, "two", "three"}));
}

TEST_F(LogModelTest, ExpiryCutOffAndTheKeptFile) {
    touch("qvald_helper-20200101.log");
    touch("finish-demo-retore.log");
    fs::create_directories(dir_ + "/old-folder/inner");
    touch("old-folder/inner/file");

    // Four days on, nothing has expired.
    double clock = realNow() + 4 * 86400.0;
    ASSERT_TRUE(QVLLogModel(at(clock)).enableLogToFilesUnder_skipFinishDemoRestore(dir_, "qvald_helper", 5));
    EXPECT_TRUE(fs::exists(dir_ + "/qvald_helper-20200101.log"));
    EXPECT_TRUE(fs::exists(dir_ + "/old-folder"));

    // Five days and a second on, everything but the kept file goes, folders included.
    clock = realNow() + 5 * 86400.0 + 2;
    {
        QVLLogModel model(at(clock));
        QVLLogCapture capture(model);
        ASSERT_TRUE(model.enableLogToFilesUnder_skipFinishDemoRestore(dir_, "qvald_helper", 5));
        EXPECT_TRUE(capture.contains("Checking existing log file (full path) " + dir_ +
                                     "/old-folder against " + QVLLogModel::dateText(clock - 5 * 86400.0)));
        EXPECT_TRUE(capture.containsPrefix("Removing " + dir_ + "/old-folder whose creation date is "));
        for (const auto& line : capture.lines())
            EXPECT_EQ(line.find("finish-demo-retore.log"), std::string::npos) << line;
    }
    EXPECT_FALSE(fs::exists(dir_ + "/qvald_helper-20200101.log"));
    EXPECT_FALSE(fs::exists(dir_ + "/old-folder"));
    EXPECT_TRUE(fs::exists(dir_ + "/finish-demo-retore.log"));
    EXPECT_FALSE(fs::exists(dir_ + "/testWritability.log"));

    // The plain variant spares nothing.
    ASSERT_TRUE(QVLLogModel(at(clock)).enableLogToFilesUnder(dir_, "other", 5));
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
        _exit(QVLLogModel().enableLogToFilesUnder(folder, "p", 5) ? 1 : 0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_TRUE(fs::is_empty(folder));
}

TEST_F(LogModelTest, MissingFolderIsCreatedAndASecondStartAppends) {
    const std::string folder = dir_ + "/a/b/c";
    const double clock = realNow();
    for (const char* message : {"first 1", "second start"}) {
        QVLLogModel model(at(clock));
        ASSERT_TRUE(model.enableLogToFilesUnder_skipFinishDemoRestore(folder, "qvald_helper", 5));
        EXPECT_TRUE(model.logToFileEnabled());
        model.logMessage(message);
    }
    const std::string text = readAll(QVLLogModel::fileNameForTodayUnder(folder, "qvald_helper"));
    EXPECT_TRUE(
        std::regex_match(text, std::regex(std::string(kLine) + "first 1\n" + kLine + "second start\n")))
        << text;

    touch("plainfile");
    QVLLogModel model(at(clock));
    EXPECT_FALSE(model.enableLogToFile(dir_ + "/plainfile/sub/x.log"));
    EXPECT_FALSE(model.logToFileEnabled());
}

TEST_F(LogModelTest, ConcurrentWritersNeverInterleaveWithinALine) {
    QVLLogModel model({{}, [](std::string_view) {}});
    const std::string path = dir_ + "/concurrent.log";
    ASSERT_TRUE(model.enableLogToFile(path));
    constexpr int kThreads = 4, kLines = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t, &model] {
            const std::string pad(200, static_cast<char>('a' + t));
            for (int i = 0; i < kLines; ++i)
                model.logMessage(QVLStringWithFormat("writer %d line %d %s", t, i, pad));
        });
    for (auto& th : threads) th.join();
    std::ifstream in(path);
    std::string l;
    int count = 0;
    const std::regex shape(std::string(kLine) + R"(writer (\d) line \d+ ([a-d])\2{199})");
    while (std::getline(in, l)) {
        ASSERT_TRUE(std::regex_match(l, shape)) << l;
        ++count;
    }
    EXPECT_EQ(count, kThreads * kLines);
}

TEST(QVLLog, ReachesTheSharedModelsObservers) {
    QVLLogCapture outer;
    {
        QVLLogCapture inner;
        QVLLog("Percentage increased to %d", 42);
        EXPECT_EQ(inner.lines(), std::vector<std::string>{"Percentage increased to 42"});
    }
    QVLLog("after");
    EXPECT_EQ(outer.lines(), (std::vector<std::string>{"Percentage increased to 42", "after"}));
}

}  // namespace
}  // namespace qvl
