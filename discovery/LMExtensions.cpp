#include "discovery/LMExtensions.h"

#include <optional>

#include "platform/extension/NSExtensionRegistry.h"
#include "platform/extension/UTType.h"
#include "platform/log/os_log.h"

namespace LMExtensions {
namespace {

const QString kActivationRuleKey = QStringLiteral("NSExtensionActivationRule");
const QString kExtensionKey = QStringLiteral("NSExtension");
const QString kProcessModeKey = QStringLiteral("LMBroadcastProcessMode");
const QString kSampleBufferMode = QStringLiteral("LMBroadcastProcessModeSampleBuffer");

}  // namespace

QVariantMap matchingAttributesForPointName(const QString& pointName) {
    const QVariantMap base{{NSExtensionPointName, pointName}};
    QVariantMap attributes(base);
    attributes.insert(PKProtocolAttribute, QVariantList{pointName});
    attributes.insert(LSExtensionPlatformsAttribute,
                      QVariantList{QVariant::fromValue<qlonglong>(kExtensionPlatformNative),
                                   QVariant::fromValue<qlonglong>(kExtensionPlatformPrism)});
    return attributes;
}

void extensionsWithMatchingPointNameBaseIdentifierActivationRule(
    const QString& pointName, const QString& baseIdentifier, const QString& activationRule,
    const QString& unwantedActivationRule, ExtensionsCompletion completion) {
    std::vector<NSExtensionPtr> result;  // filled in the registry's completion
    NSExtension::extensionsWithMatchingAttributes(
        matchingAttributesForPointName(pointName),
        [result = std::move(result), baseIdentifier, activationRule, unwantedActivationRule,
         completion = std::move(completion)](std::vector<NSExtensionPtr> extensions,
                                             NSErrorPtr error) mutable {
            // One line per extension: gathered into few writes where the log's sink allows it,
            // and written before the completion runs.
            std::optional<platform::log::LogBatch> batch(std::in_place);
            for (const NSExtensionPtr& extension : extensions) {
                NSLog("NSExtensionPointIdentifier %@ _extensionBundle %@",
                      extension->extensionPointIdentifier(), extension->_extensionBundle());
                // A literal prefix test: an empty base identifier is no prefix of anything.
                if (!baseIdentifier.isNull() &&
                    (baseIdentifier.isEmpty() ||
                     !extension->identifier().startsWith(baseIdentifier))) {
                    continue;
                }
                const QVariant rule = extension->attributes().value(kActivationRuleKey);
                if (rule.typeId() == QMetaType::QVariantMap) {
                    const QVariantMap rules = rule.toMap();
                    if (!activationRule.isNull() && (!rules.contains(activationRule) ||
                                                     !boolValue(rules.value(activationRule)))) {
                        continue;
                    }
                    if (!unwantedActivationRule.isNull() &&
                        rules.contains(unwantedActivationRule) &&
                        boolValue(rules.value(unwantedActivationRule))) {
                        continue;
                    }
                    result.push_back(extension);
                } else if (activationRule.isNull()) {
                    // No rule dictionary: any unwanted rule passes, a wanted one cannot.
                    result.push_back(extension);
                }
            }
            batch.reset();
            if (completion) {
                completion(std::move(result), std::move(error));
            }
        });
}

void extensionsWithMatchingPointNameBaseIdentifierCompletion(const QString& pointName,
                                                             const QString& baseIdentifier,
                                                             ExtensionsCompletion completion) {
    extensionsWithMatchingPointNameBaseIdentifierActivationRule(pointName, baseIdentifier, {}, {},
                                                                std::move(completion));
}

void extensionsWithMatchingPointNameBaseIdentifierUnwantedActivationRule(
    const QString& pointName, const QString& baseIdentifier, const QString& unwantedActivationRule,
    ExtensionsCompletion completion) {
    extensionsWithMatchingPointNameBaseIdentifierActivationRule(
        pointName, baseIdentifier, {}, unwantedActivationRule, std::move(completion));
}

void extensionsWithMatchingPointNameActivationRule(const QString& pointName,
                                                   const QString& activationRule,
                                                   ExtensionsCompletion completion) {
    extensionsWithMatchingPointNameBaseIdentifierActivationRule(pointName, {}, activationRule, {},
                                                                std::move(completion));
}

void extensionsWithMatchingPointNameUnwantedActivationRule(const QString& pointName,
                                                           const QString& unwantedActivationRule,
                                                           ExtensionsCompletion completion) {
    extensionsWithMatchingPointNameBaseIdentifierActivationRule(
        pointName, {}, {}, unwantedActivationRule, std::move(completion));
}

void extensionsWithMatchingPointName(const QString& pointName, ExtensionsCompletion completion) {
    extensionsWithMatchingPointNameBaseIdentifierActivationRule(pointName, {}, {}, {},
                                                                std::move(completion));
}

int64_t processMode(const NSExtension& extension) {
    const QVariant declared = extension.infoDictionary().value(kExtensionKey);
    if (declared.typeId() != QMetaType::QVariantMap) {
        return 0;
    }
    const QVariant mode = declared.toMap().value(kProcessModeKey);
    return mode.typeId() == QMetaType::QString && mode.toString() == kSampleBufferMode ? 1 : 0;
}

NSExtensionItemPtr itemWithTitle(const QString& title, const QVariant& attachmentItem) {
    auto item = std::make_shared<NSExtensionItem>();
    item->setAttributedTitle(title);
    item->setAttachments({NSItemProvider::initWithItem(attachmentItem, kUTTypeData)});
    return item;
}

bool boolValue(const QVariant& value) {
    switch (value.typeId()) {
        case QMetaType::Bool:
            return value.toBool();
        case QMetaType::Double:
        case QMetaType::Float:
            return value.toDouble() != 0.0;
        case QMetaType::QString: {
            const QString text = value.toString();
            qsizetype i = 0;
            while (i < text.size() && text.at(i).isSpace()) {
                ++i;
            }
            if (i < text.size() && (text.at(i) == u'+' || text.at(i) == u'-')) {
                ++i;
            }
            while (i < text.size() && text.at(i) == u'0') {
                ++i;
            }
            if (i >= text.size()) {
                return false;
            }
            const QChar c = text.at(i);
            return c == u'y' || c == u'Y' || c == u't' || c == u'T' || (c >= u'1' && c <= u'9');
        }
        default:
            return value.canConvert<qlonglong>() && value.toLongLong() != 0;
    }
}

}  // namespace LMExtensions
