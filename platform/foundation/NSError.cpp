#include "platform/foundation/NSError.h"

#include <QStringList>
#include <bit>
#include <cstring>

NSError::NSError(QString domain, int64_t code, QVariantMap userInfo)
    : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo)) {}

NSErrorPtr NSError::errorWithDomain(const QString& domain, int64_t code,
                                    const QVariantMap& userInfo) {
    return std::make_shared<const NSError>(domain, code, userInfo);
}

NSErrorPtr NSError::posixError(int errnum) {
    return errorWithDomain(NSPOSIXErrorDomain, errnum,
                           {{NSLocalizedDescriptionKey, QString::fromLocal8Bit(strerror(errnum))}});
}

QString NSError::localizedDescription() const {
    const QVariant text = userInfo_.value(NSLocalizedDescriptionKey);
    if (text.isValid() && !text.toString().isEmpty()) {
        return text.toString();
    }
    return QStringLiteral("The operation couldn't be completed. (%1 error %2.)").arg(domain_).arg(code_);
}

QString NSError::description() const {
    QStringList info;
    for (auto it = userInfo_.cbegin(); it != userInfo_.cend(); ++it) {
        const QVariant& v = it.value();
        QString shown;
        if (v.canConvert<NSErrorPtr>() && v.metaType() == QMetaType::fromType<NSErrorPtr>()) {
            const NSErrorPtr inner = v.value<NSErrorPtr>();
            shown = inner ? inner->description() : QStringLiteral("(null)");
        } else {
            shown = v.toString();
        }
        info << QStringLiteral("%1=%2").arg(it.key(), shown);
    }
    return QStringLiteral("Error Domain=%1 Code=%2 \"%3\" UserInfo={%4}")
        .arg(domain_)
        .arg(code_)
        .arg(localizedDescription(), info.join(QStringLiteral(", ")));
}

int32_t NSError::narrowedReference() const {
    const auto address = reinterpret_cast<uintptr_t>(this);
    return std::bit_cast<int32_t>(static_cast<uint32_t>(address));
}
