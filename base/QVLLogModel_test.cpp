#include "base/QVLLogModel.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>

#include "base/QVLLog.h"
#include "base/QVLLogCapture.h"
#include "tests/support/TestSupport.h"

namespace qvl {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

const std::string kDate = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \+0000 )";

class LogModelTest : public ::testing::Test {
  protected:
    // Services reading `clock`, with a quiet system log.
    static QVLLogModel::Services at(const double& clock) {
        return {[&clock] { return clock; }, [](std::string_view) {}};
    }
    testing::TempTree t{"/tmp"};
    const std::string dir_ = t.root();
};

// Lines carry the date of their own second, whatever was logged before, and a
// long line between short ones leaves them whole. A second start on the same
// day appends to the day's file, in the folders the first one made.
// Observers see the message alone.
TEST_F(LogModelTest, EachLineCarriesItsOwnSecondAndStartsAppend) {
    const std::string folder = dir_ + "/a/b/c", longText(10000, 'x');
    const std::string file = QVLLogModel::fileNameForTodayUnder(folder, "qvald_helper");
    const std::pair<double, std::string> lines[] = {
        {1795381445.25, "one"}, {1795381445.999, longText}, {1795381446.0, "two"}, {1795381444.5, "three"}};
    double clock = 1795381445.25;
    for (size_t start = 0; start < 2; ++start) {
        QVLLogModel model(at(clock));
        ASSERT_TRUE(model.enableLogToFilesUnder_skipFinishDemoRestore(folder, "qvald_helper", 5));
        QVLLogCapture capture(model);
        for (size_t i = 2 * start; i < 2 * start + 2; ++i) {
            clock = lines[i].first;  // the last one was set back
            model.logMessage(lines[i].second);
        }
        EXPECT_EQ(capture.lines(), (Lines{lines[2 * start].second, lines[2 * start + 1].second}));
    }
    EXPECT_EQ(testing::readText(file),
              "2026-11-22 21:04:05 +0000 one\n2026-11-22 21:04:05 +0000 " + longText +
                  "\n2026-11-22 21:04:06 +0000 two\n2026-11-22 21:04:04 +0000 three\n");
    t.file("plainfile", "x");
    QVLLogModel model(at(clock));
    EXPECT_FALSE(model.enableLogToFile(dir_ + "/plainfile/sub/x.log") || model.logToFileEnabled());
}

TEST_F(LogModelTest, ExpiryCutOffAndTheKeptFile) {
    for (const char* name : {"qvald_helper-20200101.log", "finish-demo-retore.log", "old-folder/inner/file"})
        t.file(name, "x");
    const double now = static_cast<double>(time(nullptr));
    // Four days on, nothing has expired.
    double clock = now + 4 * 86400.0;
    ASSERT_TRUE(QVLLogModel(at(clock)).enableLogToFilesUnder_skipFinishDemoRestore(dir_, "qvald_helper", 5));
    EXPECT_TRUE(t.exists("qvald_helper-20200101.log") && t.exists("old-folder"));
    // Five days and a second on, everything but the kept file goes, folders included.
    clock = now + 5 * 86400.0 + 2;
    {
        QVLLogModel model(at(clock));
        QVLLogCapture capture(model);
        ASSERT_TRUE(model.enableLogToFilesUnder_skipFinishDemoRestore(dir_, "qvald_helper", 5));
        EXPECT_TRUE(capture.contains("Checking existing log file (full path) " + dir_ +
                                     "/old-folder against " + QVLLogModel::dateText(clock - 5 * 86400.0)));
        EXPECT_TRUE(capture.containsPrefix("Removing " + dir_ + "/old-folder whose creation date is "));
        for (const auto& line : capture.lines())
            EXPECT_EQ(line.find("finish-demo-retore.log"), std::string::npos);
    }
    EXPECT_FALSE(t.exists("qvald_helper-20200101.log") || t.exists("old-folder") ||
                 t.exists("testWritability.log"));
    EXPECT_TRUE(t.exists("finish-demo-retore.log"));
    // The plain variant spares nothing.
    ASSERT_TRUE(QVLLogModel(at(clock)).enableLogToFilesUnder(dir_, "other", 5));
    EXPECT_FALSE(t.exists("finish-demo-retore.log"));
}

