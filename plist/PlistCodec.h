// Pieces shared by the two property-list encodings and the format detection
// in PropertyList.cpp. Not part of the public interface: callers use
// plist/PropertyList.h.
//
// Thread-safety: every function is reentrant and keeps no state.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/UTF8.h"
#include "plist/PlistValue.h"
#include "plist/PropertyList.h"

namespace qvl::plist::detail {

class Arena;

// Decoders for one encoding each; `bytes` is the whole document.
std::optional<Value> readBinary(std::span<const uint8_t> bytes, ReadError* error);
std::optional<Value> readXML(std::span<const uint8_t> bytes, ReadError* error);

// Fills `error` (when given) and returns nullopt, so decoders can write
// `return fail(error, code, text);`.
std::nullopt_t fail(ReadError* error, int code, std::string message);

// Builds a dictionary from decoded entries in file order. A key that appears
// twice keeps the position of its first occurrence and the value of its last,
// which is how the platform's own readers resolve it (a file written by hand
// or by a careless tool should not become unreadable because of it).
Dictionary makeDictionary(std::vector<Dictionary::Entry>&& entries);

// The inside of dictionaries and values, for the codecs: decoders build
// dictionaries around shared key lists, encoders recognise shared texts.
struct DictionaryAccess {
    // A new key list with room for `capacity` keys; the caller owns one
    // reference. With an arena, the list (like the dictionaries, texts and
    // data below) is taken from it when it has room.
    static KeyList* newKeys(uint32_t capacity, Arena* arena = nullptr);
    static void retainKeys(KeyList* keys);
    static void releaseKeys(KeyList* keys);
    // An empty dictionary over `keys` (taking the caller's reference) with room
    // for `capacity` values. The caller constructs values in place and then
    // sets the size, which must end equal to the key list's.
    static Dictionary make(KeyList* keys, uint32_t capacity, Arena* arena = nullptr);
    // The dictionary as a value, its key list not offered to the thread's
    // table of shared lists (a decoder shares its own).
    static Value dictionaryValue(Dictionary&& d);
    static Value dataValue(std::span<const uint8_t> bytes, Arena* arena);
    static Value* values(Dictionary& d);
    static void setSize(Dictionary& d, uint32_t size);
    static const KeyList* keysOf(const Dictionary& d) { return d.node_ ? d.node_->keys : nullptr; }
    // The shared text of a string value (null for the empty string).
    static const Text* textOf(const Value& v) { return v.pointer<Text>(); }
    // A string value holding `t`, which gains one reference.
    static Value stringValue(Text* t) {
        retain(t);
        Value v;
        v.setPointer(Kind::String, t);
        return v;
    }
};

// A text for `s` taken from `arena`, outside the thread's table of shared
// texts; the caller owns one reference.
Text* makeText(std::string&& s, Arena* arena);

// Text: the system's one UTF-8 validator and its UTF-16 conversions.
using qvl::appendUTF16;
using qvl::appendUTF8FromUTF16;
using qvl::isValidUTF8;

}  // namespace qvl::plist::detail
