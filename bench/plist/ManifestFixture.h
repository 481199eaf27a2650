// The benchmark's workload: a device manifest of file records as the helper
// writes one, keyed by path, each record holding a realistic attribute
// dictionary, extended attributes, a 20-byte hash and a link target.
#pragma once

#include "plist/PlistValue.h"

namespace qvl::bench {

// A manifest of `count` records, the same for the same count.
plist::Value makeManifest(size_t count);

}  // namespace qvl::bench
