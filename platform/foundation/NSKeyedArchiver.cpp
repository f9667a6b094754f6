#include "platform/foundation/NSKeyedArchiver.h"

#include <QCborArray>
#include <QCborMap>
#include <QCborStreamReader>
#include <QCborValue>
#include <QDateTime>
#include <QUrl>

namespace {

const QString kArchiverKey = QStringLiteral("archiver");
const QString kArchiverName = QStringLiteral("NSKeyedArchiver");
const QString kRootKey = QStringLiteral("root");
constexpr int kMaxDepth = 256;  // deeper trees are refused rather than risking the stack

void fail(NSErrorPtr* error, int64_t code, const QString& reason) {
    if (error != nullptr) {
        *error = NSError::errorWithDomain(NSPlatformErrorDomain, code,
                                          {{NSLocalizedDescriptionKey, reason}});
    }
}

// Encodes one value; answers false with `reason` set when it cannot be archived.
bool encode(const QVariant& value, int depth, QCborValue& out, QString& reason) {
    if (depth > kMaxDepth) {
        reason = QStringLiteral("the object graph is nested more than %1 levels").arg(kMaxDepth);
        return false;
    }
    switch (value.typeId()) {
        case QMetaType::QString:
            out = value.toString();
            return true;
        case QMetaType::QByteArray:
            out = value.toByteArray();
            return true;
        case QMetaType::Bool:
            out = value.toBool();
            return true;
        case QMetaType::Int:
        case QMetaType::Long:
        case QMetaType::LongLong:
        case QMetaType::Short:
        case QMetaType::UInt:
        case QMetaType::UShort:
        case QMetaType::UChar:
        case QMetaType::SChar:
            out = value.toLongLong();
            return true;
        case QMetaType::ULong:
        case QMetaType::ULongLong:
            if (value.toULongLong() > static_cast<qulonglong>(INT64_MAX)) {
                reason = QStringLiteral("an unsigned number above the 64-bit signed range");
                return false;
            }
            out = value.toLongLong();
            return true;
        case QMetaType::Double:
        case QMetaType::Float:
            out = value.toDouble();
            return true;
        case QMetaType::QUrl:
            out = QCborValue(value.toUrl());
            return true;
        case QMetaType::QDateTime:
            out = QCborValue(value.toDateTime());
            return true;
        case QMetaType::QStringList:
        case QMetaType::QVariantList: {
            QCborArray array;
            for (const QVariant& element : value.toList()) {
                QCborValue encoded;
                if (!encode(element, depth + 1, encoded, reason)) {
                    return false;
                }
                array.append(encoded);
            }
            out = array;
            return true;
        }
        case QMetaType::QVariantMap:
        case QMetaType::QVariantHash: {
            QCborMap map;
            const QVariantMap dict = value.toMap();
            for (auto it = dict.cbegin(); it != dict.cend(); ++it) {
                QCborValue encoded;
                if (!encode(it.value(), depth + 1, encoded, reason)) {
                    return false;
                }
                map.insert(it.key(), encoded);
            }
            out = map;
            return true;
        }
        default:
            reason = value.isValid() ? QStringLiteral("a value of type %1 cannot be archived")
                                           .arg(QString::fromLatin1(value.metaType().name()))
                                     : QStringLiteral("a nil value cannot be archived");
            return false;
    }
}

bool decode(const QCborValue& value, int depth, QVariant& out, QString& reason) {
    if (depth > kMaxDepth) {
        reason = QStringLiteral("the archive is nested more than %1 levels").arg(kMaxDepth);
        return false;
    }
    switch (value.type()) {
        case QCborValue::String:
            out = value.toString();
            return true;
        case QCborValue::ByteArray:
            out = value.toByteArray();
            return true;
        case QCborValue::Integer:
            out = static_cast<qint64>(value.toInteger());
            return true;
        case QCborValue::Double:
            out = value.toDouble();
            return true;
        case QCborValue::True:
        case QCborValue::False:
            out = value.toBool();
            return true;
        case QCborValue::Url: {
            // Read tolerantly, as QUrl reads text; what still is no URL is not one to hand on.
            const QUrl url = value.toUrl();
            if (!url.isValid() && !url.isEmpty()) {
                reason = QStringLiteral("a URL that is not valid (%1)").arg(url.errorString());
                return false;
            }
            out = url;
            return true;
        }
        case QCborValue::DateTime:
            out = value.toDateTime();
            return true;
        case QCborValue::Array: {
            QVariantList list;
            const QCborArray array = value.toArray();
            for (const QCborValue& element : array) {
                QVariant decoded;
                if (!decode(element, depth + 1, decoded, reason)) {
                    return false;
                }
                list.append(decoded);
            }
            out = list;
            return true;
        }
        case QCborValue::Map: {
            QVariantMap dict;
            const QCborMap map = value.toMap();
            for (auto it = map.cbegin(); it != map.cend(); ++it) {
                if (!it.key().isString()) {
                    reason = QStringLiteral("a dictionary key is not a string");
                    return false;
                }
                QVariant decoded;
                if (!decode(it.value(), depth + 1, decoded, reason)) {
                    return false;
                }
                dict.insert(it.key().toString(), decoded);
            }
            out = dict;
            return true;
        }
        default:
            reason = QStringLiteral("an unsupported value (CBOR type %1)")
                         .arg(static_cast<int>(value.type()));
            return false;
    }
}

}  // namespace

