#include "platform/extension/NSExtensionItem.h"

#include <QVariantList>

namespace {
const QString kTitleKey = QStringLiteral("attributedTitle");
const QString kAttachmentsKey = QStringLiteral("attachments");
const QString kUserInfoKey = QStringLiteral("userInfo");

NSExtensionItemPtr refuse(QString* reason, const QString& text) {
    if (reason != nullptr) {
        *reason = text;
    }
    return nullptr;
}
}  // namespace

QVariantMap NSExtensionItem::toPlainValue() const {
    QVariantList attachments;
    for (const NSItemProviderPtr& provider : attachments_) {
        if (provider) {
            attachments.append(provider->toPlainValue());
        }
    }
    QVariantMap value{{kAttachmentsKey, attachments}, {kUserInfoKey, userInfo_}};
    if (!attributedTitle_.isNull()) {
        value.insert(kTitleKey, attributedTitle_);
    }
    return value;
}

NSExtensionItemPtr NSExtensionItem::fromPlainValue(const QVariantMap& value, QString* reason) {
    auto item = std::make_shared<NSExtensionItem>();
    if (value.contains(kTitleKey)) {
        const QVariant title = value.value(kTitleKey);
        if (title.typeId() != QMetaType::QString) {
            return refuse(reason, QStringLiteral("an extension item's title must be a string"));
        }
        item->attributedTitle_ = title.toString();
    }
    if (value.contains(kUserInfoKey)) {
        const QVariant info = value.value(kUserInfoKey);
        if (info.typeId() != QMetaType::QVariantMap) {
            return refuse(reason,
                          QStringLiteral("an extension item's user info must be a dictionary"));
        }
        item->userInfo_ = info.toMap();
    }
    if (value.contains(kAttachmentsKey)) {
        const QVariant attachments = value.value(kAttachmentsKey);
        if (attachments.typeId() != QMetaType::QVariantList) {
            return refuse(reason,
                          QStringLiteral("an extension item's attachments must be an array"));
        }
        for (const QVariant& element : attachments.toList()) {
            if (element.typeId() != QMetaType::QVariantMap) {
                return refuse(reason,
                              QStringLiteral("an extension item's attachment is not a dictionary"));
            }
            NSItemProviderPtr provider = NSItemProvider::fromPlainValue(element.toMap(), reason);
            if (!provider) {
                return nullptr;
            }
            item->attachments_.push_back(std::move(provider));
        }
    }
    return item;
}

QString NSExtensionItem::description() const {
    return QStringLiteral(
               "<NSExtensionItem: attributedTitle: %1, attachments: %2, userInfo keys: %3>")
        .arg(attributedTitle_.isNull() ? QStringLiteral("(null)") : attributedTitle_)
        .arg(attachments_.size())
        .arg(userInfo_.size());
}
