#include "platform/notify/QVLNotificationCenter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace qvl::platform {
namespace {

TEST(QVLNotificationCenterTest, DeliversByNameInOrderUntilRemovedAndLetsObserversPost) {
    QVLNotificationCenter center;
    std::vector<std::string> calls;
    const auto first =
        center.addObserver("A", [&](const QVLNotification& n) { calls.push_back("1" + n.name); });
    center.addObserver("A", [&](const QVLNotification& n) { calls.push_back("2" + n.name); });
    EXPECT_EQ(center.addObserver("A", nullptr), 0u);
    // An observer may register and post: the one it adds is first called by its own post.
    center.addObserver("B", [&](const QVLNotification&) {
        center.addObserver("inner", [&](const QVLNotification& n) { calls.push_back("3" + n.name); });
        center.post("inner");
    });
    center.post("A");
    center.removeObserver(first);
    center.post("A");
    center.post("B");
    center.post("C");
    EXPECT_EQ(calls, (std::vector<std::string>{"1A", "2A", "2A", "3inner"}));
    EXPECT_EQ(center.observerCount(), 3u);
}

TEST(QVLNotificationCenterTest, ConcurrentPostsAndRegistrations) {
    QVLNotificationCenter center;
    std::atomic<int> count{0};
    center.addObserver("N", [&](const QVLNotification&) { count.fetch_add(1); });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 500; ++i) {
                center.post("N");
                center.removeObserver(center.addObserver("M", [](const QVLNotification&) {}));
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(count.load(), 2000);
    EXPECT_EQ(center.observerCount(), 1u);
}

}  // namespace
}  // namespace qvl::platform
