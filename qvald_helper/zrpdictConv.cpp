#include "qvald_helper/zrpdictConv.h"

#include <string>
#include <string_view>

#include "base/QVLLog.h"
#include "base/UTF8.h"

namespace qvl {

namespace {

// The bytes with everything outside printable ASCII written as \xNN, so that
// a log line never carries malformed text of its own.
std::string escapedBytes(std::string_view s) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(s.size());
    for (const char ch : s) {
        const auto c = static_cast<unsigned char>(ch);
        if (c >= 0x20 && c < 0x7F && c != '\\') {
            out.push_back(ch);
        } else {
            out += "\\x";
            out.push_back(kHex[c >> 4]);
            out.push_back(kHex[c & 0x0F]);
        }
    }
    return out;
}

plist::Dictionary convertDictionary(const zrp::Dictionary& zrpDictionary);

// The property value for one ZRP value, or nullopt when the entry is dropped
// (the reason is logged here, once).
std::optional<plist::Value> convertValue(const std::string& key, const zrp::Value& value) {
    switch (value.type()) {
        case zrp::Type::Boolean:
            return plist::Value(*value.asBool());
        case zrp::Type::Int64:
            return plist::Value(*value.asInt64());
        case zrp::Type::String:
            if (!isValidUTF8(*value.asString())) {
                QVLLog("The string value for key %@ is not valid UTF-8; the entry is dropped", key);
                return std::nullopt;
            }
            return plist::Value(*value.asString());
        case zrp::Type::Dictionary:
            return plist::Value(convertDictionary(*value.asDictionary()));
        default:
            QVLLog("The value for key %@ has a type that is not supported yet", key);
            return std::nullopt;
    }
}

// Recursion depth is bounded by the service's frame decoder, which refuses
// nesting deeper than zrp::kMaxDepth.
plist::Dictionary convertDictionary(const zrp::Dictionary& zrpDictionary) {
    plist::Dictionary result;
    result.reserve(zrpDictionary.size());
    for (size_t i = 0; i < zrpDictionary.size(); ++i) {
        const auto& [key, value] = zrpDictionary.entry(i);
        // A key that is not UTF-8 can't become a property-list key; dropping
        // its entry keeps the rest of the request usable.
        if (!isValidUTF8(key)) {
            QVLLog("A key that is not valid UTF-8 (%@) was dropped with its value", escapedBytes(key));
            continue;
        }
        // Keys of a ZRP dictionary are unique, so no lookup is needed.
        if (auto converted = convertValue(key, value)) result.appendUnchecked(key, std::move(*converted));
    }
    return result;
}

}  // namespace

plist::Dictionary dictionaryWithZRPDictionary(const zrp::Dictionary& zrpDictionary) {
    return convertDictionary(zrpDictionary);
}

}  // namespace qvl
