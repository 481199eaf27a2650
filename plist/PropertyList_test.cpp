#include "plist/PropertyList.h"

#include <gtest/gtest.h>

namespace qvl::plist {
namespace {

TEST(PropertyList, DetectsTheEncoding) {
    Format format;
    ASSERT_TRUE(read(writeBinary(Value(7)), nullptr, &format));
    EXPECT_EQ(format, Format::Binary);
    ASSERT_TRUE(read("\xEF\xBB\xBF" + writeXML(Value(7)), nullptr, &format));
    EXPECT_EQ(format, Format::XML);

    ReadError error;
    EXPECT_FALSE(read(std::string_view(), &error));
    EXPECT_EQ(error.code, ReadError::kEmpty);
    EXPECT_FALSE(read("hello", &error));
    EXPECT_EQ(error.code, ReadError::kUnknownFormat);
    EXPECT_FALSE(read("bplist01" + std::string(40, '\0'), &error));
    EXPECT_EQ(error.code, ReadError::kUnsupported);
}

TEST(PropertyList, EqualityRules) {
    EXPECT_EQ(Value(1), Value(1.0));
    EXPECT_EQ(Value(uint64_t{1} << 63), Value(9223372036854775808.0));
    EXPECT_NE(Value(true), Value(1));
    EXPECT_NE(Value(UINT64_MAX), Value(-1));
    EXPECT_NE(Value((int64_t{1} << 53) + 1), Value(static_cast<double>((int64_t{1} << 53) + 1)));
    EXPECT_NE(Value(Date{5}), Value(5.0));
    Dictionary ab, ba;
    ab.set("a", Value(1));
    ab.set("b", Value("x"));
    ba.set("b", Value("x"));
    ba.set("a", Value(1.0));
    EXPECT_EQ(Value(ab), Value(ba));
    ba.set("c", Value(false));
    EXPECT_NE(Value(ab), Value(ba));
    EXPECT_NE(Value(Array{Value(1), Value(2)}), Value(Array{Value(2), Value(1)}));
}

}  // namespace
}  // namespace qvl::plist
