// The domain table compiled into the program: the binary property list made
// at build time from metadata/DomainTable.plist.
#pragma once

#include <cstdint>
#include <span>

namespace qvl {

// The bytes of the compiled table ("bplist00" encoding).
std::span<const uint8_t> QVLBuiltInDomainTable();

}  // namespace qvl
