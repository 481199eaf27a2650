// QVLFormat: the formatting of log lines and messages, apart from where the
// lines go (QVLLogModel).
//
// Formatting takes the printf conversions the system uses (%s %d %i %u %ld
// %lld %lu %llu %x %lx %llx %08x %02x %c %f %p %%, with flags, width and
// precision) and "%@", which prints a string as itself and an object in a
// readable description. Arguments are typed at compile time and converted to
// QVLLogArg, so a wrong argument count or kind prints a marker instead of
// crashing: a missing argument prints "(null)", a mismatched one is converted
// as well as can be (a number for %s prints the number).
//
// Objects: any type T for which a function `std::string qvlDescription(const
// T&)` is found by argument-dependent lookup can be given, by reference or by
// pointer (a null pointer prints "(null)"). The floor that owns the type
// supplies the function next to it (property values do in plist/), so this
// floor needs to know nothing of them. Optional companions
// `std::optional<int64_t> qvlIntegerValue(const T&)` and
// `std::optional<double> qvlRealValue(const T&)` let numeric conversions read
// the object as a number.
//
// Thread-safety: reentrant; keeps no state.
#pragma once

#include <array>
#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace qvl {

template <class T>
concept QVLDescribable = requires(const T& object) {
    { qvlDescription(object) } -> std::convertible_to<std::string>;
};

// One formatting argument. Holds views: it must not outlive the call.
class QVLLogArg {
  public:
    enum class Kind { Null, Signed, Unsigned, Real, String, Object };

    QVLLogArg() : kind_(Kind::Null) {}
    QVLLogArg(std::nullptr_t) : kind_(Kind::Null) {}
    template <class T>
    requires(std::is_integral_v<T> || std::is_enum_v<T>) QVLLogArg(T n) {
        if constexpr (std::is_enum_v<T> || std::is_signed_v<T>) {
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
    QVLLogArg(const void* p) : kind_(Kind::Unsigned), u_(reinterpret_cast<uintptr_t>(p)) {}
    template <QVLDescribable T>
    QVLLogArg(const T& object) : kind_(Kind::Object), object_(&object), ops_(&opsFor<T>) {}
    template <QVLDescribable T>
    QVLLogArg(const T* object)
        : kind_(object ? Kind::Object : Kind::Null), object_(object), ops_(&opsFor<T>) {}

    Kind kind() const { return kind_; }
    int64_t signedValue() const { return s_; }
    uint64_t unsignedValue() const { return u_; }
    double realValue() const { return d_; }
    std::string_view stringValue() const { return str_; }
    // For an object: its description and, where it has one, its number.
    std::string description() const { return ops_->describe(object_); }
    std::optional<int64_t> objectInteger() const { return ops_->integer(object_); }
    std::optional<double> objectReal() const { return ops_->real(object_); }

  private:
    struct ObjectOps {
        std::string (*describe)(const void*);
        std::optional<int64_t> (*integer)(const void*);
        std::optional<double> (*real)(const void*);
    };
    template <class T>
    static constexpr ObjectOps opsFor = {
        [](const void* p) -> std::string { return qvlDescription(*static_cast<const T*>(p)); },
        [](const void* p) -> std::optional<int64_t> {
            if constexpr (requires(const T& t) { qvlIntegerValue(t); })
                return qvlIntegerValue(*static_cast<const T*>(p));
            else
                return std::nullopt;
        },
        [](const void* p) -> std::optional<double> {
            if constexpr (requires(const T& t) { qvlRealValue(t); })
                return qvlRealValue(*static_cast<const T*>(p));
            else
                return std::nullopt;
        },
    };

    Kind kind_ = Kind::Null;
    int64_t s_ = 0;
    uint64_t u_ = 0;
    double d_ = 0;
    std::string_view str_;
    const void* object_ = nullptr;
    const ObjectOps* ops_ = nullptr;
};

// Formats `format` with `args`.
std::string QVLFormat(std::string_view format, const QVLLogArg* args, size_t count);
// The same, appended to `out`.
void QVLFormatAppend(std::string& out, std::string_view format, const QVLLogArg* args, size_t count);

template <class... Args>
std::string QVLStringWithFormat(std::string_view format, const Args&... args) {
    if constexpr (sizeof...(Args) == 0) {
        return QVLFormat(format, nullptr, 0);
    } else {
        const std::array<QVLLogArg, sizeof...(Args)> list{QVLLogArg(args)...};
        return QVLFormat(format, list.data(), list.size());
    }
}

}  // namespace qvl
