// Reading and writing property lists in their two encodings: XML and binary
// ("bplist00"). Every input is treated as hostile: sizes, offsets, reference
// widths, counts and nesting are checked against the bytes before use, and a
// bad input yields an error, never a crash or an out-of-bounds read. Files of
// property lists are read and written through the file-system layer
// (platform/fs/PropertyListFile.h).
//
// Thread-safety: all functions are reentrant and keep no state.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "plist/PlistValue.h"

namespace qvl::plist {

enum class Format { XML, Binary };

// Why a read failed. `code` is a stable number for the kind of failure (it is
// what "%@(0x%x)" style log lines print); `message` says what and where.
struct ReadError {
    enum Code : int {
        kEmpty = 1,          // no bytes
        kUnknownFormat = 2,  // neither "bplist00" nor an XML document
        kCorrupt = 3,        // structurally invalid input
        kUnsupported = 4,    // valid in the format but refused here (UID, fill, unknown tags)
        kTooDeep = 5,        // nesting deeper than kMaxDepth
        kIO = 6,             // the file could not be read
    };
    int code = 0;
    std::string message;
};

// Deepest container nesting accepted by both readers.
inline constexpr int kMaxDepth = 512;

// Reads one property list, detecting the encoding from the first bytes.
// On failure returns nullopt and, when `error` is given, fills it.
std::optional<Value> read(std::span<const uint8_t> bytes, ReadError* error = nullptr,
                          Format* formatOut = nullptr);
std::optional<Value> read(std::string_view bytes, ReadError* error = nullptr, Format* formatOut = nullptr);

// Encoders. Binary uses the smallest integer and reference widths, keeps
// reals and dates bit for bit and writes integers above INT64_MAX as 16-byte
// integers. XML uses the conventional layout (tab indentation, the standard
// DOCTYPE) so that files diff cleanly; its dates are whole seconds (only the
// binary encoding keeps fractions of a second).
// Both return an empty string when the value cannot be encoded: nesting
// deeper than kMaxDepth, a string that is not valid UTF-8, and for XML also
// text that XML 1.0 cannot carry (control characters other than tab, line
// feed and carriage return) or a date outside the years 0 to 9999.
std::string writeBinary(const Value& value);
std::string writeXML(const Value& value);
std::string write(const Value& value, Format format);

}  // namespace qvl::plist
