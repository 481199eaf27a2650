#include "qvald_helper/zrpdictConv.h"

#include <gtest/gtest.h>

#include "base/QVLLogCapture.h"

namespace qvl {
namespace {

TEST(ZrpdictConvTest, ConvertsSupportedKindsInOrderAtAnyDepth) {
    zrp::Dictionary inner;
    inner.setString("leaf", "caf\xc3\xa9");
    zrp::Dictionary in;
    in.setInt64("z", -7);
    in.setBool("flag", true);
    in.set("nested", zrp::Value(inner));
    in.setInt64("one", 1);

    // In order; a boolean stays a boolean and the integer 1 stays a number.
    const plist::Dictionary out = dictionaryWithZRPDictionary(in);
    EXPECT_EQ(plist::Value(out).description(),
              "{\n    z = -7;\n    flag = 1;\n    nested = {\n        leaf = caf\xc3\xa9;\n    };\n    one = "
              "1;\n}");
    EXPECT_TRUE(out.find("flag")->isBoolean());
    EXPECT_TRUE(out.find("one")->isInteger());
}

// An entry that can't be converted costs only itself, with one log line.
TEST(ZrpdictConvTest, DropsOnlyTheEntriesItCannotConvert) {
    zrp::Dictionary inner;
    inner.setData("deep", std::vector<uint8_t>{1, 2});
    inner.setString("kept", "x");
    zrp::Dictionary in;
    in.setString("before", "kept");
    in.setData("data", std::vector<uint8_t>{0xff});
    in.set("inner", zrp::Value(inner));
    in.setString("badValue", "\xc3\x28");
    in.setString("overlong", "\xc0\xaf");
    in.setString("surrogate", "\xed\xa0\x80");
    in.setString("truncated", "ab\xe2\x82");
    in.setString(std::string("bad\xff") + "key", "v");
    in.setBool("after", false);

    QVLLogCapture capture;
    const plist::Dictionary out = dictionaryWithZRPDictionary(in);
    EXPECT_EQ(out.size(), 3u);
    EXPECT_EQ(*out.getString("before"), "kept");
    EXPECT_EQ(out.getBoolean("after"), false);
    EXPECT_EQ(out.getDictionary("inner")->size(), 1u);
    for (const char* key : {"data", "deep"}) {
        EXPECT_TRUE(capture.contains(std::string("The value for key ") + key +
                                     " has a type that is not supported yet"))
            << key;
    }
    for (const char* key : {"badValue", "overlong", "surrogate", "truncated"}) {
        EXPECT_TRUE(capture.contains(std::string("The string value for key ") + key +
                                     " is not valid UTF-8; the entry is dropped"))
            << key;
    }
    EXPECT_TRUE(capture.contains("A key that is not valid UTF-8 (bad\\xffkey) was dropped with its value"));
    EXPECT_EQ(capture.lines().size(), 2u + 4u + 1u);
}

}  // namespace
}  // namespace qvl
