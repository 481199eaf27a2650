#include "plist/PlistValue.h"

#include <gtest/gtest.h>

#include <thread>

namespace plist = qvl::plist;

namespace {
std::string key(int i) {
    return "/private/var/mobile/file-" + std::to_string(i);
}
}  // namespace

// Large dictionaries switch to a hashed index; it must stay right through
// appends (with and without reallocation), replacements, erasures, copies and moves.
TEST(PlistDictionary, IndexStaysRightThroughMutation) {
    plist::Dictionary d;
    for (int i = 0; i < 5000; ++i) {
        d.set(key(i), plist::Value(i));
        ASSERT_NE(d.find(key(i)), nullptr);
        ASSERT_NE(d.find(key(i / 2)), nullptr);
        ASSERT_EQ(d.find(key(i + 1)), nullptr);
    }
    d.set(key(7), plist::Value("replaced"));
    EXPECT_EQ(d.size(), 5000u);
    EXPECT_EQ(d.entries()[7].first, key(7));
    EXPECT_EQ(*d.getString(key(7)), "replaced");
    d.reserve(100000);
    EXPECT_EQ(d.getInteger(key(4999))->asSigned(), 4999);
    EXPECT_TRUE(d.erase(key(0)));
    EXPECT_EQ(d.find(key(0)), nullptr);
    EXPECT_EQ(d.getInteger(key(1))->asSigned(), 1);

    plist::Dictionary copy = d;
    plist::Dictionary moved = std::move(d);
    for (int i = 1; i < 5000; i += 499) {
        EXPECT_NE(copy.find(key(i)), nullptr);
        EXPECT_NE(moved.find(key(i)), nullptr);
    }
    EXPECT_TRUE(plist::Value(copy) == plist::Value(moved));
}

TEST(PlistDictionary, ConcurrentReadersOfAConstDictionary) {
    plist::Dictionary d;
    for (int i = 0; i < 2000; ++i) d.appendUnchecked(key(i), plist::Value(i));
    const plist::Dictionary& shared = d;
    std::vector<std::thread> readers;
    std::atomic<int> misses{0};
    for (int t = 0; t < 4; ++t)
        readers.emplace_back([&] {
            for (int i = 0; i < 2000; ++i)
                if (!shared.find(key(i))) ++misses;
        });
    for (auto& r : readers) r.join();
    EXPECT_EQ(misses.load(), 0);
}
