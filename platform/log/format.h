// printf-style formatting of the log's format strings, made safe: every argument carries its own
// type, a conversion without an argument prints "(missing)" and surplus arguments are ignored,
// so a format string can never read what it was not given.
//
// Understood: %d %i (narrowed to 32 bits, as the C conversion would), %ld %lld %li %lli,
// %u %lu %llu %x %lx %llx, %f %g %e with an optional precision, %s, %{public}s, %{private}s
// (shown as "<private>"), %@ (an object's description, "(null)" for none), %p, %c and %%.
#pragma once

#include <QString>
#include <QUrl>
#include <QVariant>
#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

namespace platform::log {

// One argument of a format, with its own type.
class FormatArg {
public:
    enum class Kind { Signed, Unsigned, Double, String, Pointer, Null };

    FormatArg(std::integral auto v) {  // NOLINT(google-explicit-constructor)
        if constexpr (std::is_signed_v<decltype(v)>) {
            kind_ = Kind::Signed;
            i_ = static_cast<int64_t>(v);
        } else {
            kind_ = Kind::Unsigned;
            u_ = static_cast<uint64_t>(v);
        }
    }
    FormatArg(double v) : kind_(Kind::Double), d_(v) {}  // NOLINT
    FormatArg(float v) : kind_(Kind::Double), d_(v) {}   // NOLINT
    FormatArg(const char* s) : kind_(s ? Kind::String : Kind::Null), s_(s ? s : "") {}  // NOLINT
    FormatArg(const std::string& s) : kind_(Kind::String), s_(s) {}  // NOLINT
    FormatArg(std::string_view s) : kind_(Kind::String), s_(s) {}    // NOLINT
    FormatArg(const QString& s) : kind_(Kind::String), s_(s.toStdString()) {}  // NOLINT
    FormatArg(const QByteArray& s) : kind_(Kind::String), s_(s.toStdString()) {}  // NOLINT
    FormatArg(const QUrl& url);                                                  // NOLINT
    FormatArg(const QVariant& value);                                            // NOLINT
    FormatArg(std::nullptr_t) : kind_(Kind::Null) {}                             // NOLINT
    FormatArg(const void* p) : kind_(p ? Kind::Pointer : Kind::Null), p_(p) {}   // NOLINT

    // Any object with a description() (an error, a record) formats as that description.
    template <class T>
        requires requires(const T& t) {
            { t.description() } -> std::convertible_to<QString>;
        }
    FormatArg(const T& object)  // NOLINT
        : kind_(Kind::String), s_(QString(object.description()).toStdString()), p_(&object) {}

    template <class T>
        requires requires(const T& t) {
            { t.description() } -> std::convertible_to<QString>;
        }
    FormatArg(const std::shared_ptr<T>& object)  // NOLINT
        : FormatArg(object ? FormatArg(*object) : FormatArg(nullptr)) {}

    Kind kind() const { return kind_; }
    int64_t asSigned() const;
    uint64_t asUnsigned() const;
    double asDouble() const;
    std::string asString() const;  // what %s and %@ print
    const void* pointer() const { return p_; }

private:
    Kind kind_;
    int64_t i_ = 0;
    uint64_t u_ = 0;
    double d_ = 0;
    std::string s_;
    const void* p_ = nullptr;
};

std::string formatMessage(std::string_view format, std::initializer_list<FormatArg> args);

}  // namespace platform::log