QByteArray NSKeyedArchiver::archivedDataWithRootObject(const QVariant& rootObject,
                                                       NSErrorPtr* error) {
    QCborValue root;
    QString reason;
    if (!encode(rootObject, 0, root, reason)) {
        fail(error, NSCoderInvalidValueError, QStringLiteral("Cannot archive: %1").arg(reason));
        return {};
    }
    const QCborMap archive{{kArchiverKey, kArchiverName}, {kRootKey, root}};
    return QCborValue(QCborKnownTags::Signature, archive).toCbor();
}

QVariant NSKeyedUnarchiver::unarchiveObjectWithData(const QByteArray& data, NSErrorPtr* error) {
    if (data.isEmpty()) {
        fail(error, NSCoderReadCorruptError, QStringLiteral("The archive is empty."));
        return {};
    }
    QCborStreamReader reader(data);
    const QCborValue tagged = QCborValue::fromCbor(reader);
    if (reader.lastError() != QCborError::NoError) {
        fail(error, NSCoderReadCorruptError,
             QStringLiteral("The archive is corrupt at byte %1: %2")
                 .arg(reader.currentOffset())
                 .arg(reader.lastError().toString()));
        return {};
    }
    if (!tagged.isTag() || tagged.tag() != QCborTag(QCborKnownTags::Signature) ||
        !tagged.taggedValue().isMap()) {
        fail(error, NSCoderReadCorruptError, QStringLiteral("The data is not a keyed archive."));
        return {};
    }
    const QCborMap archive = tagged.taggedValue().toMap();
    if (archive.value(kArchiverKey).toString() != kArchiverName || !archive.contains(kRootKey)) {
        fail(error, NSCoderReadCorruptError, QStringLiteral("The data is not a keyed archive."));
        return {};
    }
    // fromCbor stops after the first value: anything behind it means the data was damaged or
    // two archives were glued together.
    if (reader.currentOffset() != data.size()) {
        fail(error, NSCoderReadCorruptError,
             QStringLiteral("The archive has trailing bytes after its end."));
        return {};
    }
    QVariant root;
    QString reason;
    if (!decode(archive.value(kRootKey), 0, root, reason)) {
        fail(error, NSCoderReadCorruptError, QStringLiteral("The archive holds %1.").arg(reason));
        return {};
    }
    return root;
}