// What another user can plant in a log folder open to all, at the daily
// file's name, at the probe's or as the folder: the set-up never blocks,
// never writes through it, and says once why lines go to the system log only.
TEST_F(LogModelTest, NothingPlantedInTheFolderIsWrittenThroughOrWaitedOn) {
    const std::string folder = dir_ + "/logs", secret = dir_ + "/secret";
    const std::string today = QVLLogModel::fileNameForTodayUnder(folder, "qvald_helper");
    const std::string probe = folder + "/testWritability.log";
    const auto plant = [&](const std::string& kind, const std::string& at) {
        if (kind == "link") return symlink(secret.c_str(), at.c_str());
        if (kind == "hard link") return link(secret.c_str(), at.c_str());
        if (kind == "fifo") return mkfifo(at.c_str(), 0666);
        return mkdir(at.c_str(), 0777);
    };
    const struct {
        const char* kind;
        const std::string& at;
        std::string refusal;  // empty: the planted name is replaced and the set-up works
    } cases[] = {
        // clang-format off
        {"link", today, "it is a symbolic link"},    {"hard link", today, "it has other hard links"},
        {"fifo", today, "it is not a regular file"}, {"folder", today, "it is a folder"},
        {"link", probe, ""},                         {"hard link", probe, ""},
        {"fifo", probe, ""},                         {"folder", probe, "File exists"},
        {"link", folder, "it is a symbolic link"},
        // clang-format on
    };
    const double clock = static_cast<double>(time(nullptr));
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.kind) + " at " + c.at);
        fs::remove_all(folder);
        if (&c.at != &folder) fs::create_directories(folder);
        t.file("secret", "secret", 0600);
        ASSERT_EQ(plant(c.kind, c.at), 0);
        QVLLogModel model(at(clock));
        QVLLogCapture capture(model);
        EXPECT_EQ(model.enableLogToFilesUnder_skipFinishDemoRestore(folder, "qvald_helper", 5),
                  c.refusal.empty());
        model.logMessage("line");
        EXPECT_EQ(testing::readText(secret), "secret");
        EXPECT_TRUE(c.refusal.empty() ? !fs::exists(fs::symlink_status(probe))
                                      : capture.contains("Not logging to " + c.at + ": " + c.refusal +
                                                         "; logging to the system log only."));
    }
    if (getuid() != 0) GTEST_SKIP() << "needs root to give a file away";
    fs::remove_all(folder);
    fs::create_directories(folder);
    std::ofstream(today) << "x";
    ASSERT_EQ(chown(today.c_str(), 501, 501), 0);
    QVLLogModel model(at(clock));
    QVLLogCapture capture(model);
    EXPECT_FALSE(model.enableLogToFile(today));
    EXPECT_EQ(capture.lines(), Lines{"Not logging to " + today +
                                     ": it belongs to another user; logging to the system log only."});
}

// An argument whose description logs: its line is written whole, before the
// line that was being built when it logged, which is whole too.
struct Chatty {
    QVLLogModel* model;
};
std::string qvlDescription(const Chatty& chatty) {
    chatty.model->logMessage("inner");
    return "described";
}

TEST_F(LogModelTest, ADescriptionThatLogsGetsALineOfItsOwn) {
    QVLLogModel model({{}, [](std::string_view) {}});
    ASSERT_TRUE(model.enableLogToFile(dir_ + "/nested.log"));
    QVLLogCapture capture(model);
    const Chatty chatty{&model};
    const QVLLogArg arg(chatty);
    model.logFormatted("outer %@ %d", &arg, 1);
    EXPECT_EQ(capture.lines(), (Lines{"inner", "outer described (null)"}));
    const std::string text = testing::readText(dir_ + "/nested.log");
    EXPECT_TRUE(
        std::regex_match(text, std::regex(kDate + "inner\n" + kDate + "outer described \\(null\\)\n")))
        << text;
}

TEST_F(LogModelTest, ConcurrentWritersNeverInterleaveWithinALine) {
    QVLLogModel model({{}, [](std::string_view) {}});
    ASSERT_TRUE(model.enableLogToFile(dir_ + "/concurrent.log"));
    constexpr int kThreads = 4, kLines = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t, &model] {
            const std::string pad(200, static_cast<char>('a' + t));
            for (int i = 0; i < kLines; ++i)
                model.logMessage(QVLStringWithFormat("writer %d line %d %s", t, i, pad));
        });
    for (auto& th : threads) th.join();
    std::ifstream in(dir_ + "/concurrent.log");
    int count = 0;
    const std::regex shape(kDate + R"(writer (\d) line \d+ ([a-d])\2{199})");
    for (std::string l; std::getline(in, l); ++count) ASSERT_TRUE(std::regex_match(l, shape)) << l;
    EXPECT_EQ(count, kThreads * kLines);
}

}  // namespace
}  // namespace qvl
