#include <fcntl.h>
#include <unistd.h>

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
    // `levels` containers, each holding the next: dictionaries under "d", or
    // arrays below a top dictionary.
    static Body nested(int levels, bool arrays) {
        Body b = arrays ? Body().dict(1).key("a") : Body();
        for (int i = 1; i < levels; ++i) {
            if (arrays)
                b.u8(0x0A).u32(1);
            else
                b.dict(1).key("d");
        }
        return arrays ? b.u8(0) : b.dict(0);
    }
};

std::optional<Dictionary> decode(const Body& body, std::string* error = nullptr) {
    return decodeFrameBody(body.b, {}, error);
}

int openDevNull() {
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

std::span<const uint8_t> bodyOf(const EncodedFrame& f) {
    return std::span(f.bytes).subspan(kFrameHeaderSize);
}

TEST(ZRPFrame, EveryKindRoundTripsInWireOrder) {
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
    EXPECT_EQ(std::vector<uint8_t>(frame->bytes.begin(), frame->bytes.begin() + 4),
              (std::vector<uint8_t>{'Z', 'R', 'P', '1'}));
    ASSERT_EQ(decodeFrameHeader(frame->bytes), frame->bytes.size() - kFrameHeaderSize);
    std::optional<Dictionary> back = decodeFrameBody(bodyOf(*frame), {});
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, d);
    EXPECT_EQ(back->entry(0).key, "z-first");  // wire order, not sorted
    EXPECT_EQ(back->entry(back->size() - 1).key, "a-last");
}

// The body holds an index; the descriptors go beside it, and the decoder
// closes those the body does not reference.
TEST(ZRPFrame, DescriptorsTravelBesideTheBody) {
    Dictionary d;
    d.set("fd", Value(FileDescriptor{std::make_shared<const UniqueFd>(openDevNull())}));
    std::optional<EncodedFrame> frame = encodeFrame(d);
    ASSERT_TRUE(frame);
    ASSERT_EQ(frame->descriptors, (std::vector<int>{d.find("fd")->asFileDescriptor()->get()}));
    std::vector<UniqueFd> received;
    received.emplace_back(openDevNull());
    received.emplace_back(openDevNull());
    const int referenced = received[0].get(), unused = received[1].get();
    std::optional<Dictionary> back = decodeFrameBody(bodyOf(*frame), std::move(received));
    ASSERT_TRUE(back);
    EXPECT_EQ(back->find("fd")->asFileDescriptor()->get(), referenced);
    EXPECT_EQ(fcntl(unused, F_GETFD), -1);
}

TEST(ZRPFrame, EncoderRefusesWhatCannotTravel) {
    Dictionary tooMany, huge, nul, deep;
    for (int i = 0; i < 17; ++i)
        tooMany.set("fd" + std::to_string(i),
                    Value(FileDescriptor{std::make_shared<const UniqueFd>(openDevNull())}));
    huge.setData("d", std::vector<uint8_t>(kMaxBodyLength, 0));
    nul.setString("k", std::string("a\0b", 3));
    for (int i = 0; i < kMaxDepth; ++i) {  // 65 levels with the top one
        Dictionary outer;
        outer.set("d", Value(std::move(deep)));
        deep = std::move(outer);
    }
    for (const auto& [d, message] : {std::pair{&tooMany, "more than 16 file descriptors"},
                                     {&huge, "message body exceeds 16 MiB"},
                                     {&nul, "string or key holds a NUL byte"},
                                     {&deep, "message nested deeper than 64"}}) {
        std::string error;
        EXPECT_FALSE(encodeFrame(*d, &error)) << message;
        EXPECT_EQ(error, message);
    }
}

TEST(ZRPFrame, HeaderChecksMagicAndLimit) {
    const auto header = [](const char* magic, uint32_t length) {
        return Body().u8(magic[0]).u8(magic[1]).u8(magic[2]).u8(magic[3]).u32(length).b;
    };
    EXPECT_EQ(decodeFrameHeader(header("ZRP1", kMaxBodyLength)), kMaxBodyLength);
    EXPECT_FALSE(decodeFrameHeader(header("ZRP1", kMaxBodyLength + 1)));
    EXPECT_FALSE(decodeFrameHeader(header("ZRP2", 5)));
    const std::vector<uint8_t> whole = header("ZRP1", 5);
    EXPECT_FALSE(decodeFrameHeader(std::span(whole).first(7)));
}

// Counts and lengths are checked against the bytes left before anything is
// reserved, so a 10-byte body claiming 2^32-1 elements fails at once.
TEST(ZRPFrame, MalformedBodiesAreInvalid) {
    Body manyNulls = Body().dict(1).key("a").u8(0x0A).u32((1u << 20) + 1);
    manyNulls.b.resize(manyNulls.b.size() + (1u << 20) + 1, 0x00);
    const std::vector<std::pair<Body, std::string>> cases = {
        {Body(), "empty body"},
        {Body().u8(0x0A).u32(0), "body is not a dictionary"},
        {Body().dict(2).key("k").u8(0).key("k").u8(0), "duplicate key"},
        {Body().dict(1).key("k").u8(0x0C), "unknown tag"},
        {Body().dict(1).key("k").u8(0x01).u8(2), "boolean byte is neither 0 nor 1"},
        {Body().dict(1).key("k").u8(0x07).u32(100).u8('a'), "length runs past the end of the body"},
        {Body().dict(1).key("a").u8(0x06).u32(UINT32_MAX), "length runs past the end of the body"},
        {Body().dict(1).key("k").u8(0x02).u8(1).u8(2), "value runs past the end of the body"},
        {Body().dict(1).key("k").u8(0x08).u32(0), "value runs past the end of the body"},
        {Body().dict(1).key("k").u8(0x09).u32(0), "descriptor index without a descriptor"},
        {Body().dict(0).u8(0), "trailing bytes after the message"},
        {Body().dict(1).key(std::string_view("a\0", 2)).u8(0), "string or key holds a NUL byte"},
        {Body().dict(1).key("k").u8(0x07).bytes(std::string_view("\0", 1)), "string or key holds a NUL byte"},
        {Body().dict(1).key("a").u8(0x0A).u32(UINT32_MAX), "count runs past the end of the body"},
        {Body().dict(UINT32_MAX).u8(0), "count runs past the end of the body"},
        {Body::nested(kMaxDepth + 1, false), "nesting deeper than 64"},
        {Body::nested(kMaxDepth + 1, true), "nesting deeper than 64"},
        {manyNulls, "more than 2^20 values in one message"},
    };
    for (const auto& [body, message] : cases) {
        std::string error;
        EXPECT_FALSE(decode(body, &error)) << message;
        EXPECT_EQ(error, message);
    }
    EXPECT_TRUE(decode(Body::nested(kMaxDepth, false)));
    EXPECT_TRUE(decode(Body::nested(kMaxDepth, true)));
}

}  // namespace
}  // namespace qvl::zrp
