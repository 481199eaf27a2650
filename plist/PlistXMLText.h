// Text forms of the leaf values of the XML property-list encoding (base64
// data, dates, integers, reals), shared by its reader and its writer. Parsers
// take the element's whole text and answer nullopt when it is not of the form.
//
// Thread-safety: every function is reentrant and keeps no state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "plist/PlistValue.h"

namespace qvl::plist::detail {

// XML white space: space, tab, line feed, carriage return.
bool isXMLSpace(char c);

// White space anywhere is skipped; padding is optional but, when present,
// must end the text.
std::optional<Data> decodeBase64(std::string_view text);
void appendBase64(const uint8_t* p, size_t n, std::string& out);

// YYYY-MM-DDTHH:MM:SSZ, surrounded by optional white space.
std::optional<Date> parseDate(std::string_view text);
// Whole seconds, rounded down; nullopt outside the years 0..9999, which
// are all that four year digits can say.
std::optional<std::string> formatDate(const Date& date);

// Decimal with an optional sign, or hexadecimal after "0x"; the whole range
// from -2^63 to 2^64-1. Values above INT64_MAX are unsigned.
std::optional<Integer> parseInteger(std::string_view text);

std::optional<double> parseReal(std::string_view text);
// The shortest text that reads back as the same double, in the form Python's
// repr() gives it ("1.0", "0.1", "1e+16", "-inf"), which is what the other
// tools in use here write.
std::string formatReal(double v);

}  // namespace qvl::plist::detail
