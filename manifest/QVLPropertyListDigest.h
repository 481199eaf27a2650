// The property-list digest: a 20-byte SHA-1 based value computed from the
// property values themselves, not from any serialized form, so that it does
// not depend on the encoding or on the order of dictionary keys. Every
// component of a segmented signed manifest is signed over QVLComponentDigest
// of its name and its file manifest; a signing tool computes the same bytes.
//
// The rules, by kind of value:
//   boolean      SHA-1 of one byte, 1 or 0
//   string       SHA-1 of its n + 1 bytes: the characters and a zero byte
//                (n = length in UTF-16 code units); a string that is not pure
//                ASCII is digested as n + 1 zero bytes
//   date         SHA-1 of the seconds since 2001 as a little-endian double
//   data         SHA-1 of its bytes
//   number       v = integer value (reals truncated); SHA-1 of v as 4 bytes
//                little-endian when -1 <= v <= 12, else as 8 bytes
//   array        none when empty or when two elements are equal (logged);
//                else digest("array") XOR, for each element i, SHA-1 over the
//                element digests 0..i; an element without a digest ends it
//   dictionary   none when empty; else digest("dictionary") XOR, for each
//                pair, SHA-1(digest(key) || digest(value)), leaving out a
//                missing digest
//
// Thread-safety: pure functions apart from the log line; any thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include "plist/PlistValue.h"

namespace qvl {

using QVLDigest = std::array<uint8_t, 20>;

// The digest of `value`, or nullopt when it has none (also for a null value).
std::optional<QVLDigest> QVLPropertyListDigest(const plist::Value* value);

// The digest of a component: digest(name) XOR digest(fileManifest), or the
// name's digest alone when the manifest has none (missing or empty).
std::optional<QVLDigest> QVLComponentDigest(std::string_view name, const plist::Value* fileManifest);

}  // namespace qvl
