// QVLLog: the one logging function of the system. It formats a message and
// hands it to the shared QVLLogModel, which sends it to the system log and,
// once file logging is on, appends it to the daily log file.
//
// Formatting takes the printf conversions the system uses (%s %d %i %u %ld
// %lld %lu %llu %x %lx %llx %08x %02x %c %f %p %%, with flags, width and
// precision) and "%@", which prints a string as itself and any other value in
// a readable description. Arguments are typed at compile time and converted to
// QVLLogArg, so a wrong argument count or kind prints a marker instead of
// crashing: a missing argument prints "(null)", a mismatched one is converted
// as well as can be (a number for %s prints the number).
//
// Thread-safety: QVLLog may be called from any thread.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include "plist/PlistValue.h"

namespace qvl {

// One formatting argument. Holds views: it must not outlive the call.
class QVLLogArg {
  public:
    enum class Kind { Null, Signed, Unsigned, Real, String, Value };

    QVLLogArg() : kind_(Kind::Null) {}
    QVLLogArg(std::nullptr_t) : kind_(Kind::Null) {}
    template <class T>
    requires(std::is_integral_v<T> || std::is_enum_v<T>) QVLLogArg(T n) {
        if constexpr (std::is_enum_v<T>) {
            kind_ = Kind::Signed;
            s_ = static_cast<int64_t>(n);
        } else if constexpr (std::is_signed_v<T>) {
            kind_ = Kind::Signed;
            s_ = static_cast<int64_t>(n);
        } else {
            kind_ = Kind::Unsigned;
            u_ = static_cast<uint64_t>(n);
        }
    }
    QVLLogArg(double d) : kind_(Kind::Real), d_(d) {}
    QVLLogArg(const char* s) : kind_(s ? Kind::String : Kind::Null), str_(s ? s : "") {}
    QVLLogArg(std::string_view s) : kind_(Kind::String), str_(s) {}
    QVLLogArg(const std::string& s) : kind_(Kind::String), str_(s) {}
    QVLLogArg(const plist::Value& v) : kind_(Kind::Value), value_(&v) {}
    QVLLogArg(const plist::Value* v) : kind_(v ? Kind::Value : Kind::Null), value_(v) {}
    QVLLogArg(const plist::Dictionary& d);
    QVLLogArg(const plist::Array& a);
    QVLLogArg(const void* p) : kind_(Kind::Unsigned), u_(reinterpret_cast<uintptr_t>(p)) {}

    Kind kind() const { return kind_; }
    int64_t signedValue() const { return s_; }
    uint64_t unsignedValue() const { return u_; }
    double realValue() const { return d_; }
    std::string_view stringValue() const { return str_; }
    const plist::Value* value() const { return value_; }

  private:
    Kind kind_ = Kind::Null;
    int64_t s_ = 0;
    uint64_t u_ = 0;
    double d_ = 0;
    std::string_view str_;
    const plist::Value* value_ = nullptr;
    // Dictionaries and arrays given directly are wrapped in a value that lives
    // as long as the argument.
    std::shared_ptr<plist::Value> owned_;
};

// Formats `format` with `args`.
std::string QVLFormat(std::string_view format, const QVLLogArg* args, size_t count);

template <class... Args>
std::string QVLStringWithFormat(std::string_view format, const Args&... args) {
    if constexpr (sizeof...(Args) == 0) {
        return QVLFormat(format, nullptr, 0);
    } else {
        const std::array<QVLLogArg, sizeof...(Args)> list{QVLLogArg(args)...};
        return QVLFormat(format, list.data(), list.size());
    }
}

// Logs one already formatted message through the shared QVLLogModel.
void QVLLogMessage(std::string_view message);

template <class... Args>
void QVLLog(std::string_view format, const Args&... args) {
    QVLLogMessage(QVLStringWithFormat(format, args...));
}

}  // namespace qvl

using qvl::QVLLog;
