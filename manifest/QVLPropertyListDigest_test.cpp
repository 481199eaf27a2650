#include "manifest/QVLPropertyListDigest.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "qvald_helper/QVLLogCapture.h"

namespace qvl {
namespace {

using plist::Array;
using plist::Data;
using plist::Dictionary;
using plist::Value;

constexpr const char* kDuplicateMessage = "Failing to hash due to duplicate array entries";

std::string hex(const std::optional<QVLDigest>& d) {
    if (!d) return "none";
    std::string out;
    for (uint8_t b : *d) {
        char buf[3];
        snprintf(buf, sizeof buf, "%02x", b);
        out += buf;
    }
    return out;
}

std::string digestHex(const Value& v) {
    return hex(QVLPropertyListDigest(&v));
}

Dictionary dict(std::initializer_list<std::pair<const char*, Value>> pairs) {
    Dictionary d;
    for (const auto& [k, v] : pairs) d.set(k, v);
    return d;
}

// Expected values below were computed independently (Python hashlib).
TEST(QVLPropertyListDigestTest, ScalarsMatchKnownAnswers) {
    EXPECT_EQ(digestHex(Value(true)), "bf8b4530d8d246dd74ac53a13471bba17941dff7");
    EXPECT_EQ(digestHex(Value(false)), "5ba93c9db0cff93f52b521d7420e43f6eda2784f");
    EXPECT_EQ(digestHex(Value("array")), "4510eb6a47128a28e0bb5914532da544d2c2ae90");
    EXPECT_EQ(digestHex(Value("")), "5ba93c9db0cff93f52b521d7420e43f6eda2784f");
    // Non-ASCII: n + 1 zero bytes, n counted in UTF-16 units (an emoji is two).
    EXPECT_EQ(digestHex(Value("\xc3\xa9")), "1489f923c4dca729178b3e3233458550d8dddf29");
    EXPECT_EQ(digestHex(Value("a\xf0\x9f\x98\x80")), "9069ca78e7450a285173431b3e52c5c25299e473");
    EXPECT_EQ(digestHex(Value(plist::Date{1234.5})), "2e25fb0d1174d7c4068623bdd84d6661251b8576");
    EXPECT_EQ(digestHex(Value(Data{1, 2, 3})), "7037807198c22a7d2b0807371d763779a84fdfcf");
}

TEST(QVLPropertyListDigestTest, NumberWidthDependsOnlyOnTheValue) {
    EXPECT_EQ(digestHex(Value(12)), "f3a56292ca640b843071c9a143404cea014f4d5c");  // 4 bytes
    EXPECT_EQ(digestHex(Value(13)), "5b72e5f94682737d6092a2535328f538ed011b68");  // 8 bytes
    EXPECT_EQ(digestHex(Value(-1)), "d9be6524a5f5047db5866813acf3277892a7a30a");
    EXPECT_EQ(digestHex(Value(-2)), "4fb50fc9dc3da1d13030e03c5bf206a16a1344de");
    EXPECT_EQ(digestHex(Value(3.7)), digestHex(Value(3)));
    EXPECT_EQ(digestHex(Value(-3.7)), digestHex(Value(-3)));
    EXPECT_EQ(digestHex(Value(13u)), digestHex(Value(13)));
    EXPECT_EQ(digestHex(Value(12.0)), digestHex(Value(12)));
    // A boolean is not the number 1.
    EXPECT_NE(digestHex(Value(true)), digestHex(Value(1)));
}

TEST(QVLPropertyListDigestTest, ContainersMatchKnownAnswers) {
    EXPECT_EQ(digestHex(Value(dict({{"a", Value(1)}, {"b", Value("x")}}))),
              "e3a4a3ec1c0f622eadecf7ca4f71ed470407c91b");
    // The running context is finalised on a copy: element i contributes
    // SHA-1 over the element digests 0..i.
    EXPECT_EQ(digestHex(Value(Array{Value("x"), Value(7), Value(true)})),
              "b04cb9856413900c3c8ee3125184410361b004ff");
}

TEST(QVLPropertyListDigestTest, DictionaryDigestIgnoresKeyOrder) {
    const Value forward(
        dict({{"one", Value(1)}, {"two", Value(Array{Value("a"), Value("b")})}, {"three", Value(3.0)}}));
    const Value backward(
        dict({{"three", Value(3)}, {"two", Value(Array{Value("a"), Value("b")})}, {"one", Value(1)}}));
    EXPECT_EQ(digestHex(forward), digestHex(backward));
    // Array order does matter.
    const Value swapped(
        dict({{"one", Value(1)}, {"two", Value(Array{Value("b"), Value("a")})}, {"three", Value(3)}}));
    EXPECT_NE(digestHex(forward), digestHex(swapped));
}

TEST(QVLPropertyListDigestTest, ValuesWithoutDigest) {
    EXPECT_EQ(QVLPropertyListDigest(nullptr), std::nullopt);
    EXPECT_EQ(digestHex(Value(Array{})), "none");
    EXPECT_EQ(digestHex(Value(Dictionary{})), "none");

    // A key whose value has no digest enters as SHA-1 of the key digest alone.
    const Value base(dict({{"a", Value(1)}}));
    const Value withEmpty(dict({{"a", Value(1)}, {"e", Value(Dictionary{})}}));
    auto expected = *QVLPropertyListDigest(&base);
    // keyOnly = digest("dictionary") XOR SHA-1(digest("e")).
    const Value keyOnly(dict({{"e", Value(Dictionary{})}}));
    const Value dictionaryWord("dictionary");
    const auto dictionaryDigest = *QVLPropertyListDigest(&dictionaryWord);
    const auto pair = *QVLPropertyListDigest(&keyOnly);
    for (size_t i = 0; i < 20; ++i) expected[i] ^= pair[i] ^ dictionaryDigest[i];
    EXPECT_EQ(hex(QVLPropertyListDigest(&withEmpty)), hex(expected));

    // An element without a digest ends the array.
    EXPECT_EQ(digestHex(Value(Array{Value("x"), Value(Array{}), Value("y")})),
              digestHex(Value(Array{Value("x")})));
}

TEST(QVLPropertyListDigestTest, DuplicateArrayElementsHaveNoDigest) {
    QVLLogCapture capture;
    EXPECT_EQ(digestHex(Value(Array{Value("same"), Value("same")})), "none");
    EXPECT_TRUE(capture.contains(kDuplicateMessage));

    // Inside a dictionary, the pair is digested from the key alone.
    const Value withDuplicates(dict({{"k", Value(Array{Value("same"), Value("same")})}}));
    const Value withEmpty(dict({{"k", Value(Dictionary{})}}));
    EXPECT_EQ(digestHex(withDuplicates), digestHex(withEmpty));

    // Equality is property-list equality, also on the hashed path of long arrays.
    Array longArray;
    for (int i = 0; i < 40; ++i) longArray.push_back(Value(i));
    EXPECT_NE(digestHex(Value(longArray)), "none");
    longArray.push_back(Value(17.0));
    EXPECT_EQ(digestHex(Value(longArray)), "none");

    Array dictionaries;
    for (int i = 0; i < 20; ++i) dictionaries.push_back(Value(dict({{"a", Value(i)}, {"b", Value("x")}})));
    EXPECT_NE(digestHex(Value(dictionaries)), "none");
    dictionaries.push_back(Value(dict({{"b", Value("x")}, {"a", Value(5)}})));
    EXPECT_EQ(digestHex(Value(dictionaries)), "none");

    // A boolean and a number are never equal.
    EXPECT_NE(digestHex(Value(Array{Value(true), Value(1)})), "none");
}

TEST(QVLPropertyListDigestTest, ComponentDigestCombinesNameAndManifest) {
    const Value manifest(dict({{"/var/a", Value(dict({{"QVLManifestFileHash", Value(Data(20, 0xAA))}}))}}));
    EXPECT_EQ(hex(QVLComponentDigest("backup.BaseBackup", &manifest)),
              "4a3ba3397400ce7f8e2e80d08592b39c62bb7e49");
    const Value empty(Dictionary{});
    EXPECT_EQ(hex(QVLComponentDigest("backup.BaseBackup", &empty)), digestHex(Value("backup.BaseBackup")));
    EXPECT_EQ(hex(QVLComponentDigest("backup.BaseBackup", nullptr)), digestHex(Value("backup.BaseBackup")));
}

}  // namespace
}  // namespace qvl
