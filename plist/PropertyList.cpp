#include "plist/PropertyList.h"

#include <algorithm>
#include <cstring>

#include "plist/PlistCodec.h"

namespace qvl::plist {

namespace detail {

std::nullopt_t fail(ReadError* error, int code, std::string message) {
    if (error) {
        error->code = code;
        error->message = std::move(message);
    }
    return std::nullopt;
}

namespace {

// Cheap stand-in for a key in the pairwise check of small dictionaries:
// equal keys always have equal fingerprints.
uint64_t fingerprint(const std::string& key) {
    uint64_t head = 0, tail = 0;
    const size_t n = std::min<size_t>(key.size(), 8);
    memcpy(&head, key.data(), n);
    memcpy(&tail, key.data() + key.size() - n, n);
    return (head * 0x9E3779B97F4A7C15ull) ^ tail ^ (static_cast<uint64_t>(key.size()) << 56);
}

// Marks each later occurrence of a key (its value moved to the first one);
// returns whether there was any.
bool mergeDuplicates(std::vector<Dictionary::Entry>& entries, std::vector<bool>& dropped) {
    const size_t n = entries.size();
    auto merge = [&](size_t first, size_t later) {
        if (dropped.empty()) dropped.resize(n);
        entries[first].second = std::move(entries[later].second);
        dropped[later] = true;
    };
    if (n < 16) {
        uint64_t prints[16];
        for (size_t j = 0; j < n; ++j) {
            prints[j] = fingerprint(entries[j].first);
            for (size_t i = 0; i < j; ++i)
                if (prints[i] == prints[j] && !(dropped.size() && dropped[i]) &&
                    entries[i].first == entries[j].first) {
                    merge(i, j);
                    break;
                }
        }
        return !dropped.empty();
    }
    // Sorting (hash, position) pairs puts equal keys next to each other, in
    // file order, without a node per key.
    std::vector<std::pair<uint64_t, size_t>> order(n);
    for (size_t i = 0; i < n; ++i) order[i] = {std::hash<std::string>()(entries[i].first), i};
    std::sort(order.begin(), order.end());
    for (size_t a = 0; a < n;) {
        size_t b = a + 1;
        while (b < n && order[b].first == order[a].first) ++b;
        for (size_t j = a + 1; j < b; ++j)
            for (size_t i = a; i < j; ++i) {
                const size_t first = order[i].second, later = order[j].second;
                if (!(dropped.size() && dropped[first]) && entries[first].first == entries[later].first) {
                    merge(first, later);
                    break;
                }
            }
        a = b;
    }
    return !dropped.empty();
}

}  // namespace

Dictionary makeDictionary(std::vector<Dictionary::Entry>&& entries) {
    std::vector<bool> dropped;
    if (mergeDuplicates(entries, dropped)) {
        size_t kept = 0;
        for (size_t i = 0; i < entries.size(); ++i)
            if (!dropped[i]) {
                if (kept != i) entries[kept] = std::move(entries[i]);
                ++kept;
            }
        entries.resize(kept);
    }
    return Dictionary(std::move(entries));
}

}  // namespace detail

namespace {

constexpr std::string_view kBinaryMagic = "bplist00";

bool looksLikeXML(std::span<const uint8_t> bytes) {
    size_t i = 0;
    // UTF-16 documents start with a byte order mark; expat converts them.
    if (bytes.size() >= 2 &&
        ((bytes[0] == 0xFE && bytes[1] == 0xFF) || (bytes[0] == 0xFF && bytes[1] == 0xFE)))
        return true;
    if (bytes.size() >= 3 && bytes[0] == 0xEF && bytes[1] == 0xBB && bytes[2] == 0xBF) i = 3;
    while (i < bytes.size() && (bytes[i] == ' ' || bytes[i] == '\t' || bytes[i] == '\r' || bytes[i] == '\n'))
        ++i;
    return i < bytes.size() && bytes[i] == '<';
}

}  // namespace

std::optional<Value> read(std::span<const uint8_t> bytes, ReadError* error, Format* formatOut) {
    if (bytes.empty()) return detail::fail(error, ReadError::kEmpty, "property list is empty");
    const std::string_view head(reinterpret_cast<const char*>(bytes.data()),
                                std::min<size_t>(bytes.size(), 8));
    if (head == kBinaryMagic) {
        auto value = detail::readBinary(bytes, error);
        if (value && formatOut) *formatOut = Format::Binary;
        return value;
    }
    if (head.starts_with("bplist"))
        return detail::fail(error, ReadError::kUnsupported,
                            "binary property list version \"" + std::string(head) + "\" is not supported");
    if (looksLikeXML(bytes)) {
        auto value = detail::readXML(bytes, error);
        if (value && formatOut) *formatOut = Format::XML;
        return value;
    }
    return detail::fail(error, ReadError::kUnknownFormat,
                        "not a property list (neither \"bplist00\" nor an XML document)");
}

std::optional<Value> read(std::string_view bytes, ReadError* error, Format* formatOut) {
    return read(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), error,
                formatOut);
}

std::string write(const Value& value, Format format) {
    return format == Format::Binary ? writeBinary(value) : writeXML(value);
}

}  // namespace qvl::plist
