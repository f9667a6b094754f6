#include "platform/extension/NSItemProvider.h"

#include "platform/dispatch/dispatch.h"
#include "platform/extension/UTType.h"

namespace {
const QString kTypeIdentifierKey = QStringLiteral("typeIdentifier");
const QString kItemKey = QStringLiteral("item");
}  // namespace

NSItemProvider::NSItemProvider(QVariant item, QString typeIdentifier)
    : item_(std::move(item)), typeIdentifier_(std::move(typeIdentifier)) {}

NSItemProviderPtr NSItemProvider::initWithItem(const QVariant& item,
                                               const QString& typeIdentifier) {
    return std::make_shared<NSItemProvider>(item, typeIdentifier);
}

QStringList NSItemProvider::registeredTypeIdentifiers() const {
    return typeIdentifier_.isEmpty() ? QStringList() : QStringList{typeIdentifier_};
}

bool NSItemProvider::hasItemConformingToTypeIdentifier(const QString& typeIdentifier) const {
    return UTTypeConformsTo(typeIdentifier_, typeIdentifier);
}

void NSItemProvider::loadItemForTypeIdentifier(
    const QString& typeIdentifier, const QVariantMap& /*options*/,
    NSItemProviderCompletionHandler completionHandler) const {
    if (!completionHandler) {
        return;
    }
    QVariant item;
    NSErrorPtr error;
    if (!hasItemConformingToTypeIdentifier(typeIdentifier)) {
        error = NSError::errorWithDomain(
            NSItemProviderErrorDomain, NSItemProviderItemUnavailableError,
            {{NSLocalizedDescriptionKey,
              QStringLiteral("Cannot load an item of type %1 from a provider of type %2")
                  .arg(typeIdentifier,
                       typeIdentifier_.isEmpty() ? QStringLiteral("(none)") : typeIdentifier_)}});
    } else if (!item_.isValid()) {
        error = NSError::errorWithDomain(
            NSItemProviderErrorDomain, NSItemProviderItemUnavailableError,
            {{NSLocalizedDescriptionKey, QStringLiteral("The provider holds no item")}});
    } else {
        item = item_;  // copied now: the provider may be gone by the time the block runs
    }
    dispatch_async(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0),
                   [handler = std::move(completionHandler), item = std::move(item),
                    error = std::move(error)] { handler(item, error); });
}

QVariantMap NSItemProvider::toPlainValue() const {
    QVariantMap value{{kTypeIdentifierKey, typeIdentifier_}};
    if (item_.isValid() && !item_.isNull()) {
        value.insert(kItemKey, item_);  // no null entries: some transports cannot carry them
    }
    return value;
}

NSItemProviderPtr NSItemProvider::fromPlainValue(const QVariantMap& value, QString* reason) {
    const QVariant type = value.value(kTypeIdentifierKey);
    if (type.typeId() != QMetaType::QString) {
        if (reason != nullptr) {
            *reason = QStringLiteral("an item provider needs a string \"typeIdentifier\"");
        }
        return nullptr;
    }
    return std::make_shared<NSItemProvider>(value.value(kItemKey), type.toString());
}

QString NSItemProvider::description() const {
    return QStringLiteral("<NSItemProvider: registeredTypeIdentifiers = (%1)>")
        .arg(registeredTypeIdentifiers().join(QStringLiteral(", ")));
}
