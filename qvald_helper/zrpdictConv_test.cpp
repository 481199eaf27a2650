#include "qvald_helper/zrpdictConv.h"

#include <gtest/gtest.h>

#include "qvald_helper/QVLLogCapture.h"

namespace qvl {
namespace {

TEST(ZrpdictConvTest, ConvertsSupportedKindsAndKeepsOrder) {
    zrp::Dictionary in;
    in.setInt64("z", -7);
    in.setBool("flag", true);
    in.setString("path", "/private/var/QVLWorkContainer");
    in.setInt64("one", 1);

    const plist::Dictionary out = dictionaryWithZRPDictionary(in);
    ASSERT_EQ(out.size(), 4u);
    EXPECT_EQ(out.entries()[0].first, "z");
    EXPECT_EQ(out.entries()[1].first, "flag");
    ASSERT_NE(out.getInteger("z"), nullptr);
    EXPECT_EQ(out.getInteger("z")->asSigned(), -7);
    // A boolean stays a boolean and the integer 1 stays a number; both read as true.
    EXPECT_TRUE(out.find("flag")->isBoolean());
    EXPECT_TRUE(out.find("one")->isInteger());
    EXPECT_EQ(out.find("flag")->boolValue(), true);
    EXPECT_EQ(out.find("one")->boolValue(), true);
    EXPECT_EQ(*out.getString("path"), "/private/var/QVLWorkContainer");
}

TEST(ZrpdictConvTest, NestedDictionariesKeepTheirNesting) {
    zrp::Dictionary innermost;
    innermost.setString("leaf", "x");
    innermost.setData("dropped", std::vector<uint8_t>{1, 2});
    zrp::Dictionary middle;
    middle.set("c", zrp::Value(innermost));
    zrp::Dictionary outer;
    outer.set("b", zrp::Value(middle));
    zrp::Dictionary in;
    in.set("a", zrp::Value(outer));

    QVLLogCapture capture;
    const plist::Dictionary out = dictionaryWithZRPDictionary(in);
    const plist::Dictionary* c = out.getDictionary("a");
    ASSERT_NE(c, nullptr);
    c = c->getDictionary("b");
    ASSERT_NE(c, nullptr);
    c = c->getDictionary("c");
    ASSERT_NE(c, nullptr);
    ASSERT_EQ(c->size(), 1u);
    EXPECT_EQ(*c->getString("leaf"), "x");
    // Rules apply at every depth.
    EXPECT_TRUE(capture.contains("The value for key dropped has a type that is not supported yet"));
}

TEST(ZrpdictConvTest, UnsupportedKindsAreDroppedEachWithALogLine) {
    zrp::Dictionary in;
    in.setString("before", "kept");
    in.set("unsigned", zrp::Value(uint64_t{5}));
    in.set("double", zrp::Value(1.5));
    in.set("date", zrp::Value(zrp::Date{1}));
    in.setData("data", std::vector<uint8_t>{0xff});
    in.set("array", zrp::Value(zrp::Array{zrp::Value(true)}));
    in.set("uuid", zrp::Value(zrp::UUID{}));
    in.set("null", zrp::Value());
    in.setBool("after", false);

    QVLLogCapture capture;
    const plist::Dictionary out = dictionaryWithZRPDictionary(in);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(*out.getString("before"), "kept");
    EXPECT_EQ(out.getBoolean("after"), false);
    for (const char* key : {"unsigned", "double", "date", "data", "array", "uuid", "null"}) {
        EXPECT_TRUE(capture.contains(std::string("The value for key ") + key +
                                     " has a type that is not supported yet"))
            << key;
    }
}

TEST(ZrpdictConvTest, InvalidUTF8DropsOnlyItsEntry) {
    zrp::Dictionary in;
    in.setString("good", "caf\xc3\xa9");
    in.setString("badValue", "\xc3\x28");
    in.setString("overlong", "\xc0\xaf");
    in.setString("surrogate", "\xed\xa0\x80");
    in.setString(std::string("bad\xff"
                             "key"),
                 "v");
    in.setString("truncated", "ab\xe2\x82");

    QVLLogCapture capture;
    const plist::Dictionary out = dictionaryWithZRPDictionary(in);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(*out.getString("good"), "caf\xc3\xa9");
    EXPECT_TRUE(
        capture.contains("The string value for key badValue is not valid UTF-8; the entry is dropped"));
    EXPECT_TRUE(capture.contains("A key that is not valid UTF-8 (bad\\xffkey) was dropped with its value"));
}

TEST(ZrpdictConvTest, InitReplacesTheReceiverAndEmptyGivesEmpty) {
    plist::Dictionary receiver;
    receiver.set("stale", plist::Value(true));
    initWithZRPDictionary(receiver, zrp::Dictionary());
    EXPECT_TRUE(receiver.empty());
}

}  // namespace
}  // namespace qvl
