// Values that travel over an XPC connection: QVariants typed by the interface (NSXPCType), their
// D-Bus form, reply blocks, listener endpoints, and the typed adapters that turn C++ values and
// callables into those forms.
#pragma once

#include <QByteArray>
#include <QMetaType>
#include <QSizeF>
#include <QString>
#include <QUrl>
#include <QVariant>
#include <QVariantList>
#include <QVariantMap>
#include <functional>
#include <optional>
#include <tuple>
#include <utility>

#include "platform/foundation/NSError.h"
#include "platform/xpc/NSXPCInterface.h"

// The address of a listener that a peer-to-peer connection can be made to (a D-Bus address).
// An endpoint without an address stands for none.
class NSXPCListenerEndpoint {
public:
    NSXPCListenerEndpoint() = default;
    explicit NSXPCListenerEndpoint(QString address) : address_(std::move(address)) {}
    const QString& address() const { return address_; }
    bool isNull() const { return address_.isEmpty(); }
    QString description() const {
        return QStringLiteral("<NSXPCListenerEndpoint %1>").arg(address_);
    }
    bool operator==(const NSXPCListenerEndpoint&) const = default;

private:
    QString address_;
};
Q_DECLARE_METATYPE(NSXPCListenerEndpoint)

// A reply block as the connection sees it: called with the block's parameters.
using NSXPCBlock = std::function<void(const QVariantList&)>;
Q_DECLARE_METATYPE(NSXPCBlock)

namespace platform::xpc {

// Registers the metatypes above (and QDBusError) once; connections call it before any traffic.
void registerMetaTypes();

// Whether `value` is acceptable as a `type` (absent is acceptable for object types only).
bool matchesType(const QVariant& value, NSXPCType type);

// The D-Bus form of a value of `type` (nil as an empty "av"); answers nullopt for a value that
// cannot be sent. Nulls inside dictionaries and arrays are left out, URLs in them become strings.
std::optional<QVariant> toWire(const QVariant& value, NSXPCType type);
// The value of `type` from its D-Bus form; nullopt when the message holds something else.
std::optional<QVariant> fromWire(const QVariant& wire, NSXPCType type);
// Decodes a whole argument list; nullopt when the count or any type differs.
std::optional<QVariantList> fromWireList(const QVariantList& wire,
                                         const std::vector<NSXPCType>& types);
std::optional<QVariantList> toWireList(const QVariantList& values,
                                       const std::vector<NSXPCType>& types);

// Any D-Bus argument (QDBusArgument, QDBusVariant, nested) as plain QVariants.
QVariant plainValue(const QVariant& value);

// --- C++ values to and from arguments.
inline QVariant argument(const QString& s) {
    return s.isNull() ? QVariant() : QVariant(s);
}
inline QVariant argument(const QUrl& url) {
    return url.isEmpty() ? QVariant() : QVariant(url);
}
inline QVariant argument(const QByteArray& d) {
    return d.isNull() ? QVariant() : QVariant(d);
}
inline QVariant argument(const QVariantMap& m) {
    return QVariant(m);
}
inline QVariant argument(const QVariantList& l) {
    return QVariant(l);
}
inline QVariant argument(const QVariant& v) {
    return v;
}
inline QVariant argument(const NSErrorPtr& e) {
    return e ? QVariant::fromValue(e) : QVariant();
}
inline QVariant argument(const NSXPCListenerEndpoint& e) {
    return e.isNull() ? QVariant() : QVariant::fromValue(e);
}
inline QVariant argument(const QSizeF& s) {
    return QVariant(s);
}
inline QVariant argument(signed char c) {
    return QVariant(static_cast<int>(c));
}
inline QVariant argument(int32_t i) {
    return QVariant(i);
}
inline QVariant argument(uint32_t u) {
    return QVariant(u);
}
inline QVariant argument(int64_t x) {
    return QVariant(static_cast<qlonglong>(x));
}
inline QVariant argument(double d) {
    return QVariant(d);
}

template <class... Args>
QVariantList arguments(const Args&... args) {
    return QVariantList{argument(args)...};
}

template <class T>
T value(const QVariant& v);
template <>
inline QString value<QString>(const QVariant& v) {
    return v.toString();
}
template <>
inline QUrl value<QUrl>(const QVariant& v) {
    return v.toUrl();
}
template <>
inline QByteArray value<QByteArray>(const QVariant& v) {
    return v.toByteArray();
}
template <>
inline QVariantMap value<QVariantMap>(const QVariant& v) {
    return v.toMap();
}
template <>
inline QVariantList value<QVariantList>(const QVariant& v) {
    return v.toList();
}
template <>
inline QVariant value<QVariant>(const QVariant& v) {
    return v;
}
template <>
inline NSErrorPtr value<NSErrorPtr>(const QVariant& v) {
    return v.value<NSErrorPtr>();
}
template <>
inline NSXPCListenerEndpoint value<NSXPCListenerEndpoint>(const QVariant& v) {
    return v.value<NSXPCListenerEndpoint>();
}
template <>
inline QSizeF value<QSizeF>(const QVariant& v) {
    return v.toSizeF();
}
template <>
inline signed char value<signed char>(const QVariant& v) {
    return static_cast<signed char>(v.toInt());
}
template <>
inline int32_t value<int32_t>(const QVariant& v) {
    return v.toInt();
}
template <>
inline uint32_t value<uint32_t>(const QVariant& v) {
    return v.toUInt();
}
template <>
inline int64_t value<int64_t>(const QVariant& v) {
    return v.toLongLong();
}
template <>
inline double value<double>(const QVariant& v) {
    return v.toDouble();
}

// A typed callable as a reply block. The connection has checked the parameters against the
// interface before it calls the block, so the conversions cannot fail; a short list (a peer that
// sent fewer values) reads as absent values.
template <class... Ts>
NSXPCBlock block(std::function<void(Ts...)> typed) {
    if (!typed) {
        return {};
    }
    return [typed = std::move(typed)](const QVariantList& params) {
        auto at = [&params](size_t i) {
            return i < size_t(params.size()) ? params[qsizetype(i)] : QVariant();
        };
        [&]<size_t... I>(std::index_sequence<I...>) {
            typed(value<std::decay_t<Ts>>(at(I))...);
        }
        (std::index_sequence_for<Ts...>{});
    };
}

}  // namespace platform::xpc
