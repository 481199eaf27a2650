#include "base/UTF8.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "tests/support/TestSupport.h"

namespace qvl {
namespace {

struct Row {
    std::string bytes;
    bool valid;
};

std::vector<Row> rows() {
    std::vector<Row> rows = {
        {"", true},
        {"\xC2\x80", true},                // U+0080, the first two-byte form
        {"\xE0\xA0\x80", true},            // U+0800
        {"\xED\x9F\xBF", true},            // U+D7FF, below the surrogates
        {"\xEE\x80\x80", true},            // U+E000, above them
        {"\xEF\xBF\xBF", true},            // U+FFFF
        {"\xF0\x90\x80\x80", true},        // U+10000
        {"\xF4\x8F\xBF\xBF", true},        // U+10FFFF, the last code point
        {"abcdefg\xE2\x82\xACxyz", true},  // a sequence across the 8-byte step
        {"\xC0\xAF", false},               // overlong forms, two to four bytes
        {"\xC1\xBF", false},
        {"\xE0\x9F\xBF", false},
        {"\xF0\x8F\xBF\xBF", false},
        {"\xED\xA0\x80", false},      // U+D800
        {"\xED\xBF\xBF", false},      // U+DFFF
        {"\xF4\x90\x80\x80", false},  // U+110000
        {"\xF5\x80\x80\x80", false},
        {"\xF8\x88\x80\x80\x80", false},  // a five-byte form
        {"\x80", false},                  // a continuation byte alone
        {"\xE2\x28\xA1", false},          // a sequence broken off by ASCII
        {"abcdefgh\xF0\x9F\x98", false},  // cut off at the end, after a run of ASCII
    };
    // A bad byte before, inside and after runs of ASCII, in full words and in the tail.
    for (size_t at : {0, 1, 7, 8, 9, 15, 16, 18}) {
        std::string s(19, 'a');
        s[at] = '\xFF';
        rows.push_back({s, false});
    }
    return rows;
}

std::string hex(const std::string& bytes) {
    std::string out = "x";  // so that an empty row is still a word
    char digits[3];
    for (unsigned char c : bytes) {
        std::snprintf(digits, sizeof digits, "%02x", c);
        out += digits;
    }
    return out;
}

// Each row through the validator and both conversions; unpaired surrogates
// of UTF-16; then every row's verdict against Python's own decoder.
TEST(UTF8, AcceptsWhatPythonAcceptsAndLeavesOutputsAloneOnFailure) {
    std::string words, expected;
    for (const Row& row : rows()) {
        EXPECT_EQ(isValidUTF8(row.bytes), row.valid) << hex(row.bytes);
        std::vector<uint16_t> units{0x41};  // a failed conversion leaves it alone
        ASSERT_EQ(appendUTF16(row.bytes, units), row.valid) << hex(row.bytes);
        std::string back;
        EXPECT_TRUE(appendUTF8FromUTF16(units.data(), units.size(), back));
        EXPECT_EQ(back, row.valid ? "A" + row.bytes : "A") << hex(row.bytes);
        words += " " + hex(row.bytes);
        expected += row.valid ? '1' : '0';
    }
    const std::vector<std::vector<uint16_t>> unpaired = {
        {0x41, 0xD800}, {0x41, 0xDC00}, {0x41, 0xD83D, 0x42}};
    for (const auto& units : unpaired) {
        std::string out = "kept";
        EXPECT_FALSE(appendUTF8FromUTF16(units.data(), units.size(), out));
        EXPECT_EQ(out, "kept");
    }
    if (testing::runTool("python3 -c ''").status != 0) GTEST_SKIP() << "python3 is not installed";
    const std::string python = R"(
import sys
def ok(b):
    try: b.decode("utf-8"); return "1"
    except UnicodeDecodeError: return "0"
print("".join(ok(bytes.fromhex(w[1:])) for w in sys.argv[1:]))
)";
    EXPECT_EQ(testing::commandOutput("python3 -c '" + python + "'" + words), expected + "\n");
}

}  // namespace
}  // namespace qvl
