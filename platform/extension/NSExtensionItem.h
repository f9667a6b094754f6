// An extension item: what a host hands to an extension and an extension hands back. A title
// (the attributed title's text), attachments (item providers) and a user-info dictionary.
#pragma once

#include <QString>
#include <QVariantMap>
#include <memory>
#include <vector>

#include "platform/extension/NSItemProvider.h"

class NSExtensionItem;
using NSExtensionItemPtr = std::shared_ptr<NSExtensionItem>;

class NSExtensionItem {
public:
    NSExtensionItem() = default;

    // The attributed title's string; a null string stands for no title.
    const QString& attributedTitle() const { return attributedTitle_; }
    void setAttributedTitle(const QString& title) { attributedTitle_ = title; }

    const std::vector<NSItemProviderPtr>& attachments() const { return attachments_; }
    void setAttachments(std::vector<NSItemProviderPtr> attachments) {
        attachments_ = std::move(attachments);
    }

    const QVariantMap& userInfo() const { return userInfo_; }
    void setUserInfo(const QVariantMap& userInfo) { userInfo_ = userInfo; }

    // The item as a plain value for carrying it between processes, and back:
    // {"attributedTitle": string (absent for none), "attachments": [provider values],
    //  "userInfo": dictionary}. fromPlainValue answers an empty pointer and a reason when the
    // value is not of that shape.
    QVariantMap toPlainValue() const;
    static NSExtensionItemPtr fromPlainValue(const QVariantMap& value, QString* reason = nullptr);

    QString description() const;

private:
    QString attributedTitle_;
    std::vector<NSItemProviderPtr> attachments_;
    QVariantMap userInfo_;
};
