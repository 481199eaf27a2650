#include "tools/plexactl/Text.h"

#include <gtest/gtest.h>

using namespace qvl::plexactl;

TEST(PlexactlText, Sizes) {
    EXPECT_EQ(parseSize("4096"), 4096u);
    EXPECT_EQ(parseSize("0"), 0u);
    EXPECT_EQ(parseSize("3K"), 3u << 10);
    EXPECT_EQ(parseSize("64m"), 64u << 20);
    EXPECT_EQ(parseSize("2G"), 2ull << 30);
    EXPECT_EQ(parseSize("17179869183G"), 17179869183ull << 30);
    for (const char* bad :
         {"", "K", "-1", "1.5G", "12KB", "1T", " 1", "1 ", "18446744073709551616", "17179869184G", "0x10"})
        EXPECT_EQ(parseSize(bad), std::nullopt) << bad;
    EXPECT_EQ(parseIndex("7"), 7);
    EXPECT_EQ(parseIndex("-1"), std::nullopt);
    EXPECT_EQ(parseIndex("1x"), std::nullopt);
    EXPECT_EQ(parseIndex("99999999999"), std::nullopt);
}

TEST(PlexactlText, Names) {
    // "Dä" then U+1F600 as a surrogate pair, an unpaired high surrogate, NUL.
    const uint8_t name[] = {'D', 0, 0xE4, 0, 0x3D, 0xD8, 0x00, 0xDE, 0x00, 0xD8, 'x', 0, 0, 0, 'y', 0};
    EXPECT_EQ(utf16leName(name, sizeof name), "D\xC3\xA4\xF0\x9F\x98\x80\xEF\xBF\xBDx");
    // A full field without NUL ends at its size, also mid-pair.
    EXPECT_EQ(utf16leName(name, 5), "D\xC3\xA4");
}
