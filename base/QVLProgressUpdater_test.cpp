#include "base/QVLProgressUpdater.h"

#include <gtest/gtest.h>

#include <vector>

#include "base/QVLLogCapture.h"

namespace qvl {
namespace {

using Sent = std::vector<int64_t>;

// Each run starts a new total and applies the increments; `sent` is every
// percentage that went out, in order.
TEST(QVLProgressUpdater, SendsAndLogsEachWholePercentOnceAsItRises) {
    const struct {
        int64_t total;
        std::vector<int64_t> increments;
        Sent sent;
    } runs[] = {
        {3, {1, 1, 1}, {33, 66, 100}},
        {200, {0, 1, 1}, {1}},                       // 0 percent and no rise send nothing
        {10, {25}, {250}},                           // nothing caps at 100
        {0, {5}, {}},                                // no total, no percentage
        {INT64_MAX, {INT64_MAX, INT64_MAX}, {100}},  // wraps negative: no message
    };
    for (const auto& run : runs) {
        Sent sent;
        QVLProgressUpdater updater([&sent](int64_t percent) { sent.push_back(percent); });
        updater.initializePercentageWithTotal(run.total);
        for (int64_t increment : run.increments) updater.updatePercentageWithIncrement(increment);
        EXPECT_EQ(sent, run.sent) << run.total;
    }

    // A new total starts over: small percentages are sent again.
    Sent sent;
    QVLProgressUpdater updater([&sent](int64_t percent) { sent.push_back(percent); });
    updater.initializePercentageWithTotal(1);
    updater.updatePercentageWithIncrement(1);
    updater.initializePercentageWithTotal(10);
    updater.updatePercentageWithIncrement(1);
    EXPECT_EQ(sent, (Sent{100, 10}));
    EXPECT_EQ(updater.finished(), 1);

    // Each rise is logged; without a sender the percentages are dropped.
    QVLProgressUpdater quiet;
    QVLLogCapture capture;
    quiet.initializePercentageWithTotal(200);
    quiet.updatePercentageWithIncrement(1);
    quiet.updatePercentageWithIncrement(1);
    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{"Initializing percent with total 200", "Percentage increased to 1"}));
    EXPECT_EQ(quiet.reportedPercent(), 1);
}

}  // namespace
}  // namespace qvl
