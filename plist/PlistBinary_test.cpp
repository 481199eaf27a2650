// The binary codec's own cases, on bytes crafted by hand, and what both
// encodings share, run through both. The XML-only cases are in
// PlistXML_test.cpp; the round trip of every kind is the plistlib cross-check's.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <memory>
#include <string>

#include "plist/PlistBinaryDictionaryWriter.h"
#include "plist/PropertyList.h"

namespace qvl::plist {
namespace {

std::string be(uint64_t v, unsigned width) {
    std::string out;
    for (unsigned i = width; i-- > 0;) out.push_back(i < 8 ? static_cast<char>(v >> (8 * i)) : 0);
    return out;
}

// A binary property list assembled by hand from raw object bytes, with every
// trailer field open to tampering.
struct Crafted {
    explicit Crafted(std::vector<std::string> objects = {}) : objects(std::move(objects)) {}

    std::vector<std::string> objects;
    unsigned offsetSize = 1;
    unsigned refSize = 1;
    uint64_t top = 0;
    std::optional<uint64_t> numObjects;
    std::optional<uint64_t> tableOffset;
    std::vector<uint64_t> offsetOverrides;  // replaces the offset of object i when set

    std::string build() const {
        std::string out = "bplist00";
        std::vector<uint64_t> offsets;
        for (const auto& o : objects) {
            offsets.push_back(out.size());
            out += o;
        }
        for (size_t i = 0; i < offsetOverrides.size(); ++i) offsets[i] = offsetOverrides[i];
        const uint64_t table = out.size();
        for (uint64_t off : offsets) out += be(off, offsetSize);
        out += std::string(6, '\0');
        out.push_back(static_cast<char>(offsetSize));
        out.push_back(static_cast<char>(refSize));
        out += be(numObjects.value_or(objects.size()), 8);
        out += be(top, 8);
        out += be(tableOffset.value_or(table), 8);
        return out;
    }
};

std::string arrayOf(std::initializer_list<uint8_t> refs) {
    std::string o(1, static_cast<char>(0xA0 | refs.size()));
    for (uint8_t r : refs) o.push_back(static_cast<char>(r));
    return o;
}

ReadError readError(const std::string& bytes) {
    ReadError error;
    EXPECT_FALSE(read(bytes, &error)) << "read should have failed";
    EXPECT_FALSE(error.message.empty());
    return error;
}

TEST(PlistBinaryReader, RefusesBadTrailersAndObjects) {
    const Crafted good{{"\x09"}};
    ASSERT_TRUE(read(good.build()));

    const struct {
        const char* what;
        void (*change)(Crafted&);
    } cases[] = {
        {"offset width 0", [](Crafted& c) { c.offsetSize = 0; }},
        {"offset width 9", [](Crafted& c) { c.offsetSize = 9; }},
        {"reference width 0", [](Crafted& c) { c.refSize = 0; }},
        {"reference width 9", [](Crafted& c) { c.refSize = 9; }},
        {"no objects", [](Crafted& c) { c.numObjects = 0; }},
        {"more objects than the table holds", [](Crafted& c) { c.numObjects = 2; }},
        {"object count that overflows", [](Crafted& c) { c.numObjects = UINT64_MAX / 2; }},
        {"top object out of range", [](Crafted& c) { c.top = 1; }},
        {"table past the end", [](Crafted& c) { c.tableOffset = 1000; }},
        {"table inside the header", [](Crafted& c) { c.tableOffset = 3; }},
        {"object offset past the objects", [](Crafted& c) { c.offsetOverrides = {9}; }},
        {"object offset inside the header", [](Crafted& c) { c.offsetOverrides = {2}; }},
    };
    for (const auto& c : cases) {
        Crafted crafted = good;
        c.change(crafted);
        EXPECT_EQ(readError(crafted.build()).code, ReadError::kCorrupt) << c.what;
    }
    EXPECT_EQ(readError(good.build().substr(0, 40)).code, ReadError::kCorrupt);

    const struct {
        const char* what;
        std::vector<std::string> objects;
        int code;
    } objects[] = {
        {"reference out of range", {arrayOf({5})}, ReadError::kCorrupt},
        {"array containing itself", {arrayOf({0})}, ReadError::kCorrupt},
        {"cycle through two arrays", {arrayOf({1}), arrayOf({0})}, ReadError::kCorrupt},
        {"array claiming 2^40 items", {"\xAF\x13" + be(1ull << 40, 8)}, ReadError::kCorrupt},
        {"data longer than the file", {"\x4F\x10\xFF"}, ReadError::kCorrupt},
        {"count that is not an integer", {"\x4F\x23" + std::string(8, '\0')}, ReadError::kCorrupt},
        {"integer cut off", {"\x13\x01\x02"}, ReadError::kCorrupt},
        {"integer of 32 bytes", {"\x15" + std::string(32, '\0')}, ReadError::kCorrupt},
        {"16-byte integer above 2^64", {"\x14" + be(1, 8) + be(0, 8)}, ReadError::kUnsupported},
        {"16-byte integer below -2^63", {"\x14" + be(UINT64_MAX, 8) + be(1, 8)}, ReadError::kUnsupported},
        {"UID", {"\x80\x01"}, ReadError::kUnsupported},
        {"fill", {"\x0F"}, ReadError::kUnsupported},
        {"null", {std::string(1, '\0')}, ReadError::kUnsupported},
        {"set", {"\xC0"}, ReadError::kUnsupported},
        {"unknown marker", {"\xE0"}, ReadError::kCorrupt},
        {"dictionary key that is a number", {"\xD1\x01\x01", "\x10\x05"}, ReadError::kCorrupt},
        {"ASCII string with a high byte", {"\x52\x41\xE9"}, ReadError::kCorrupt},
        {"lone low surrogate", {"\x62\xDC\x00\x00\x41"}, ReadError::kCorrupt},
        {"date with a short body", {"\x33\x00"}, ReadError::kCorrupt},
    };
    for (const auto& c : objects) EXPECT_EQ(readError(Crafted{c.objects}.build()).code, c.code) << c.what;

    // What only a reader meets: writers use 8 bytes for negative integers and
    // 8-byte reals, but other tools may write these.
    EXPECT_EQ(read(Crafted{{"\x14" + be(UINT64_MAX, 8) + be(static_cast<uint64_t>(-5), 8)}}.build()),
              Value(-5));
    EXPECT_EQ(read(Crafted{{"\x22" + be(std::bit_cast<uint32_t>(1.5f), 4)}}.build()), Value(1.5));
}

TEST(PlistBinaryReader, SharedContainersCannotExpandWithoutBound) {
    // Layer i is [layer i+1, layer i+1]: 2^60 leaves from a few hundred bytes.
    Crafted c;
    for (int i = 0; i < 60; ++i)
        c.objects.push_back(arrayOf({static_cast<uint8_t>(i + 1), static_cast<uint8_t>(i + 1)}));
    c.objects.push_back("\x09");
    EXPECT_EQ(readError(c.build()).code, ReadError::kCorrupt);
}

// A document large enough to be decoded into an arena: its values outlive
// the tree they came from and change like any other.
TEST(PlistBinaryReader, ValuesOfALargeDocumentOutliveItsTree) {
    auto path = [](int i) { return "/var/mobile/Documents/folder/file" + std::to_string(i); };
    Dictionary files;
    for (int i = 0; i < 20000; ++i) {
        Dictionary record;
        record.set("Hash", Value(Data(20, static_cast<uint8_t>(i))));
        record.set("Name", Value("file" + std::to_string(i)));
        record.set("Size", Value(i));
        files.appendUnchecked(path(i), Value(std::move(record)));
    }
    const Value original(std::move(files));
    const std::string bytes = writeBinary(original);
    ASSERT_GE(bytes.size(), size_t{1} << 20);
    Value kept, moved;
    {
        auto decoded = read(bytes);
        ASSERT_TRUE(decoded);
        EXPECT_EQ(*decoded, original);
        kept = *decoded->asDictionary()->find(path(12345));
        moved = std::move(*decoded->asDictionary()->find(path(0)));
    }
    Dictionary& record = *moved.asDictionary();
    record.set("Extra", Value("added"));
    EXPECT_TRUE(record.erase("Hash"));
    EXPECT_EQ(*record.getString("Extra"), "added");
    EXPECT_EQ(*kept.asDictionary()->getData("Hash"), Data(20, static_cast<uint8_t>(12345)));
    EXPECT_EQ(*kept.asDictionary()->getString("Name"), "file12345");
}

std::string header(std::string_view file) {
    return std::string(file.substr(8, file.size() - 8 - 32));
}
uint8_t trailerByte(std::string_view file, size_t i) {
    return static_cast<uint8_t>(file[file.size() - 32 + i]);
}

TEST(PlistBinaryWriter, SmallestIntegerAndReferenceWidths) {
    const struct {
        Value value;
        std::string object;
    } cases[] = {
        {Value(255), "\x10\xFF"},
        {Value(256), std::string("\x11\x01\x00", 3)},
        {Value(65535), "\x11\xFF\xFF"},
        {Value(65536), std::string("\x12\x00\x01\x00\x00", 5)},
        {Value(int64_t{1} << 32), "\x13" + be(1ull << 32, 8)},
        {Value(-1), "\x13" + be(UINT64_MAX, 8)},
        {Value(uint64_t{1} << 63), "\x14" + be(0, 8) + be(1ull << 63, 8)},
        {Value(Integer::fromUnsigned(7)), "\x10\x07"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(header(writeBinary(c.value)), c.object + "\x08") << c.value.description();

    // References grow to two bytes past 256 objects.
    Array small, large;
    for (int i = 0; i < 255; ++i) small.push_back(Value(i));
    for (int i = 0; i < 256; ++i) large.push_back(Value(i));
    EXPECT_EQ(trailerByte(writeBinary(Value(small)), 7), 1);  // 256 objects: indices 0..255
    EXPECT_EQ(trailerByte(writeBinary(Value(large)), 7), 2);
}

TEST(PlistBinaryWriter, RepeatedStringsAndKeysAreWrittenOnceAndNaNKeepsItsPayload) {
    Array records;
    for (int i = 0; i < 100; ++i) {
        Dictionary d;
        d.set("NSFileOwnerAccountName", Value("mobile"));
        d.set("NSFileSize", Value(i));
        records.push_back(Value(std::move(d)));
    }
    const std::string file = writeBinary(Value(records));
    for (const char* text : {"NSFileOwnerAccountName", "mobile"})
        EXPECT_EQ(file.find(text), file.rfind(text)) << text;
    auto back = read(file);
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, Value(records));

    // A NaN keeps its payload.
    back = read(writeBinary(Value(std::bit_cast<double>(0x7FF8000000000123ull))));
    ASSERT_TRUE(back && back->isReal());
    EXPECT_EQ(std::bit_cast<uint64_t>(*back->asReal()), 0x7FF8000000000123ull);
}

// What the two encodings share, checked through both.

// A chain of `depth` arrays, each holding the next; the last is empty.
std::string nestedArrays(Format format, int depth) {
    std::string open, close;
    for (int i = 0; i < depth; ++i) open += "<array>", close += "</array>";
    if (format == Format::XML) return "<plist>" + open + close + "</plist>";
    Crafted c;
    c.refSize = 2;
    c.offsetSize = 2;
    for (int i = 0; i < depth - 1; ++i) c.objects.push_back("\xA1" + be(i + 1, 2));
    c.objects.push_back("\xA0");
    return c.build();
}

// Small and large dictionaries take different paths, and binary records
// sharing one key list are checked each.
TEST(PlistBothEncodings, RepeatedKeyKeepsItsFirstPlaceAndLastValue) {
    const auto xmlDict = [](int size) {
        std::string body = "<dict>";
        for (int i = 0; i < size; ++i)
            body += "<key>k" + std::to_string(i) + "</key><integer>" + std::to_string(i) + "</integer>";
        return body +
               "<key>k1</key><string>second</string><key>k0</key><true/><key>k1</key><string>third</string>" +
               "</dict>";
    };
    // [d, d], d = {"k0": 5, "k1": 5, "k2": 5, "k1": "second", "k0": true, "k1": "third"}
    const Crafted binary({arrayOf({1, 1}), "\xD6\x02\x03\x04\x03\x02\x03\x05\x05\x05\x06\x07\x08", "Rk0",
                          "Rk1", "Rk2", "\x10\x05", "Vsecond", "\x09", "Uthird"});
    for (const std::string& file :
         {binary.build(), "<plist><array>" + xmlDict(3) + xmlDict(40) + "</array></plist>"}) {
        auto back = read(file);
        ASSERT_TRUE(back);
        for (const Value& v : *back->asArray()) {
            const Dictionary& d = *v.asDictionary();
            EXPECT_EQ(d.entries()[0], (Dictionary::Entry{"k0", Value(true)}));
            EXPECT_EQ(d.entries()[1], (Dictionary::Entry{"k1", Value("third")}));
            EXPECT_EQ(d.entries()[2].first, "k2");
            EXPECT_EQ(d.entries()[d.size() - 1].first, "k" + std::to_string(d.size() - 1));
        }
    }
}

TEST(PlistBothEncodings, WhatTheyCannotCarryAndNestingBoundedAt512) {
    Value deep{Array{}};
    for (int i = 0; i < kMaxDepth; ++i) deep = Value(Array{std::move(deep)});
    Dictionary badKey;
    badKey.set(std::string("k\x02"), Value(1));
    const struct {
        Value value;
        bool binary, xml;  // whether that encoding carries it
    } cases[] = {
        {Value("bad \xFF utf-8"), false, false},
        {Value("\xC3"), false, false},
        {deep, false, false},
        {*deep.asArray()->data(), true, true},  // exactly kMaxDepth levels
        {Value(std::string("a\x01z")), true, false},
        {Value("\xEF\xBF\xBE"), true, false},  // U+FFFE
        {Value(badKey), true, false},
        {Value(Date{1e13}), true, false},  // past year 9999
        {Value(Date{NAN}), true, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(writeBinary(c.value).empty(), !c.binary) << c.value.description();
        EXPECT_EQ(writeXML(c.value).empty(), !c.xml) << c.value.description();
    }
    // Readers stop at the same depth.
    for (Format format : {Format::Binary, Format::XML}) {
        EXPECT_TRUE(read(nestedArrays(format, kMaxDepth)));
        EXPECT_EQ(readError(nestedArrays(format, kMaxDepth + 1)).code, ReadError::kTooDeep);
    }
}

TEST(PlistBinaryDictionaryWriter, SharesKeysAndShortValuesAndStopsAtTheFirstFailure) {
    std::string out;
    int sinkError = 0;
    const auto writer = [&] {
        out.clear();
        return std::make_unique<BinaryDictionaryWriter>([&](std::span<const uint8_t> bytes) {
            out.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
            return sinkError;
        });
    };
    // "a", "k", "n", "v", 1, the first record, "b", the second record, the top.
    auto w = writer();
    Dictionary record, both;
    record.set("k", "v");
    record.set("n", Integer::fromSigned(1));
    both.set("a", record);
    both.set("b", record);
    ASSERT_TRUE(w->add("a", record) && w->add("b", Value(record)) && w->finish());
    ASSERT_GE(out.size(), 32u);
    EXPECT_EQ(out[out.size() - 25], 4);                        // reference width
    EXPECT_EQ(static_cast<uint8_t>(out[out.size() - 17]), 9);  // object count
    EXPECT_EQ(read(out), Value(both));

    w = writer();
    EXPECT_FALSE(w->add("bad \xFF", record));
    EXPECT_FALSE(w->add("good", record));
    EXPECT_EQ(w->error(), BinaryDictionaryWriter::kNotEncodable);
    EXPECT_FALSE(w->finish());

    sinkError = ENOSPC;
    w = writer();
    const Value big{Data(300 * 1024, 7)};
    EXPECT_FALSE(w->add("big", big));
    EXPECT_EQ(w->error(), ENOSPC);
    EXPECT_FALSE(w->finish());
}

}  // namespace
}  // namespace qvl::plist
