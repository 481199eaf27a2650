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

#include "plist/PlistValue.h"
#include "plist/PropertyList.h"

namespace qvl::plist::detail {

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

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isValidUTF8(std::string_view s);

// Appends the UTF-16 code units of valid UTF-8 text `s`; returns false (and
// leaves `out` as it was) when `s` is not valid UTF-8.
bool appendUTF16(std::string_view s, std::vector<uint16_t>& out);

// Appends the UTF-8 form of UTF-16 code units; returns false on an unpaired
// surrogate.
bool appendUTF8FromUTF16(const uint16_t* units, size_t count, std::string& out);

}  // namespace qvl::plist::detail
