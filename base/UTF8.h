// UTF-8: the one validator and the conversions to and from UTF-16 that the
// property-list encodings need. Strict UTF-8 throughout: no overlong forms,
// no surrogates, nothing above U+10FFFF.
//
// Thread-safety: reentrant; keeps no state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qvl {

bool isValidUTF8(std::string_view s);

// Appends the UTF-16 code units of valid UTF-8 text `s`; returns false (and
// leaves `out` as it was) when `s` is not valid UTF-8.
bool appendUTF16(std::string_view s, std::vector<uint16_t>& out);

// Appends the UTF-8 form of UTF-16 code units; returns false (and leaves
// `out` as it was) on an unpaired surrogate.
bool appendUTF8FromUTF16(const uint16_t* units, size_t count, std::string& out);

}  // namespace qvl
