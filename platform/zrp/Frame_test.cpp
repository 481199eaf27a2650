#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include <gtest/gtest.h>

#include "platform/zrp/ZRP.h"

namespace qvl::zrp {
namespace {

// Builds frame bodies byte by byte, for inputs the encoder would never make.
struct Body {
    std::vector<uint8_t> b;
    Body& u8(uint8_t v) {
        b.push_back(v);
        return *this;
    }
    Body& u32(uint32_t v) {
        for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
        return *this;
    }
    Body& bytes(std::string_view s) {
        u32(static_cast<uint32_t>(s.size()));
        b.insert(b.end(), s.begin(), s.end());
        return *this;
    }
    Body& dict(uint32_t count) { return u8(0x0B).u32(count); }
    Body& key(std::string_view k) { return bytes(k); }
};

std::optional<Dictionary> decode(const Body& body, std::string* error = nullptr) {
    return decodeFrameBody(body.b, {}, error);
}

std::span<const uint8_t> bodyOf(const EncodedFrame& f) {
    return std::span(f.bytes).subspan(kFrameHeaderSize);
}

TEST(ZRPFrame, EveryKindRoundTripsInOrder) {
    Dictionary inner;
    inner.setInt64("n", -5);
    Dictionary d;
    d.setString("z-first", "text");
    d.set("null", Value());
    d.setBool("yes", true);
    d.setInt64("neg", INT64_MIN);
    d.set("big", Value(UINT64_MAX));
    d.set("pi", Value(3.25));
    d.set("when", Value(Date{-1}));
    d.setData("data", std::vector<uint8_t>{0, 1, 0, 255});
    d.set("id", Value(UUID{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}));
    d.set("list", Value(Array{Value(1), Value("two"), Value(inner)}));
    d.set("a-last", Value(inner));

    std::optional<EncodedFrame> frame = encodeFrame(d);
    ASSERT_TRUE(frame);
    ASSERT_EQ(decodeFrameHeader(frame->bytes), frame->bytes.size() - kFrameHeaderSize);
    std::optional<Dictionary> back = decodeFrameBody(bodyOf(*frame), {});
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, d);
    EXPECT_EQ(back->entry(0).key, "z-first");  // wire order, not sorted
    EXPECT_EQ(back->entry(back->size() - 1).key, "a-last");
}

TEST(ZRPFrame, DescriptorsTravelBesideTheBody) {
    int p[2];
    ASSERT_EQ(pipe2(p, O_CLOEXEC), 0);
    Dictionary d;
    d.set("read", Value(FileDescriptor{std::make_shared<const UniqueFd>(p[0])}));
    d.set("write", Value(FileDescriptor{std::make_shared<const UniqueFd>(p[1])}));
    std::optional<EncodedFrame> frame = encodeFrame(d);
    ASSERT_TRUE(frame);
    ASSERT_EQ(frame->descriptors, (std::vector<int>{p[0], p[1]}));

    std::vector<UniqueFd> received;
    received.emplace_back(dup(p[0]));
    received.emplace_back(dup(p[1]));
    received.emplace_back(dup(p[1]));  // not referenced: closed by the decoder
    const int unused = received[2].get();
    std::optional<Dictionary> back = decodeFrameBody(bodyOf(*frame), std::move(received));
    ASSERT_TRUE(back);
    ASSERT_TRUE(back->find("write")->asFileDescriptor());
    EXPECT_EQ(write(back->find("write")->asFileDescriptor()->get(), "x", 1), 1);
    char c = 0;
    EXPECT_EQ(read(back->find("read")->asFileDescriptor()->get(), &c, 1), 1);
    EXPECT_EQ(fcntl(unused, F_GETFD), -1);
}

TEST(ZRPFrame, EncoderRefusesWhatCannotTravel) {
    std::string error;
    Dictionary tooMany;
    for (int i = 0; i < 17; ++i)
        tooMany.set("fd" + std::to_string(i),
                    Value(FileDescriptor{std::make_shared<const UniqueFd>(dup(0))}));
    EXPECT_FALSE(encodeFrame(tooMany, &error));
    EXPECT_EQ(error, "more than 16 file descriptors");

    Dictionary huge;
    huge.setData("d", std::vector<uint8_t>(kMaxBodyLength, 0));
    EXPECT_FALSE(encodeFrame(huge, &error));
    EXPECT_EQ(error, "message body exceeds 16 MiB");

    Dictionary nul;
    nul.setString("k", std::string("a\0b", 3));
    EXPECT_FALSE(encodeFrame(nul));

    Dictionary deep;
    for (int i = 0; i < kMaxDepth; ++i) {
        Dictionary outer;
        outer.set("d", Value(std::move(deep)));
        deep = std::move(outer);
    }
    EXPECT_FALSE(encodeFrame(deep));  // 65 levels
}

TEST(ZRPFrame, HeaderChecksMagicAndLimit) {
    auto header = [](const char* magic, uint32_t length) {
        Body h;
        for (int i = 0; i < 4; ++i) h.u8(static_cast<uint8_t>(magic[i]));
        h.u32(length);
        return h.b;
    };
    EXPECT_EQ(decodeFrameHeader(header("ZRP1", kMaxBodyLength)), kMaxBodyLength);
    EXPECT_FALSE(decodeFrameHeader(header("ZRP1", kMaxBodyLength + 1)));
    EXPECT_FALSE(decodeFrameHeader(header("ZRP2", 5)));
    const std::vector<uint8_t> shortHeader = header("ZRP1", 5);
    EXPECT_FALSE(decodeFrameHeader(std::span(shortHeader).first(7)));
}

TEST(ZRPFrame, MalformedBodiesAreInvalid) {
    struct Case {
        const char* name;
        Body body;
        const char* error;
    };
    std::vector<Case> cases = {
        {"empty", Body(), "empty body"},
        {"not a dictionary", Body().u8(0x0A).u32(0), "body is not a dictionary"},
        {"duplicate key", Body().dict(2).key("k").u8(0).key("k").u8(0), "duplicate key"},
        {"unknown tag", Body().dict(1).key("k").u8(0x0C), "unknown tag"},
        {"boolean 2", Body().dict(1).key("k").u8(0x01).u8(2), "boolean byte is neither 0 nor 1"},
        {"string past end", Body().dict(1).key("k").u8(0x07).u32(100).u8('a'),
         "length runs past the end of the body"},
        {"key past end", Body().dict(1).u32(9).u8('k'), "length runs past the end of the body"},
        {"short integer", Body().dict(1).key("k").u8(0x02).u8(1).u8(2),
         "value runs past the end of the body"},
        {"short uuid", Body().dict(1).key("k").u8(0x08).u32(0), "value runs past the end of the body"},
        {"fd without fd", Body().dict(1).key("k").u8(0x09).u32(0), "descriptor index without a descriptor"},
        {"trailing bytes", Body().dict(0).u8(0), "trailing bytes after the message"},
        {"NUL in key", Body().dict(1).key(std::string_view("a\0", 2)).u8(0),
         "string or key holds a NUL byte"},
        {"NUL in string", Body().dict(1).key("k").u8(0x07).bytes(std::string_view("\0", 1)),
         "string or key holds a NUL byte"},
        {"missing entries", Body().dict(3).key("k").u8(0), "count runs past the end of the body"},
    };
    for (const Case& c : cases) {
        std::string error;
        EXPECT_FALSE(decode(c.body, &error)) << c.name;
        EXPECT_EQ(error, c.error) << c.name;
    }
}

// A count is checked against the bytes left before anything is reserved: a
// 10-byte body claiming 2^32-1 elements must fail at once.
TEST(ZRPFrame, HugeCountsAreRefusedBeforeAllocating) {
    std::string error;
    EXPECT_FALSE(decode(Body().dict(1).key("a").u8(0x0A).u32(UINT32_MAX), &error));
    EXPECT_EQ(error, "count runs past the end of the body");
    EXPECT_FALSE(decode(Body().dict(UINT32_MAX).u8(0), &error));
    EXPECT_EQ(error, "count runs past the end of the body");
    EXPECT_FALSE(decode(Body().dict(1).key("a").u8(0x06).u32(UINT32_MAX), &error));
}

TEST(ZRPFrame, NestingLimitIsSixtyFourLevels) {
    auto nested = [](int levels) {
        Body b;
        for (int i = 1; i < levels; ++i) b.dict(1).key("d");
        b.dict(0);
        return b;
    };
    EXPECT_TRUE(decode(nested(kMaxDepth)));
    std::string error;
    EXPECT_FALSE(decode(nested(kMaxDepth + 1), &error));
    EXPECT_EQ(error, "nesting deeper than 64");

    // Arrays count as levels too.
    auto arrays = [](int levels) {
        Body b = Body().dict(1).key("a");
        for (int i = 1; i < levels; ++i) b.u8(0x0A).u32(1);
        return b.u8(0);
    };
    EXPECT_TRUE(decode(arrays(kMaxDepth)));
    EXPECT_FALSE(decode(arrays(kMaxDepth + 1)));
}

TEST(ZRPFrame, ValueCountIsBounded) {
    const uint32_t count = (1u << 20) + 1;
    Body b = Body().dict(1).key("a").u8(0x0A).u32(count);
    b.b.resize(b.b.size() + count, 0x00);
    std::string error;
    EXPECT_FALSE(decode(b, &error));
    EXPECT_EQ(error, "more than 2^20 values in one message");
}

}  // namespace
}  // namespace qvl::zrp
