// BinaryDictionaryWriter: writes a binary ("bplist00") property list whose
// top object is a dictionary one entry at a time, so that a large one (a
// directory manifest of a whole tree) is never held whole in memory. Each
// entry's objects go out as soon as it is added, children before their
// container; finish() writes the top dictionary, the offset table and the
// trailer, which names the top dictionary (the last object).
//
// Against writeBinary, which sees the whole value first:
//   - references are always 4 bytes wide: the object count is not known when
//     the first reference is written (a value with more than 2^32 - 2
//     objects is refused);
//   - only dictionary keys and short strings (through a bounded table),
//     booleans, integers below 256 and empty data are stored once; other
//     values are written where they occur. Either way the file reads back as the same
//     value.
// A key added twice is written twice; readers keep the first position and
// the last value, as a dictionary's set() does.
//
// Memory: the offset table (8 bytes per object), the two references of each
// entry, the table of shared objects (bounded) and one output buffer.
//
// Thread-safety: one thread at a time.
#pragma once

#include <array>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "plist/PlistValue.h"

namespace qvl::plist {

class BinaryDictionaryWriter {
  public:
    // Takes the bytes in order; answers 0, or an errno value that stops the
    // writer.
    using Sink = std::function<int(std::span<const uint8_t>)>;
    // The error of a value that cannot be encoded: a string that is not
    // valid UTF-8, nesting deeper than kMaxDepth, too many objects.
    static constexpr int kNotEncodable = EILSEQ;

    explicit BinaryDictionaryWriter(Sink sink);
    BinaryDictionaryWriter(const BinaryDictionaryWriter&) = delete;
    BinaryDictionaryWriter& operator=(const BinaryDictionaryWriter&) = delete;

    // Adds `value` under `key`. False once anything has failed; the writer
    // then takes nothing more.
    bool add(std::string_view key, const Value& value);
    bool add(std::string_view key, const Dictionary& value);
    // Writes the top dictionary and the closing tables and hands the last
    // bytes to the sink. False when anything failed.
    bool finish();
    // 0, kNotEncodable, or the sink's error.
    int error() const { return error_; }

  private:
    struct TransparentHash {
        using is_transparent = void;
        size_t operator()(std::string_view s) const;
    };

    bool failWith(int error);
    // Each answers the index of the object written (or shared), or -1.
    int64_t put(const Value& v, int depth);
    int64_t putDictionary(const Dictionary& d, int depth);
    int64_t putArray(const Array& a, int depth);
    int64_t putString(std::string_view s, bool share);
    int64_t putScalar(const Value& v);
    // Starts a new object at the current position; -1 when there is no room.
    int64_t beginObject();
    // Looks `tag` + `bytes` up among the shared objects.
    int64_t shared(char tag, std::string_view bytes);
    void share(int64_t index);
    template <typename PutValue>
    bool addEntry(std::string_view key, PutValue putValue);
    bool flushIfFull();

    // The last strings shared, by where their text lies: the same keys (and
    // short texts) recur in every record as one shared text, so most look-ups
    // end here without hashing. The text is compared too, since memory is
    // reused.
    struct RecentString {
        const char* data = nullptr;
        uint32_t index = 0;
        std::string text;
    };
    RecentString& recentSlot(std::string_view s) {
        return recent_[(reinterpret_cast<uintptr_t>(s.data()) >> 4) % recent_.size()];
    }

    // The strings shared last at each position of the dictionaries near the
    // top: the records of a manifest repeat the same keys, and many of the
    // same values, in the same places, so one comparison mostly finds them.
    static constexpr size_t kCachedDepths = 4;
    static constexpr size_t kCachedPositions = 32;
    struct CachedString {
        std::string text;
        uint32_t index = UINT32_MAX;  // none yet
    };
    // A shared string (see putString) at `slot`, which remembers it.
    int64_t putCachedString(std::string_view s, CachedString& slot);
    CachedString* cachedSlot(int depth, size_t position, bool key) {
        if (static_cast<size_t>(depth) >= kCachedDepths || position >= kCachedPositions) return nullptr;
        return &cached_[(static_cast<size_t>(depth) * kCachedPositions + position) * 2 + (key ? 0 : 1)];
    }

    Sink sink_;
    std::vector<CachedString> cached_ = std::vector<CachedString>(kCachedDepths * kCachedPositions * 2);
    int error_ = 0;
    bool finished_ = false;
    std::string buffer_;
    uint64_t flushed_ = 0;  // bytes handed to the sink
    std::vector<uint64_t> offsets_;
    std::vector<uint32_t> keyRefs_, valueRefs_;
    std::vector<uint32_t> refStack_;  // references of the containers being written
    std::vector<uint16_t> utf16_;
    std::string lookup_;  // the key of the last shared() look-up
    std::unordered_map<std::string, uint32_t, TransparentHash, std::equal_to<>> shared_;
    std::array<RecentString, 256> recent_;
    // Shared scalars: small integers by value, booleans, empty data; the
    // index + 1, 0 for none yet.
    std::array<uint32_t, 256> smallIntegers_{};
    std::array<uint32_t, 2> booleans_{};
    uint32_t emptyData_ = 0;
};

}  // namespace qvl::plist
