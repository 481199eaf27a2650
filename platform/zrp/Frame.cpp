// The ZRP wire codec. A frame is "ZRP1", a little-endian u32 body length and
// one encoded value, which must be a dictionary. The decoder treats every body
// as hostile: each length and count is checked against the bytes that are
// left before anything is allocated for it.
#include <algorithm>
#include <cstring>
#include <unordered_set>

#include "platform/zrp/ZRP.h"

namespace qvl::zrp {

namespace {

void putU32(std::vector<uint8_t>& out, uint32_t v) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

void putU64(std::vector<uint8_t>& out, uint64_t v) {
    for (int i = 0; i < 8; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

// Most messages are a few short entries: the frame's first buffer holds them
// whole, so encoding one costs one allocation rather than a doubling series.
constexpr size_t kTypicalFrameSize = 256;

class Encoder {
  public:
    bool encodeMessage(const Dictionary& message) {
        out_.reserve(kTypicalFrameSize);
        out_.insert(out_.end(), std::begin(kFrameMagic), std::end(kFrameMagic));
        putU32(out_, 0);  // patched below
        if (!encodeDictionary(message, 1)) return false;
        const size_t bodyLength = out_.size() - kFrameHeaderSize;
        if (bodyLength > kMaxBodyLength) return fail("message body exceeds 16 MiB");
        for (int i = 0; i < 4; ++i) out_[4 + i] = static_cast<uint8_t>(bodyLength >> (8 * i));
        return true;
    }

    EncodedFrame take() { return EncodedFrame{std::move(out_), std::move(descriptors_)}; }
    const std::string& error() const { return error_; }

  private:
    bool fail(std::string why) {
        error_ = std::move(why);
        return false;
    }

    // Stops as soon as the output passes the body limit, so an oversized
    // message costs at most one limit's worth of memory.
    bool tooLarge() const { return out_.size() > kFrameHeaderSize + kMaxBodyLength; }

    bool putBytes(std::string_view bytes, bool allowNul) {
        if (!allowNul && bytes.find('\0') != std::string_view::npos)
            return fail("string or key holds a NUL byte");
        if (bytes.size() > kMaxBodyLength) return fail("message body exceeds 16 MiB");
        putU32(out_, static_cast<uint32_t>(bytes.size()));
        out_.insert(out_.end(), bytes.begin(), bytes.end());
        return !tooLarge() || fail("message body exceeds 16 MiB");
    }

    bool encodeDictionary(const Dictionary& d, int depth) {
        if (depth > kMaxDepth) return fail("message nested deeper than 64");
        out_.push_back(static_cast<uint8_t>(Type::Dictionary));
        putU32(out_, static_cast<uint32_t>(d.size()));
        for (size_t i = 0; i < d.size(); ++i) {
            const Dictionary::Entry& e = d.entry(i);
            if (!putBytes(e.key, false) || !encodeValue(e.value, depth)) return false;
        }
        return true;
    }

    bool encodeValue(const Value& v, int depth) {
        const Type type = v.type();
        switch (type) {
            case Type::Dictionary:
                return encodeDictionary(*v.asDictionary(), depth + 1);
            case Type::Array: {
                if (depth + 1 > kMaxDepth) return fail("message nested deeper than 64");
                out_.push_back(static_cast<uint8_t>(type));
                putU32(out_, static_cast<uint32_t>(v.asArray()->size()));
                for (const Value& item : *v.asArray())
                    if (!encodeValue(item, depth + 1)) return false;
                return true;
            }
            default:
                break;
        }
        out_.push_back(static_cast<uint8_t>(type));
        switch (type) {
            case Type::Null:
                break;
            case Type::Boolean:
                out_.push_back(*v.asBool() ? 1 : 0);
                break;
            case Type::Int64:
                putU64(out_, static_cast<uint64_t>(*v.asInt64()));
                break;
            case Type::Uint64:
                putU64(out_, *v.asUint64());
                break;
            case Type::Double: {
                uint64_t bits;
                std::memcpy(&bits, v.asDouble(), sizeof bits);
                putU64(out_, bits);
                break;
            }
            case Type::Date:
                putU64(out_, static_cast<uint64_t>(v.asDate()->nanoseconds));
                break;
            case Type::Data: {
                const Data& d = *v.asData();
                return putBytes(std::string_view(reinterpret_cast<const char*>(d.data()), d.size()), true);
            }
            case Type::String:
                return putBytes(*v.asString(), false);
            case Type::UUID:
                out_.insert(out_.end(), v.asUUID()->begin(), v.asUUID()->end());
                break;
            case Type::FileDescriptor: {
                const int fd = v.asFileDescriptor()->get();
                if (fd < 0) return fail("file descriptor value holds no descriptor");
                if (descriptors_.size() >= kMaxDescriptors) return fail("more than 16 file descriptors");
                putU32(out_, static_cast<uint32_t>(descriptors_.size()));
                descriptors_.push_back(fd);
                break;
            }
            case Type::Array:
            case Type::Dictionary:
                break;
        }
        return !tooLarge() || fail("message body exceeds 16 MiB");
    }

    std::vector<uint8_t> out_;
    std::vector<int> descriptors_;
    std::string error_;
};

}  // namespace

// Decoder is a friend of Dictionary so that it can append entries whose keys
// it has already checked for duplicates (by comparing with the keys before
// them in a small dictionary, with a hash set in a large one, so that a
// hostile dictionary of a million keys costs linear time).
class Decoder {
  public:
    Decoder(std::span<const uint8_t> body, std::vector<UniqueFd>& descriptors)
        : p_(body.data()), end_(body.data() + body.size()), descriptors_(descriptors) {}

    std::optional<Dictionary> decodeMessage() {
        if (left() == 0) return fail("empty body");
        uint8_t tag;
        readLE(tag);
        if (tag != static_cast<uint8_t>(Type::Dictionary)) return fail("body is not a dictionary");
        Dictionary d;
        if (!decodeDictionary(d, 1)) return std::nullopt;
        if (p_ != end_) return fail("trailing bytes after the message");
        return d;
    }

    const std::string& error() const { return error_; }

  private:
    std::nullopt_t fail(std::string why) {
        if (error_.empty()) error_ = std::move(why);
        return std::nullopt;
    }
    bool failed(std::string why) {
        fail(std::move(why));
        return false;
    }

    size_t left() const { return static_cast<size_t>(end_ - p_); }

    // A little-endian unsigned integer of T's width.
    template <class T>
    bool readLE(T& v) {
        if (left() < sizeof(T)) return failed("value runs past the end of the body");
        v = 0;
        for (size_t i = 0; i < sizeof(T); ++i) v |= static_cast<T>(static_cast<T>(p_[i]) << (8 * i));
        p_ += sizeof(T);
        return true;
    }
    // A u32 length and that many bytes.
    bool readBytes(std::string_view& out, bool allowNul) {
        uint32_t length;
        if (!readLE(length)) return false;
        if (length > left()) return failed("length runs past the end of the body");
        out = std::string_view(reinterpret_cast<const char*>(p_), length);
        p_ += length;
        if (!allowNul && out.find('\0') != std::string_view::npos)
            return failed("string or key holds a NUL byte");
        return true;
    }
    // Every element takes at least `minElementSize` bytes, so a count that
    // could not fit in what is left is refused before any reservation.
    bool readCount(uint32_t& count, size_t minElementSize) {
        if (!readLE(count)) return false;
        if (count > left() / minElementSize) return failed("count runs past the end of the body");
        return true;
    }

    bool decodeDictionary(Dictionary& d, int depth) {
        if (depth > kMaxDepth) return failed("nesting deeper than 64");
        uint32_t count;
        // key length (4) + value tag (1)
        if (!readCount(count, 5)) return false;
        d.entries_.reserve(count);
        const bool small = count <= kLinearKeyCheck;
        std::unordered_set<std::string_view> seen;
        if (!small) seen.reserve(count);
        for (uint32_t i = 0; i < count; ++i) {
            std::string_view key;
            if (!readBytes(key, false)) return false;
            const bool repeated =
                small ? std::any_of(d.entries_.begin(), d.entries_.end(),
                                    [key](const Dictionary::Entry& e) { return e.key == key; })
                      : !seen.insert(key).second;
            if (repeated) return failed("duplicate key");
            Value value;
            if (!decodeValue(value, depth)) return false;
            d.entries_.push_back(Dictionary::Entry{std::string(key), std::move(value)});
        }
        return true;
    }

    bool decodeArray(Array& a, int depth) {
        if (depth > kMaxDepth) return failed("nesting deeper than 64");
        uint32_t count;
        if (!readCount(count, 1)) return false;
        a.reserve(count);
        for (uint32_t i = 0; i < count; ++i) {
            Value v;
            if (!decodeValue(v, depth)) return false;
            a.push_back(std::move(v));
        }
        return true;
    }

    bool decodeValue(Value& out, int depth) {
        if (++values_ > kMaxValues) return failed("more than 2^20 values in one message");
        uint8_t tag;
        if (!readLE(tag)) return false;
        uint64_t u = 0;
        std::string_view bytes;
        switch (static_cast<Type>(tag)) {
            case Type::Null:
                out = Value(Null{});
                return true;
            case Type::Boolean: {
                uint8_t b;
                if (!readLE(b)) return false;
                if (b > 1) return failed("boolean byte is neither 0 nor 1");
                out = Value(b == 1);
                return true;
            }
            case Type::Int64:
                if (!readLE(u)) return false;
                out = Value(static_cast<int64_t>(u));
                return true;
            case Type::Uint64:
                if (!readLE(u)) return false;
                out = Value(u);
                return true;
            case Type::Double: {
                if (!readLE(u)) return false;
                double d;
                std::memcpy(&d, &u, sizeof d);
                out = Value(d);
                return true;
            }
            case Type::Date:
                if (!readLE(u)) return false;
                out = Value(Date{static_cast<int64_t>(u)});
                return true;
            case Type::Data: {
                if (!readBytes(bytes, true)) return false;
                const auto* b = reinterpret_cast<const uint8_t*>(bytes.data());
                out = Value(Data(b, b + bytes.size()));
                return true;
            }
            case Type::String:
                if (!readBytes(bytes, false)) return false;
                out = Value(std::string(bytes));
                return true;
            case Type::UUID: {
                if (left() < 16) return failed("value runs past the end of the body");
                UUID id;
                std::memcpy(id.data(), p_, 16);
                p_ += 16;
                out = Value(id);
                return true;
            }
            case Type::FileDescriptor: {
                uint32_t index;
                if (!readLE(index)) return false;
                if (index >= descriptors_.size() || !descriptors_[index].valid())
                    return failed("descriptor index without a descriptor");
                auto shared = std::make_shared<const UniqueFd>(std::move(descriptors_[index]));
                out = Value(FileDescriptor{std::move(shared)});
                return true;
            }
            case Type::Array: {
                Array a;
                if (!decodeArray(a, depth + 1)) return false;
                out = Value(std::move(a));
                return true;
            }
            case Type::Dictionary: {
                Dictionary d;
                if (!decodeDictionary(d, depth + 1)) return false;
                out = Value(std::move(d));
                return true;
            }
        }
        return failed("unknown tag");
    }

    // A one-byte null costs a whole Value (about 40 bytes) once decoded, so
    // the number of values is bounded too: a 16 MiB body of nulls must not
    // become 700 MB. No real message comes near a million values.
    static constexpr size_t kMaxValues = 1u << 20;
    // Up to this many keys, comparing each with those before it is cheaper
    // than building a hash set.
    static constexpr uint32_t kLinearKeyCheck = 16;

    size_t values_ = 0;
    const uint8_t* p_;
    const uint8_t* end_;
    std::vector<UniqueFd>& descriptors_;
    std::string error_;
};

std::optional<EncodedFrame> encodeFrame(const Dictionary& message, std::string* error) {
    Encoder encoder;
    if (!encoder.encodeMessage(message)) {
        if (error) *error = encoder.error();
        return std::nullopt;
    }
    return encoder.take();
}

std::optional<uint32_t> decodeFrameHeader(std::span<const uint8_t> header) {
    if (header.size() < kFrameHeaderSize) return std::nullopt;
    if (std::memcmp(header.data(), kFrameMagic, sizeof kFrameMagic) != 0) return std::nullopt;
    uint32_t length = 0;
    for (int i = 0; i < 4; ++i) length |= static_cast<uint32_t>(header[4 + i]) << (8 * i);
    if (length > kMaxBodyLength) return std::nullopt;
    return length;
}

std::optional<Dictionary> decodeFrameBody(std::span<const uint8_t> body, std::vector<UniqueFd> descriptors,
                                          std::string* error) {
    if (body.size() > kMaxBodyLength || descriptors.size() > kMaxDescriptors) {
        if (error) *error = body.size() > kMaxBodyLength ? "body exceeds 16 MiB" : "more than 16 descriptors";
        return std::nullopt;
    }
    Decoder decoder(body, descriptors);
    std::optional<Dictionary> message = decoder.decodeMessage();
    if (!message && error) *error = decoder.error();
    return message;
}

}  // namespace qvl::zrp
