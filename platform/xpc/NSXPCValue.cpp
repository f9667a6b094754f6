#include "platform/xpc/NSXPCValue.h"

#include <QDBusArgument>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusSignature>
#include <QDBusVariant>
#include <QStringList>
#include <algorithm>
#include <cmath>
#include <limits>
#include <mutex>

namespace platform::xpc {

namespace {

bool isNumeric(const QVariant& v) {
    switch (v.typeId()) {
        case QMetaType::Bool:
        case QMetaType::Int:
        case QMetaType::UInt:
        case QMetaType::LongLong:
        case QMetaType::ULongLong:
        case QMetaType::Double:
        case QMetaType::Float:
        case QMetaType::Short:
        case QMetaType::UShort:
        case QMetaType::Char:
        case QMetaType::SChar:
        case QMetaType::UChar:
        case QMetaType::Long:
        case QMetaType::ULong:
            return true;
        default:
            return false;
    }
}

// Whether a number is an integer within [low, high] (a double only when it is whole).
bool fitsIn(const QVariant& v, int64_t low, int64_t high) {
    if (!isNumeric(v)) {
        return false;
    }
    switch (v.typeId()) {
        case QMetaType::ULongLong:
        case QMetaType::ULong: {
            const qulonglong u = v.toULongLong();
            return high >= 0 && u <= static_cast<qulonglong>(high);
        }
        case QMetaType::Double:
        case QMetaType::Float: {
            const double d = v.toDouble();
            return std::trunc(d) == d && d >= static_cast<double>(low) &&
                   d < static_cast<double>(high) + 1.0;
        }
        default: {
            const qlonglong x = v.toLongLong();
            return x >= low && x <= high;
        }
    }
}

QVariant errorToMap(const NSError& error);

// The types QtDBus marshals as they are.
bool travelsAsIs(int typeId) {
    switch (typeId) {
        case QMetaType::Bool:
        case QMetaType::Int:
        case QMetaType::UInt:
        case QMetaType::LongLong:
        case QMetaType::ULongLong:
        case QMetaType::Double:
        case QMetaType::QString:
        case QMetaType::QByteArray:
        case QMetaType::UChar:
        case QMetaType::Short:
        case QMetaType::UShort:
        case QMetaType::QStringList:
            return true;
        default:
            return false;
    }
}

// Whether sanitize() would give `v` back as it is: then a dictionary or array need not be copied
// value by value.
bool isPlain(const QVariant& v) {
    if (v.typeId() == QMetaType::QVariantMap) {
        const auto& map = *static_cast<const QVariantMap*>(v.constData());
        return std::all_of(map.cbegin(), map.cend(), isPlain);
    }
    if (v.typeId() == QMetaType::QVariantList) {
        const auto& list = *static_cast<const QVariantList*>(v.constData());
        return std::all_of(list.cbegin(), list.cend(), isPlain);
    }
    return travelsAsIs(v.typeId());
}

// A value inside a dictionary or array in a form QtDBus marshals; an invalid QVariant means
// "leave it out" (libdbus aborts the process on a null inside a map).
QVariant sanitize(const QVariant& v) {
    if (!v.isValid() || v.isNull()) {
        // A null string or data is still a value of its type; an invalid variant is nothing.
        if (v.typeId() == QMetaType::QString) {
            return QString();
        }
        if (v.typeId() == QMetaType::QByteArray) {
            return QByteArray();
        }
        if (!v.isValid()) {
            return {};
        }
    }
    if (travelsAsIs(v.typeId())) {
        return v;
    }
    switch (v.typeId()) {
        case QMetaType::Float:
            return v.toDouble();
        case QMetaType::Char:
        case QMetaType::SChar:
            return v.toInt();
        case QMetaType::Long:
            return v.toLongLong();
        case QMetaType::ULong:
            return v.toULongLong();
        case QMetaType::QUrl:
            return v.toUrl().toString(QUrl::FullyEncoded);
        case QMetaType::QVariantMap: {
            if (isPlain(v)) {
                return v;
            }
            QVariantMap out;
            const QVariantMap in = v.toMap();
            for (auto it = in.cbegin(); it != in.cend(); ++it) {
                QVariant s = sanitize(it.value());
                if (s.isValid()) {
                    out.insert(it.key(), s);
                }
            }
            return out;
        }
        case QMetaType::QVariantList: {
            if (isPlain(v)) {
                return v;
            }
            QVariantList out;
            for (const QVariant& item : v.toList()) {
                QVariant s = sanitize(item);
                if (s.isValid()) {
                    out.push_back(s);
                }
            }
            return out;
        }
        default:
            break;
    }
    if (v.canConvert<NSErrorPtr>() && v.typeId() == qMetaTypeId<NSErrorPtr>()) {
        NSErrorPtr e = v.value<NSErrorPtr>();
        return e ? errorToMap(*e) : QVariant();
    }
    if (v.typeId() == qMetaTypeId<NSXPCListenerEndpoint>()) {
        return v.value<NSXPCListenerEndpoint>().address();
    }
    return {};  // not something that can travel
}

QVariant errorToMap(const NSError& error) {
    QVariantMap m;
    m.insert(QStringLiteral("domain"), error.domain());
    m.insert(QStringLiteral("code"), static_cast<qlonglong>(error.code()));
    m.insert(QStringLiteral("userInfo"), sanitize(error.userInfo()));
    return m;
}

QVariant demarshal(const QDBusArgument& arg) {
    switch (arg.currentType()) {
        case QDBusArgument::BasicType:
            return plainValue(arg.asVariant());
        case QDBusArgument::VariantType: {
            QDBusVariant dv;
            arg >> dv;
            return plainValue(dv.variant());
        }
        case QDBusArgument::ArrayType: {
            if (arg.currentSignature() == QLatin1String("ay")) {
                QByteArray bytes;
                arg >> bytes;
                return bytes;
            }
            QVariantList list;
            arg.beginArray();
            while (!arg.atEnd()) {
                list.push_back(demarshal(arg));
            }
            arg.endArray();
            return list;
        }
        case QDBusArgument::MapType: {
            QVariantMap map;
            arg.beginMap();
            while (!arg.atEnd()) {
                arg.beginMapEntry();
                QVariant key = demarshal(arg);
                QVariant val = demarshal(arg);
                arg.endMapEntry();
                map.insert(key.toString(), val);
            }
            arg.endMap();
            return map;
        }
        case QDBusArgument::StructureType: {
            QVariantList fields;
            arg.beginStructure();
            while (!arg.atEnd()) {
                fields.push_back(demarshal(arg));
            }
            arg.endStructure();
            return fields;
        }
        default:
            return {};
    }
}

std::optional<double> asDouble(const QVariant& v) {
    if (v.typeId() == QMetaType::Double || v.typeId() == QMetaType::Int ||
        v.typeId() == QMetaType::LongLong || v.typeId() == QMetaType::UInt) {
        return v.toDouble();
    }
    return std::nullopt;
}

}  // namespace

void registerMetaTypes() {
    static std::once_flag once;
    std::call_once(once, [] {
        qRegisterMetaType<NSXPCListenerEndpoint>();
        qRegisterMetaType<NSXPCBlock>();
        qRegisterMetaType<NSErrorPtr>();
        qRegisterMetaType<QDBusError>("QDBusError");
        qRegisterMetaType<QDBusMessage>("QDBusMessage");
    });
}

QVariant plainValue(const QVariant& value) {
    if (value.typeId() == qMetaTypeId<QDBusArgument>()) {
        return demarshal(value.value<QDBusArgument>());
    }
    if (value.typeId() == qMetaTypeId<QDBusVariant>()) {
        return plainValue(value.value<QDBusVariant>().variant());
    }
    // Object paths and signatures are text to everyone but D-Bus.
    if (value.typeId() == qMetaTypeId<QDBusObjectPath>()) {
        return value.value<QDBusObjectPath>().path();
    }
    if (value.typeId() == qMetaTypeId<QDBusSignature>()) {
        return value.value<QDBusSignature>().signature();
    }
    if (value.typeId() == QMetaType::QVariantMap) {
        QVariantMap out;
        const QVariantMap in = value.toMap();
        for (auto it = in.cbegin(); it != in.cend(); ++it) {
            out.insert(it.key(), plainValue(it.value()));
        }
        return out;
    }
    if (value.typeId() == QMetaType::QVariantList) {
        QVariantList out;
        for (const QVariant& v : value.toList()) {
            out.push_back(plainValue(v));
        }
        return out;
    }
    return value;
}

bool matchesType(const QVariant& value, NSXPCType type) {
    if (!value.isValid()) {
        return NSXPCTypeIsObject(type);
    }
    const int id = value.typeId();
    switch (type) {
        case NSXPCType::Object:
            return sanitize(value).isValid();
        case NSXPCType::String:
            return id == QMetaType::QString;
        case NSXPCType::Number:
            return isNumeric(value);
        case NSXPCType::URL:
            return id == QMetaType::QUrl;
        case NSXPCType::Data:
            return id == QMetaType::QByteArray;
        case NSXPCType::Dictionary:
            return id == QMetaType::QVariantMap;
        case NSXPCType::Array:
            return id == QMetaType::QVariantList || id == QMetaType::QStringList;
        case NSXPCType::Error:
            return id == qMetaTypeId<NSErrorPtr>() && value.value<NSErrorPtr>() != nullptr;
        case NSXPCType::Endpoint:
            return id == qMetaTypeId<NSXPCListenerEndpoint>();
        // Integers must fit: a value cut down to the wire's width would arrive as another
        // number without anyone noticing.
        case NSXPCType::SignedChar:
            return fitsIn(value, -128, 255);  // a BOOL or char given as its unsigned byte too
        case NSXPCType::Int32:
            return fitsIn(value, std::numeric_limits<int32_t>::min(),
                          std::numeric_limits<int32_t>::max());
        case NSXPCType::UInt32:
            return fitsIn(value, 0, std::numeric_limits<uint32_t>::max());
        case NSXPCType::Int64:
            return fitsIn(value, std::numeric_limits<int64_t>::min(),
                          std::numeric_limits<int64_t>::max());
        case NSXPCType::Double:
            return isNumeric(value);
        case NSXPCType::Size:
            return id == QMetaType::QSizeF || id == QMetaType::QSize;
    }
    return false;
}

std::optional<QVariant> toWire(const QVariant& value, NSXPCType type) {
    if (!matchesType(value, type)) {
        return std::nullopt;
    }
    switch (type) {
        case NSXPCType::SignedChar:
            return QVariant::fromValue(static_cast<uchar>(static_cast<signed char>(value.toInt())));
        case NSXPCType::Int32:
            return QVariant::fromValue(static_cast<int32_t>(value.toLongLong()));
        case NSXPCType::UInt32:
            return QVariant::fromValue(static_cast<uint32_t>(value.toULongLong()));
        case NSXPCType::Int64:
            return QVariant::fromValue(static_cast<qlonglong>(value.toLongLong()));
        case NSXPCType::Double:
            return QVariant::fromValue(value.toDouble());
        case NSXPCType::Size: {
            const QSizeF size = value.toSizeF();
            QDBusArgument arg;
            arg.beginStructure();
            arg << size.width() << size.height();
            arg.endStructure();
            return QVariant::fromValue(arg);
        }
        default:
            break;
    }
    // An object: an array of no element (nil) or one.
    QVariantList wrapped;
    if (value.isValid()) {
        QVariant inner;
        switch (type) {
            case NSXPCType::Error:
                inner = errorToMap(*value.value<NSErrorPtr>());
                break;
            case NSXPCType::Endpoint:
                inner = value.value<NSXPCListenerEndpoint>().address();
                break;
            default:
                inner = sanitize(value);
                break;
        }
        if (!inner.isValid()) {
            return std::nullopt;
        }
        wrapped.push_back(inner);
    }
    return QVariant(wrapped);
}

std::optional<QVariant> fromWire(const QVariant& wire, NSXPCType type) {
    const QVariant v = plainValue(wire);
    const int id = v.typeId();
    switch (type) {
        case NSXPCType::SignedChar:
            if (id != QMetaType::UChar) {
                return std::nullopt;
            }
            return QVariant(static_cast<int>(static_cast<signed char>(v.value<uchar>())));
        case NSXPCType::Int32:
            return id == QMetaType::Int ? std::optional<QVariant>(v) : std::nullopt;
        case NSXPCType::UInt32:
            return id == QMetaType::UInt ? std::optional<QVariant>(v) : std::nullopt;
        case NSXPCType::Int64:
            return id == QMetaType::LongLong ? std::optional<QVariant>(v) : std::nullopt;
        case NSXPCType::Double:
            return id == QMetaType::Double ? std::optional<QVariant>(v) : std::nullopt;
        case NSXPCType::Size: {
            if (id != QMetaType::QVariantList || v.toList().size() != 2) {
                return std::nullopt;
            }
            auto w = asDouble(v.toList()[0]);
            auto h = asDouble(v.toList()[1]);
            if (!w || !h) {
                return std::nullopt;
            }
            return QVariant(QSizeF(*w, *h));
        }
        default:
            break;
    }
    if (id != QMetaType::QVariantList) {
        return std::nullopt;
    }
    const QVariantList list = v.toList();
    if (list.isEmpty()) {
        return QVariant();
    }
    if (list.size() != 1) {
        return std::nullopt;
    }
    const QVariant inner = list[0];
    const int innerId = inner.typeId();
    switch (type) {
        case NSXPCType::Object:
            return inner;
        case NSXPCType::String:
            return innerId == QMetaType::QString ? std::optional<QVariant>(inner) : std::nullopt;
        case NSXPCType::Number:
            return isNumeric(inner) ? std::optional<QVariant>(inner) : std::nullopt;
        case NSXPCType::URL: {
            if (innerId != QMetaType::QString) {
                return std::nullopt;
            }
            QUrl url(inner.toString(), QUrl::StrictMode);
            if (!url.isValid()) {
                return std::nullopt;
            }
            return QVariant(url);
        }
        case NSXPCType::Data:
            return innerId == QMetaType::QByteArray ? std::optional<QVariant>(inner) : std::nullopt;
        case NSXPCType::Dictionary:
            return innerId == QMetaType::QVariantMap ? std::optional<QVariant>(inner)
                                                     : std::nullopt;
        case NSXPCType::Array:
            if (innerId == QMetaType::QStringList) {
                return QVariant(QVariant(inner.toStringList()).toList());
            }
            return innerId == QMetaType::QVariantList ? std::optional<QVariant>(inner)
                                                      : std::nullopt;
        case NSXPCType::Error: {
            if (innerId != QMetaType::QVariantMap) {
                return std::nullopt;
            }
            const QVariantMap m = inner.toMap();
            const QVariant domain = m.value(QStringLiteral("domain"));
            const QVariant code = m.value(QStringLiteral("code"));
            if (domain.typeId() != QMetaType::QString || !isNumeric(code)) {
                return std::nullopt;
            }
            return QVariant::fromValue(NSError::errorWithDomain(
                domain.toString(), code.toLongLong(), m.value(QStringLiteral("userInfo")).toMap()));
        }
        case NSXPCType::Endpoint:
            if (innerId != QMetaType::QString) {
                return std::nullopt;
            }
            return QVariant::fromValue(NSXPCListenerEndpoint(inner.toString()));
        default:
            return std::nullopt;
    }
}

namespace {

// Converts each value with its declared type; any value that does not convert fails the list.
template <class Convert>
std::optional<QVariantList> convertList(const QVariantList& values,
                                        const std::vector<NSXPCType>& types, Convert convert) {
    if (size_t(values.size()) != types.size()) {
        return std::nullopt;
    }
    QVariantList out;
    out.reserve(values.size());
    for (size_t i = 0; i < types.size(); ++i) {
        auto v = convert(values[qsizetype(i)], types[i]);
        if (!v) {
            return std::nullopt;
        }
        out.push_back(*v);
    }
    return out;
}

}  // namespace

std::optional<QVariantList> fromWireList(const QVariantList& wire,
                                         const std::vector<NSXPCType>& types) {
    return convertList(wire, types, [](const QVariant& v, const NSXPCType& t) {
        return fromWire(v, t);
    });
}

std::optional<QVariantList> toWireList(const QVariantList& values,
                                       const std::vector<NSXPCType>& types) {
    return convertList(values, types, [](const QVariant& v, const NSXPCType& t) {
        return toWire(v, t);
    });
}

}  // namespace platform::xpc
