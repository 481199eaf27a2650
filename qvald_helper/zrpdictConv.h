// zrpdictConv: turns a request, as the message service delivers it (a ZRP
// dictionary), into an ordinary property dictionary before dispatch.
//
//   ZRP boolean              -> boolean
//   ZRP string               -> string (the bytes must be valid UTF-8)
//   ZRP signed 64-bit int    -> signed integer
//   ZRP dictionary           -> dictionary, by the same rules, to any depth
//   anything else            -> left out, with a log line
//
// An entry that can't be converted costs only itself: the rest of the request
// is converted as usual. The conversion works in one direction only; replies
// are built as ZRP dictionaries directly by the responder.
//
// Thread-safety: reentrant; keeps no state.
#pragma once

#include "platform/zrp/ZRP.h"
#include "plist/PlistValue.h"

namespace qvl {

// A new property dictionary holding the converted entries of `zrpDictionary`.
plist::Dictionary dictionaryWithZRPDictionary(const zrp::Dictionary& zrpDictionary);

}  // namespace qvl
