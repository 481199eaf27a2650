// Text conversions of plexactl: command-line sizes and indexes and UTF-16LE
// partition names. Pure functions; thread-safe.
#ifndef QVL_TOOLS_PLEXACTL_TEXT_H
#define QVL_TOOLS_PLEXACTL_TEXT_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qvl::plexactl {

// Bytes, optionally followed by K, M or G (powers of 1024, either case).
// Empty on anything else, including values that don't fit 64 bits.
std::optional<uint64_t> parseSize(std::string_view text);

// A non-negative decimal int.
std::optional<int> parseIndex(std::string_view text);

// A NUL-padded UTF-16LE name of at most `size` bytes as UTF-8; unpaired
// surrogates become U+FFFD.
std::string utf16leName(const uint8_t* name, size_t size);

}  // namespace qvl::plexactl

#endif  // QVL_TOOLS_PLEXACTL_TEXT_H
