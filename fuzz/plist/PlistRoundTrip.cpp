#include "fuzz/plist/PlistRoundTrip.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "plist/PropertyList.h"

namespace qvl::plist {
namespace {

[[noreturn]] void crash(const char* what, const std::string& detail) {
    fprintf(stderr, "round trip failed: %s: %s\n", what, detail.c_str());
    abort();
}

// NaN is the one value that is not equal to itself.
bool holdsNaN(const Value& v) {
    if (const double* r = v.asReal()) return std::isnan(*r);
    if (const Date* d = v.asDate()) return std::isnan(d->secondsSince2001);
    if (const Array* a = v.asArray())
        for (const Value& item : *a)
            if (holdsNaN(item)) return true;
    if (const Dictionary* d = v.asDictionary())
        for (const auto& entry : *d)
            if (holdsNaN(entry.second)) return true;
    return false;
}

void checkEncoding(const Value& value, Format format, bool mustEncode) {
    const std::string first = write(value, format);
    if (first.empty()) {
        if (mustEncode) crash("cannot encode", value.description());
        return;
    }
    ReadError error;
    auto back = read(first, &error);
    if (!back) crash("cannot read what was written", error.message);
    if (write(*back, format) != first) crash("second encoding differs", value.description());
    // XML keeps whole seconds of a date, so only binary must give back the same value.
    if (format == Format::Binary && !holdsNaN(value) && !(*back == value))
        crash("value changed", value.description());
}

}  // namespace

void checkRoundTrip(const Value& value) {
    // Every value a reader accepts is valid text nested no deeper than the
    // limit, which the binary encoding always carries; XML may refuse some
    // (control characters, dates beyond four year digits).
    checkEncoding(value, Format::Binary, true);
    checkEncoding(value, Format::XML, false);
}

}  // namespace qvl::plist
