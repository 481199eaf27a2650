// What the XML codec does beyond what the plistlib cross-check shows (which
// reads plistlib's own layout and compares ours with it byte for byte):
// the looser forms other writers use, refusals, and text plistlib can't keep.
#include <gtest/gtest.h>

#include <cmath>

#include "plist/PropertyList.h"

namespace qvl::plist {
namespace {

const std::string kHead =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";

std::string doc(const std::string& body) {
    return kHead + body + "\n</plist>\n";
}

TEST(PlistXMLReader, ReadsTheLooserFormsOfOtherWriters) {
    const struct {
        std::string body;
        Value value;
    } cases[] = {
        {"<string> a &amp; b </string>", Value(" a & b ")},
        {"<data>\n    AAEC\n    Aw==\n  </data>", Value(Data{0, 1, 2, 3})},
        {"<data>AAE</data>", Value(Data{0, 1})},  // unpadded
        {"<date>1969-12-31T23:59:59Z</date>", Value(Date{-978307201.0})},
        {"<integer> +42 </integer>", Value(42)},
        {"<integer>0x1F</integer>", Value(31)},
        {"<real>+inf</real>", Value(INFINITY)},
        {"<real>7</real>", Value(7.0)},
    };
    for (const auto& c : cases) {
        auto v = read(doc(c.body));
        ASSERT_TRUE(v) << c.body;
        EXPECT_EQ(*v, c.value) << c.body;
        EXPECT_EQ(v->kind(), c.value.kind()) << c.body;  // 7 and 7.0 are equal, but not of one kind
    }
}

TEST(PlistXMLReader, RefusesWhatIsNotAPropertyList) {
    struct Case {
        const char* what;
        std::string text;
        int code;
    };
    const std::vector<Case> cases = {
        {"entity declarations",
         "<?xml version=\"1.0\"?><!DOCTYPE plist [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;\">]>"
         "<plist><string>&b;</string></plist>",
         ReadError::kUnsupported},
        {"undefined entity", doc("<string>&nope;</string>"), ReadError::kCorrupt},
        {"unknown element", doc("<set/>"), ReadError::kUnsupported},
        {"root that is not plist", "<dict/>", ReadError::kCorrupt},
        {"empty plist", doc(""), ReadError::kCorrupt},
        {"two values", doc("<true/><false/>"), ReadError::kCorrupt},
        {"text between values", doc("<array>x<true/></array>"), ReadError::kCorrupt},
        {"element in a string", doc("<string>a<true/></string>"), ReadError::kCorrupt},
        {"key without value", doc("<dict><key>a</key></dict>"), ReadError::kCorrupt},
        {"value without key", doc("<dict><true/></dict>"), ReadError::kCorrupt},
        {"key outside dict", doc("<array><key>a</key></array>"), ReadError::kCorrupt},
        {"bad base64", doc("<data>AA*A</data>"), ReadError::kCorrupt},
        {"base64 with one digit too many", doc("<data>AAAAA</data>"), ReadError::kCorrupt},
        {"data after padding", doc("<data>AA==AA</data>"), ReadError::kCorrupt},
        {"date with fraction", doc("<date>2020-01-01T00:00:00.5Z</date>"), ReadError::kCorrupt},
        {"February 29 of 2021", doc("<date>2021-02-29T00:00:00Z</date>"), ReadError::kCorrupt},
        {"hour 24", doc("<date>2021-01-01T24:00:00Z</date>"), ReadError::kCorrupt},
        {"integer above 2^64-1", doc("<integer>18446744073709551616</integer>"), ReadError::kCorrupt},
        {"integer below -2^63", doc("<integer>-9223372036854775809</integer>"), ReadError::kCorrupt},
        {"integer with a fraction", doc("<integer>1.5</integer>"), ReadError::kCorrupt},
        {"empty integer", doc("<integer></integer>"), ReadError::kCorrupt},
        {"real that is text", doc("<real>one</real>"), ReadError::kCorrupt},
        {"malformed XML", doc("<array>"), ReadError::kCorrupt},
    };
    for (const auto& c : cases) {
        ReadError error;
        EXPECT_FALSE(read(c.text, &error)) << c.what;
        EXPECT_EQ(error.code, c.code) << c.what << ": " << error.message;
        EXPECT_FALSE(error.message.empty());
    }
}

// plistlib turns a carriage return into a line feed; ours travels as a
// character reference and comes back.
TEST(PlistXMLWriter, CarriageReturnsSurvive) {
    const std::string written = writeXML(Value("<a & b>\r\n"));
    EXPECT_EQ(written, kHead + "<string>&lt;a &amp; b&gt;&#13;\n</string>\n</plist>\n");
    EXPECT_EQ(read(written), Value("<a & b>\r\n"));
}

}  // namespace
}  // namespace qvl::plist
