// Errors as values: a domain, a code and a user-info dictionary. Errors are immutable and
// travel as shared pointers; an empty pointer is "no error".
#pragma once

#include <QString>
#include <QVariantMap>
#include <cstdint>
#include <memory>

class NSError;
using NSErrorPtr = std::shared_ptr<const NSError>;

inline const QString NSPlatformErrorDomain = QStringLiteral("NSPlatformErrorDomain");
inline const QString NSPOSIXErrorDomain = QStringLiteral("NSPOSIXErrorDomain");
inline const QString NSLocalizedDescriptionKey = QStringLiteral("NSLocalizedDescription");
inline const QString NSFilePathErrorKey = QStringLiteral("NSFilePath");
inline const QString NSUnderlyingErrorKey = QStringLiteral("NSUnderlyingError");

// Codes of the platform error domain that the platform produces.
enum : int64_t {
    NSFileNoSuchFileError = 4,
    NSFileReadUnknownError = 256,
    NSFileReadNoPermissionError = 257,
    NSFileReadInvalidFileNameError = 258,
    NSFileReadNoSuchFileError = 260,
    NSFileWriteUnknownError = 512,
    NSFileWriteNoPermissionError = 513,
    NSFileWriteInvalidFileNameError = 514,
    NSFileWriteFileExistsError = 516,
    NSFileWriteOutOfSpaceError = 640,
    NSFileWriteVolumeReadOnlyError = 642,
    NSXPCConnectionInterrupted = 4097,
    NSXPCConnectionInvalid = 4099,
    NSXPCConnectionReplyInvalid = 4101,
};

class NSError {
public:
    NSError(QString domain, int64_t code, QVariantMap userInfo = {});

    static NSErrorPtr errorWithDomain(const QString& domain, int64_t code,
                                      const QVariantMap& userInfo = {});
    // An error of the POSIX domain for `errnum`, with the system's text as its description.
    static NSErrorPtr posixError(int errnum);

    const QString& domain() const { return domain_; }
    int64_t code() const { return code_; }
    const QVariantMap& userInfo() const { return userInfo_; }

    // The user info's localized description, or a sentence made of the domain and code.
    QString localizedDescription() const;
    // "Error Domain=D Code=N "description" UserInfo={k=v, ...}", as the log shows errors.
    QString description() const;

    // A 32-bit number that stands for this error object: the low half of its address. Stable
    // for the object's life; what the log prints where an error reference is narrowed to %i.
    int32_t narrowedReference() const;

private:
    QString domain_;
    int64_t code_;
    QVariantMap userInfo_;
};

Q_DECLARE_METATYPE(NSErrorPtr)
