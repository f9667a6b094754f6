// An item provider: one value (data, a dictionary, a string, a URL...) offered under one type
// identifier, loaded asynchronously.
//
// A load completes exactly once, never inline: on a global queue, with the value when the
// requested type is the provider's type or one it conforms to, else with an error of the item
// provider domain. Providers are immutable once made and safe to load from many threads at once.
#pragma once

#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>
#include <functional>
#include <memory>

#include "platform/foundation/NSError.h"

class NSItemProvider;
using NSItemProviderPtr = std::shared_ptr<NSItemProvider>;

inline const QString NSItemProviderErrorDomain = QStringLiteral("NSItemProviderErrorDomain");
enum : int64_t {
    NSItemProviderUnknownError = -1,
    NSItemProviderItemUnavailableError = -1000,
    NSItemProviderUnexpectedValueClassError = -1100,
};

using NSItemProviderCompletionHandler = std::function<void(QVariant item, NSErrorPtr error)>;

class NSItemProvider {
public:
    NSItemProvider(QVariant item, QString typeIdentifier);

    // initWithItem:typeIdentifier:
    static NSItemProviderPtr initWithItem(const QVariant& item, const QString& typeIdentifier);

    QStringList registeredTypeIdentifiers() const;
    const QString& typeIdentifier() const { return typeIdentifier_; }

    // hasItemConformingToTypeIdentifier:: whether the provider's type conforms to `type`.
    bool hasItemConformingToTypeIdentifier(const QString& typeIdentifier) const;

    // loadItemForTypeIdentifier:options:completionHandler:. `options` is accepted and unused.
    // An empty handler is allowed; the load then does nothing.
    void loadItemForTypeIdentifier(const QString& typeIdentifier, const QVariantMap& options,
                                   NSItemProviderCompletionHandler completionHandler) const;

    // The provider as a plain value, for carrying it between processes, and back. The value is
    // {"typeIdentifier": string, "item": value}; fromPlainValue answers an empty pointer and a
    // reason for anything else.
    QVariantMap toPlainValue() const;
    static NSItemProviderPtr fromPlainValue(const QVariantMap& value, QString* reason = nullptr);

    QString description() const;

private:
    QVariant item_;
    QString typeIdentifier_;
};
