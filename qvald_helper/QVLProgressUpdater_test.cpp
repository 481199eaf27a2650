#include "qvald_helper/QVLProgressUpdater.h"

#include <gtest/gtest.h>

#include <vector>

#include "qvald_helper/QVLLogCapture.h"

namespace qvl {
namespace {

struct Recorder {
    QVLProgressUpdater updater;
    std::vector<int64_t> sent;
    Recorder() {
        updater.setProgressSender([this](int64_t percent) { sent.push_back(percent); });
    }
};

TEST(QVLProgressUpdater, SendsEachWholePercentOnceAsItRises) {
    Recorder r;
    r.updater.initializePercentageWithTotal(1000);
    for (int i = 0; i < 1000; ++i) r.updater.updatePercentageWithIncrement(1);
    ASSERT_EQ(r.sent.size(), 100u);
    for (size_t i = 0; i < r.sent.size(); ++i) EXPECT_EQ(r.sent[i], static_cast<int64_t>(i + 1));
    EXPECT_EQ(r.updater.reportedPercent(), 100);

    r.updater.initializePercentageWithTotal(3);
    r.sent.clear();
    for (int i = 0; i < 3; ++i) r.updater.updatePercentageWithIncrement(1);
    EXPECT_EQ(r.sent, (std::vector<int64_t>{33, 66, 100}));
}

TEST(QVLProgressUpdater, LogsInitializationAndEachIncrease) {
    Recorder r;
    QVLLogCapture capture;
    r.updater.initializePercentageWithTotal(200);
    r.updater.updatePercentageWithIncrement(0);
    r.updater.updatePercentageWithIncrement(1);  // 0 percent: nothing
    r.updater.updatePercentageWithIncrement(1);
    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{"Initializing percent with total 200", "Percentage increased to 1"}));
    EXPECT_EQ(r.sent, (std::vector<int64_t>{1}));
}

TEST(QVLProgressUpdater, ReinitializingStartsOverAndNothingCapsAtHundred) {
    Recorder r;
    r.updater.initializePercentageWithTotal(10);
    r.updater.updatePercentageWithIncrement(25);
    r.updater.initializePercentageWithTotal(10);
    r.updater.updatePercentageWithIncrement(1);
    EXPECT_EQ(r.sent, (std::vector<int64_t>{250, 10}));
    EXPECT_EQ(r.updater.finished(), 1);
}

TEST(QVLProgressUpdater, ZeroTotalAndOverflowSendNothingAndDoNotCrash) {
    Recorder r;
    r.updater.initializePercentageWithTotal(0);
    r.updater.updatePercentageWithIncrement(5);
    EXPECT_TRUE(r.sent.empty());
    r.updater.initializePercentageWithTotal(INT64_MAX);
    r.updater.updatePercentageWithIncrement(INT64_MAX);
    r.updater.updatePercentageWithIncrement(INT64_MAX);  // wraps negative: no message
    EXPECT_EQ(r.sent, (std::vector<int64_t>{100}));
}

TEST(QVLProgressUpdater, WithoutSenderPercentagesAreDropped) {
    QVLProgressUpdater updater;
    updater.initializePercentageWithTotal(2);
    updater.updatePercentageWithIncrement(1);
    EXPECT_EQ(updater.reportedPercent(), 50);
}

}  // namespace
}  // namespace qvl
