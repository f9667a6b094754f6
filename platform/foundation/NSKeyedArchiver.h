// The keyed archive: a dictionary (or any tree of strings, numbers, booleans, data, URLs, dates,
// arrays and string-keyed dictionaries) turned into bytes and back.
//
// The encoding is CBOR: a self-describing tag (55799) around a two-entry map
// {"archiver": "NSKeyedArchiver", "root": <value>}. Values that CBOR cannot carry faithfully
// (images, pointers, null entries inside containers) are refused when archiving; corrupt,
// truncated or foreign bytes are refused when unarchiving. Both report an NSError of the
// platform error domain and never abort.
#pragma once

#include <QByteArray>
#include <QVariant>

#include "platform/foundation/NSError.h"

// Codes of the platform error domain for archives.
enum : int64_t {
    NSCoderReadCorruptError = 4864,
    NSCoderValueNotFoundError = 4865,
    NSCoderInvalidValueError = 4866,
};

class NSKeyedArchiver {
public:
    // The archive of `rootObject`, or empty data (and `*error` set) when some value inside it
    // cannot be archived.
    static QByteArray archivedDataWithRootObject(const QVariant& rootObject,
                                                 NSErrorPtr* error = nullptr);
};

class NSKeyedUnarchiver {
public:
    // The root object of `data`, or an invalid QVariant (and `*error` set) when the data is not
    // an intact archive. Dictionaries come back as QVariantMap, arrays as QVariantList, data as
    // QByteArray, integers as qint64.
    static QVariant unarchiveObjectWithData(const QByteArray& data, NSErrorPtr* error = nullptr);
};
