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

TEST(PlistXMLReader, ReadsEveryKind) {
    auto v = read(doc(R"(<dict>
  <key>s</key><string> a &amp; b </string>
  <key>d</key><data>
    AAEC
    Aw==
  </data>
  <key>unpadded</key><data>AAE</data>
  <key>t</key><date>2001-01-01T00:01:00Z</date>
  <key>old</key><date>1969-12-31T23:59:59Z</date>
  <key>i</key><array><integer>-9223372036854775808</integer><integer>18446744073709551615</integer>
    <integer> +42 </integer><integer>0x1F</integer></array>
  <key>r</key><array><real>-1.5e3</real><real>+inf</real><real>7</real></array>
  <key>b</key><array><true/><false/></array>
  <key>empty</key><dict/>
</dict>)"));
    ASSERT_TRUE(v);
    const Dictionary& d = *v->asDictionary();
    EXPECT_EQ(*d.getString("s"), " a & b ");
    EXPECT_EQ(*d.getData("d"), (Data{0, 1, 2, 3}));
    EXPECT_EQ(*d.getData("unpadded"), (Data{0, 1}));
    EXPECT_EQ(d.find("t")->asDate()->secondsSince2001, 60.0);
    EXPECT_EQ(d.find("old")->asDate()->toUnix(), -1.0);
    const Array& ints = *d.getArray("i");
    EXPECT_EQ(ints[0].asInteger()->asSigned(), INT64_MIN);
    EXPECT_TRUE(ints[1].asInteger()->isUnsigned);
    EXPECT_EQ(ints[1].asInteger()->asUnsigned(), UINT64_MAX);
    EXPECT_EQ(ints[2], Value(42));
    EXPECT_EQ(ints[3], Value(31));
    const Array& reals = *d.getArray("r");
    EXPECT_EQ(reals[0], Value(-1500.0));
    EXPECT_TRUE(std::isinf(*reals[1].asReal()));
    EXPECT_EQ(reals[2], Value(7.0));
    EXPECT_EQ(*d.getArray("b"), (Array{Value(true), Value(false)}));
    EXPECT_TRUE(d.getDictionary("empty")->empty());
    // File order is kept.
    EXPECT_EQ(d.entries()[2].first, "unpadded");
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
        {"text in true", doc("<true>yes</true>"), ReadError::kCorrupt},
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

TEST(PlistXMLReader, DuplicateKeysKeepFirstPlaceAndLastValue) {
    for (int size : {3, 40}) {  // small and large dictionaries take different paths
        std::string body = "<dict>";
        for (int i = 0; i < size; ++i)
            body += "<key>k" + std::to_string(i) + "</key><integer>" + std::to_string(i) + "</integer>";
        body +=
            "<key>k1</key><string>second</string><key>k0</key><true/><key>k1</key><string>third</string></"
            "dict>";
        auto v = read(doc(body));
        ASSERT_TRUE(v);
        const Dictionary& d = *v->asDictionary();
        ASSERT_EQ(d.size(), static_cast<size_t>(size));
        EXPECT_EQ(d.entries()[0], (Dictionary::Entry{"k0", Value(true)}));
        EXPECT_EQ(d.entries()[1], (Dictionary::Entry{"k1", Value("third")}));
        EXPECT_EQ(d.entries()[2].first, "k2");
    }
}

TEST(PlistXMLReader, NestingIsBoundedAt512) {
    auto nested = [](int depth) {
        std::string s;
        for (int i = 0; i < depth; ++i) s += "<array>";
        for (int i = 0; i < depth; ++i) s += "</array>";
        return doc(s);
    };
    EXPECT_TRUE(read(nested(kMaxDepth)));
    ReadError error;
    EXPECT_FALSE(read(nested(kMaxDepth + 1), &error));
    EXPECT_EQ(error.code, ReadError::kTooDeep);
}

TEST(PlistXMLWriter, ConventionalLayout) {
    Dictionary d;
    d.set("data", Value(Data(100, 'x')));
    d.set("none", Value(Data{}));
    d.set("list", Value(Array{Value(1), Value(-2.5), Value(true), Value(Array{}), Value(Dictionary{})}));
    d.set("when", Value(Date{-0.25}));  // whole seconds, rounded down
    d.set("text", Value("<a & b>\r\n"));
    d.set("big", Value(UINT64_MAX));
    const std::string expected = kHead +
                                 "<dict>\n"
                                 "\t<key>data</key>\n"
                                 "\t<data>\n"
                                 "\teHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4\n"
                                 "\teHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eA==\n"
                                 "\t</data>\n"
                                 "\t<key>none</key>\n"
                                 "\t<data>\n"
                                 "\t</data>\n"
                                 "\t<key>list</key>\n"
                                 "\t<array>\n"
                                 "\t\t<integer>1</integer>\n"
                                 "\t\t<real>-2.5</real>\n"
                                 "\t\t<true/>\n"
                                 "\t\t<array/>\n"
                                 "\t\t<dict/>\n"
                                 "\t</array>\n"
                                 "\t<key>when</key>\n"
                                 "\t<date>2000-12-31T23:59:59Z</date>\n"
                                 "\t<key>text</key>\n"
                                 "\t<string>&lt;a &amp; b&gt;&#13;\n</string>\n"
                                 "\t<key>big</key>\n"
                                 "\t<integer>18446744073709551615</integer>\n"
                                 "</dict>\n"
                                 "</plist>\n";
    const std::string written = writeXML(Value(d));
    EXPECT_EQ(written, expected);
    auto back = read(written);
    ASSERT_TRUE(back);
    EXPECT_EQ(*back->asDictionary()->getString("text"), "<a & b>\r\n");
}

TEST(PlistXMLWriter, RefusesWhatXMLCannotCarry) {
    EXPECT_EQ(writeXML(Value(std::string("a\x01z"))), "");
    EXPECT_EQ(writeXML(Value("\xEF\xBF\xBE")), "");  // U+FFFE
    EXPECT_EQ(writeXML(Value("\xC3")), "");
    Dictionary badKey;
    badKey.set(std::string("k\x02"), Value(1));
    EXPECT_EQ(writeXML(Value(badKey)), "");
    EXPECT_EQ(writeXML(Value(Date{1e13})), "");  // past year 9999
    EXPECT_EQ(writeXML(Value(Date{NAN})), "");
}

}  // namespace
}  // namespace qvl::plist
