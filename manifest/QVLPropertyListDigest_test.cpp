#include "manifest/QVLPropertyListDigest.h"

#include <gtest/gtest.h>

#include "base/QVLLogCapture.h"
#include "tests/support/TestSupport.h"

namespace qvl {
namespace {

using plist::Array;
using plist::Data;
using plist::Dictionary;
using plist::Value;
using testing::dict;

std::string hex(const std::optional<QVLDigest>& d) {
    if (!d) return "none";
    std::string out;
    for (uint8_t b : *d) out += {"0123456789abcdef"[b >> 4], "0123456789abcdef"[b & 15]};
    return out;
}

std::string digestHex(const Value& v) {
    return hex(QVLPropertyListDigest(&v));
}

// Expected values were computed independently (Python hashlib).
TEST(QVLPropertyListDigestTest, KnownAnswers) {
    const struct {
        Value value;
        const char* hex;
    } cases[] = {
        {true, "bf8b4530d8d246dd74ac53a13471bba17941dff7"},
        {false, "5ba93c9db0cff93f52b521d7420e43f6eda2784f"},
        {"array", "4510eb6a47128a28e0bb5914532da544d2c2ae90"},
        // Non-ASCII: n + 1 zero bytes, n counted in UTF-16 units (an emoji is two).
        {"\xc3\xa9", "1489f923c4dca729178b3e3233458550d8dddf29"},
        {"a\xf0\x9f\x98\x80", "9069ca78e7450a285173431b3e52c5c25299e473"},
        {plist::Date{1234.5}, "2e25fb0d1174d7c4068623bdd84d6661251b8576"},
        {Data{1, 2, 3}, "7037807198c22a7d2b0807371d763779a84fdfcf"},
        {12, "f3a56292ca640b843071c9a143404cea014f4d5c"},  // 4 bytes
        {13, "5b72e5f94682737d6092a2535328f538ed011b68"},  // 8 bytes
        {-1, "d9be6524a5f5047db5866813acf3277892a7a30a"},
        {-2, "4fb50fc9dc3da1d13030e03c5bf206a16a1344de"},
        {12.0, "f3a56292ca640b843071c9a143404cea014f4d5c"},
        {13u, "5b72e5f94682737d6092a2535328f538ed011b68"},
        {dict({{"a", 1}, {"b", "x"}}), "e3a4a3ec1c0f622eadecf7ca4f71ed470407c91b"},
        // The running context is finalised on a copy: element i contributes
        // SHA-1 over the element digests 0..i.
        {Array{Value("x"), Value(7), Value(true)}, "b04cb9856413900c3c8ee3125184410361b004ff"},
        {Array{}, "none"},
        {Dictionary{}, "none"},
    };
    for (const auto& c : cases) EXPECT_EQ(digestHex(c.value), c.hex) << c.value.description();
    EXPECT_EQ(digestHex(Value(3.7)), digestHex(Value(3)));
    EXPECT_EQ(digestHex(Value(-3.7)), digestHex(Value(-3)));
    EXPECT_NE(digestHex(Value(true)), digestHex(Value(1)));  // a boolean is not the number 1
    EXPECT_EQ(QVLPropertyListDigest(nullptr), std::nullopt);
}

TEST(QVLPropertyListDigestTest, KeyOrderValuesWithoutDigestAndDuplicates) {
    const Value forward(dict({{"one", 1}, {"two", Array{Value("a"), Value("b")}}, {"three", 3.0}}));
    const Value backward(dict({{"three", 3}, {"two", Array{Value("a"), Value("b")}}, {"one", 1}}));
    const Value swapped(dict({{"one", 1}, {"two", Array{Value("b"), Value("a")}}, {"three", 3}}));
    EXPECT_EQ(digestHex(forward), digestHex(backward));
    EXPECT_NE(digestHex(forward), digestHex(swapped));  // array order matters

    // A key whose value has no digest enters as SHA-1 of the key digest alone:
    // digest("dictionary") XOR SHA-1(digest("e")) is the digest of {"e": {}}.
    const Value base(dict({{"a", 1}})), keyOnly(dict({{"e", Dictionary{}}})), word("dictionary");
    auto expected = *QVLPropertyListDigest(&base);
    const auto pair = *QVLPropertyListDigest(&keyOnly), wordDigest = *QVLPropertyListDigest(&word);
    for (size_t i = 0; i < 20; ++i) expected[i] ^= pair[i] ^ wordDigest[i];
    EXPECT_EQ(digestHex(dict({{"a", 1}, {"e", Dictionary{}}})), hex(expected));
    // An element without a digest ends the array.
    EXPECT_EQ(digestHex(Array{Value("x"), Value(Array{}), Value("y")}), digestHex(Array{Value("x")}));

    // Duplicate array elements leave the array without a digest.
    QVLLogCapture capture;
    EXPECT_EQ(digestHex(Array{Value("same"), Value("same")}), "none");
    EXPECT_TRUE(capture.contains("Failing to hash due to duplicate array entries"));
    // Inside a dictionary, the pair is digested from the key alone.
    EXPECT_EQ(digestHex(dict({{"k", Array{Value("same"), Value("same")}}})),
              digestHex(dict({{"k", Dictionary{}}})));

    // Equality is property-list equality, also on the hashed path of long arrays.
    Array numbers, dictionaries;
    for (int i = 0; i < 40; ++i) numbers.push_back(Value(i));
    for (int i = 0; i < 20; ++i) dictionaries.push_back(Value(dict({{"a", i}, {"b", "x"}})));
    EXPECT_NE(digestHex(numbers), "none");
    EXPECT_NE(digestHex(dictionaries), "none");
    numbers.push_back(Value(17.0));
    dictionaries.push_back(Value(dict({{"b", "x"}, {"a", 5}})));
    EXPECT_EQ(digestHex(numbers), "none");
    EXPECT_EQ(digestHex(dictionaries), "none");
    EXPECT_NE(digestHex(Array{Value(true), Value(1)}), "none");  // a boolean and a number differ
}

TEST(QVLPropertyListDigestTest, ComponentDigestCombinesNameAndManifest) {
    const Value manifest(dict({{"/var/a", dict({{"QVLManifestFileHash", Data(20, 0xAA)}})}}));
    EXPECT_EQ(hex(QVLComponentDigest("backup.BaseBackup", &manifest)),
              "4a3ba3397400ce7f8e2e80d08592b39c62bb7e49");
    const Value empty(Dictionary{});
    EXPECT_EQ(hex(QVLComponentDigest("backup.BaseBackup", nullptr)), digestHex("backup.BaseBackup"));
}

}  // namespace
}  // namespace qvl
