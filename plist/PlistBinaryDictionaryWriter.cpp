#include "plist/PlistBinaryDictionaryWriter.h"

#include <algorithm>

#include "plist/PlistBinaryEncoding.h"
#include "plist/PlistCodec.h"

namespace qvl::plist {

namespace {

using namespace detail;

constexpr unsigned kRefSize = 4;
constexpr uint64_t kMaxObjects = UINT32_MAX - 1;
// Bytes gathered before they go to the sink.
constexpr size_t kBufferSize = 256 * 1024;
// What may be shared: the table stops growing at kMaxShared entries, after
// which new values are written where they occur.
constexpr size_t kMaxShared = 1 << 16;
constexpr size_t kMaxSharedStringLength = 128;

// The tag of strings in the shared-object table.
constexpr char kTagString = 's';

// Appends 4-byte big-endian references in one go.
void appendReferences(std::string& out, std::span<const uint32_t> refs) {
    const size_t at = out.size();
    out.resize(at + kRefSize * refs.size());
    char* p = out.data() + at;
    for (uint32_t ref : refs) {
        p[0] = static_cast<char>(ref >> 24);
        p[1] = static_cast<char>(ref >> 16);
        p[2] = static_cast<char>(ref >> 8);
        p[3] = static_cast<char>(ref);
        p += kRefSize;
    }
}

}  // namespace

size_t BinaryDictionaryWriter::TransparentHash::operator()(std::string_view s) const {
    return static_cast<size_t>(hashBytes(s));
}

BinaryDictionaryWriter::BinaryDictionaryWriter(Sink sink) : sink_(std::move(sink)) {
    buffer_.reserve(kBufferSize + 4096);
    buffer_.append(kMagic);
}

bool BinaryDictionaryWriter::failWith(int error) {
    if (error_ == 0) error_ = error;
    return false;
}

bool BinaryDictionaryWriter::add(std::string_view key, const Value& value) {
    return addEntry(key, [&] { return put(value, 1); });
}

bool BinaryDictionaryWriter::add(std::string_view key, const Dictionary& value) {
    return addEntry(key, [&] { return putDictionary(value, 1); });
}

// One entry of the top dictionary: its key, then its value. A value that
// cannot be encoded stops the writer, so no half-written document is finished.
template <typename PutValue>
bool BinaryDictionaryWriter::addEntry(std::string_view key, PutValue putValue) {
    if (error_ != 0 || finished_) return false;
    const int64_t keyIndex = putString(key, false);
    const int64_t valueIndex = keyIndex < 0 ? -1 : putValue();
    if (valueIndex < 0) return failWith(kNotEncodable);
    keyRefs_.push_back(static_cast<uint32_t>(keyIndex));
    valueRefs_.push_back(static_cast<uint32_t>(valueIndex));
    return flushIfFull();
}

bool BinaryDictionaryWriter::finish() {
    if (error_ != 0 || finished_) return false;
    finished_ = true;
    const int64_t top = beginObject();
    if (top < 0) return failWith(kNotEncodable);
    appendMarker(buffer_, kDict, keyRefs_.size());
    for (uint32_t ref : keyRefs_) appendBE(buffer_, ref, kRefSize);
    for (uint32_t ref : valueRefs_) appendBE(buffer_, ref, kRefSize);
    const uint64_t tablePosition = flushed_ + buffer_.size();
    const unsigned offsetSize = widthFor(offsets_.back());
    for (uint64_t offset : offsets_) {
        appendBE(buffer_, offset, offsetSize);
        if (buffer_.size() >= kBufferSize && !flushIfFull()) return false;
    }
    buffer_.append(6, '\0');
    buffer_.push_back(static_cast<char>(offsetSize));
    buffer_.push_back(static_cast<char>(kRefSize));
    appendBE(buffer_, offsets_.size(), 8);
    appendBE(buffer_, static_cast<uint64_t>(top), 8);
    appendBE(buffer_, tablePosition, 8);
    const int err = sink_({reinterpret_cast<const uint8_t*>(buffer_.data()), buffer_.size()});
    buffer_.clear();
    return err == 0 || failWith(err);
}

bool BinaryDictionaryWriter::flushIfFull() {
    if (buffer_.size() < kBufferSize) return true;
    const int err = sink_({reinterpret_cast<const uint8_t*>(buffer_.data()), buffer_.size()});
    if (err != 0) return failWith(err);
    flushed_ += buffer_.size();
    buffer_.clear();
    return true;
}

int64_t BinaryDictionaryWriter::beginObject() {
    if (offsets_.size() >= kMaxObjects) return -1;
    offsets_.push_back(flushed_ + buffer_.size());
    return static_cast<int64_t>(offsets_.size() - 1);
}

int64_t BinaryDictionaryWriter::shared(char tag, std::string_view bytes) {
    lookup_.assign(1, tag);
    lookup_.append(bytes);
    const auto it = shared_.find(std::string_view(lookup_));
    return it == shared_.end() ? int64_t{-1} : int64_t{it->second};
}

void BinaryDictionaryWriter::share(int64_t index) {
    if (shared_.size() < kMaxShared) shared_.emplace(lookup_, static_cast<uint32_t>(index));
}

int64_t BinaryDictionaryWriter::put(const Value& v, int depth) {
    if (const Dictionary* d = v.asDictionary()) return putDictionary(*d, depth);
    if (const Array* a = v.asArray()) return putArray(*a, depth);
    if (const std::string* s = v.asString()) return putString(*s, s->size() <= kMaxSharedStringLength);
    return putScalar(v);
}

int64_t BinaryDictionaryWriter::putDictionary(const Dictionary& d, int depth) {
    if (depth > kMaxDepth) return -1;
    const size_t n = d.size();
    const size_t first = refStack_.size();
    refStack_.resize(first + 2 * n);
    // Children first: a reference is written with its container.
    for (size_t i = 0; i < n; ++i) {
        const std::string& text = d.entries()[i].first;
        CachedString* slot = cachedSlot(depth, i, true);
        const int64_t key = slot ? putCachedString(text, *slot) : putString(text, true);
        if (key < 0) return -1;
        refStack_[first + i] = static_cast<uint32_t>(key);
    }
    for (size_t i = 0; i < n; ++i) {
        const Value& value = d.entries()[i].second;
        const std::string* text = value.asString();
        CachedString* slot =
            text && text->size() <= kMaxSharedStringLength ? cachedSlot(depth, i, false) : nullptr;
        const int64_t child = slot ? putCachedString(*text, *slot) : put(value, depth + 1);
        if (child < 0) return -1;
        refStack_[first + n + i] = static_cast<uint32_t>(child);
    }
    const int64_t index = beginObject();
    if (index < 0) return -1;
    appendMarker(buffer_, kDict, n);
    appendReferences(buffer_, std::span(refStack_).subspan(first, 2 * n));
    refStack_.resize(first);
    return index;
}

int64_t BinaryDictionaryWriter::putArray(const Array& a, int depth) {
    if (depth > kMaxDepth) return -1;
    const size_t first = refStack_.size();
    refStack_.resize(first + a.size());
    for (size_t i = 0; i < a.size(); ++i) {
        const int64_t child = put(a[i], depth + 1);
        if (child < 0) return -1;
        refStack_[first + i] = static_cast<uint32_t>(child);
    }
    const int64_t index = beginObject();
    if (index < 0) return -1;
    appendMarker(buffer_, kArray, a.size());
    appendReferences(buffer_, std::span(refStack_).subspan(first, a.size()));
    refStack_.resize(first);
    return index;
}

int64_t BinaryDictionaryWriter::putCachedString(std::string_view s, CachedString& slot) {
    if (slot.index != UINT32_MAX && slot.text == s) return slot.index;
    const int64_t index = putString(s, true);
    if (index >= 0) {
        slot.text.assign(s);
        slot.index = static_cast<uint32_t>(index);
    }
    return index;
}

int64_t BinaryDictionaryWriter::putString(std::string_view s, bool share) {
    share = share && s.size() <= kMaxSharedStringLength;
    if (share) {
        RecentString& recent = recentSlot(s);
        if (recent.data == s.data() && recent.text == s) return recent.index;
        if (const int64_t known = shared(kTagString, s); known >= 0) {
            recent = {s.data(), static_cast<uint32_t>(known), std::string(s)};
            return known;
        }
    }
    const bool ascii =
        std::all_of(s.begin(), s.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    if (!ascii) {
        utf16_.clear();
        if (!appendUTF16(s, utf16_)) return -1;  // not UTF-8: cannot be encoded
    }
    const int64_t index = beginObject();
    if (index < 0) return -1;
    if (ascii) {
        appendMarker(buffer_, kASCIIString, s.size());
        buffer_.append(s);
    } else {
        appendMarker(buffer_, kUTF16String, utf16_.size());
        for (uint16_t unit : utf16_) appendBE(buffer_, unit, 2);
    }
    if (share) {
        this->share(index);
        recentSlot(s) = {s.data(), static_cast<uint32_t>(index), std::string(s)};
    }
    return index;
}

int64_t BinaryDictionaryWriter::putScalar(const Value& v) {
    // The slot of a shared scalar (index + 1, 0 before it is written), or
    // null for a value written where it occurs.
    uint32_t* slot = nullptr;
    if (const Integer* n = v.asInteger(); n && !n->isNegative() && n->bits < smallIntegers_.size()) {
        slot = &smallIntegers_[n->bits];
    } else if (const bool* b = v.asBoolean()) {
        slot = &booleans_[*b ? 1 : 0];
    } else if (const Data* d = v.asData(); d && d->empty()) {
        slot = &emptyData_;
    }
    if (slot && *slot != 0) return *slot - 1;
    const int64_t index = beginObject();
    if (index < 0) return -1;
    if (!appendScalar(buffer_, v)) return -1;  // not scalars: put() sends them elsewhere
    if (slot) *slot = static_cast<uint32_t>(index) + 1;
    return index;
}

}  // namespace qvl::plist
