#include "base/QVLFormat.h"

#include <gtest/gtest.h>

using qvl::QVLStringWithFormat;

namespace sample {

// Objects of a higher floor: described by functions found next to them.
struct Count {
    int64_t n;
};
std::string qvlDescription(const Count& c) {
    return "<" + std::to_string(c.n) + " items>";
}
std::optional<int64_t> qvlIntegerValue(const Count& c) {
    return c.n;
}
struct Label {
    std::string text;
};
std::string qvlDescription(const Label& l) {
    return l.text;
}

}  // namespace sample

TEST(QVLFormat, PrintfConversionsAndLengthModifiersAsOnTheDevice) {
    EXPECT_EQ(
        QVLStringWithFormat("%s: Cannot get attribute from %@", "-[QVLHOperations x]", std::string("/a b")),
        "-[QVLHOperations x]: Cannot get attribute from /a b");
    EXPECT_EQ(QVLStringWithFormat("%d %ld %lld %llu", -7, 123456789012L, -5LL, 18446744073709551615ULL),
              "-7 123456789012 -5 18446744073709551615");
    EXPECT_EQ(QVLStringWithFormat("%x %lx %08x %02x %%", 255, 0xabcdef012L, 0x1234, 5),
              "ff abcdef012 00001234 05 %");
    // An error code of -1 printed with "0x%x" shows 32 bits, with %lx 64.
    EXPECT_EQ(QVLStringWithFormat("(0x%x)", -1), "(0xffffffff)");
    EXPECT_EQ(QVLStringWithFormat("%lx", -1L), "ffffffffffffffff");
    EXPECT_EQ(QVLStringWithFormat("%d", int64_t{0x100000001}), "1");
    EXPECT_EQ(QVLStringWithFormat("%lld", int64_t{0x100000001}), "4294967297");
}

TEST(QVLFormat, ObjectsDescribeThemselves) {
    const sample::Count count{42};
    const sample::Label label{"text"};
    EXPECT_EQ(QVLStringWithFormat("%@ %@", count, label), "<42 items> text");
    EXPECT_EQ(QVLStringWithFormat("%@|%@", &label, static_cast<const sample::Label*>(nullptr)),
              "text|(null)");
    // Numeric conversions read an object's number where it has one.
    EXPECT_EQ(QVLStringWithFormat("%d %x %.1f", count, count, count), "42 2a 42.0");
    EXPECT_EQ(QVLStringWithFormat("%d", label), "text");
}

TEST(QVLFormat, WrongArgumentsNeverCrash) {
    EXPECT_EQ(QVLStringWithFormat("%@ and %s and %d"), "(null) and (null) and (null)");
    EXPECT_EQ(QVLStringWithFormat("%d", "not a number"), "not a number");
    EXPECT_EQ(QVLStringWithFormat("%s", 12), "12");
    EXPECT_EQ(QVLStringWithFormat("one", 1, 2, 3), "one");
    EXPECT_EQ(QVLStringWithFormat("%", 1), "%");
    EXPECT_EQ(QVLStringWithFormat("%q!", 1), "%q!");
    EXPECT_EQ(QVLStringWithFormat("%s", static_cast<const char*>(nullptr)), "(null)");
    EXPECT_EQ(QVLStringWithFormat("%99999999999d|", 1).size(), 10000u);  // width is bounded
}
