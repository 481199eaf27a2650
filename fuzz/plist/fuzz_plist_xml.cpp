// Feeds arbitrary bytes to the XML property-list reader.
#include <cstddef>
#include <cstdint>

#include "fuzz/plist/PlistRoundTrip.h"
#include "plist/PlistCodec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    qvl::plist::ReadError error;
    if (auto value = qvl::plist::detail::readXML({data, size}, &error)) qvl::plist::checkRoundTrip(*value);
    return 0;
}
