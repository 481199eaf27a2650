// What both property-list fuzzers check about a value a reader accepted:
// each encoding writes it, reads it back, and writes the same bytes again.
#pragma once

#include "plist/PlistValue.h"

namespace qvl::plist {

// Aborts (so that the fuzzer reports the input) when a round trip fails.
void checkRoundTrip(const Value& value);

}  // namespace qvl::plist
