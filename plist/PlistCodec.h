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

// Text: the system's one UTF-8 validator and its UTF-16 conversions.
using qvl::appendUTF16;
using qvl::appendUTF8FromUTF16;
using qvl::isValidUTF8;

}  // namespace qvl::plist::detail
