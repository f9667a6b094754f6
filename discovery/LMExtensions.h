// Extension discovery: queries of the extension registry by extension point, identifier prefix
// and activation rule; the processing mode of an extension; and the titled item, the one
// key-and-value carrier that host, picker and setup UI exchange.
//
// The category on NSExtension and on NSExtensionItem is the namespace LMExtensions; the
// receiver of an instance method is its first parameter. Selector to function:
//
//   +extensionsWithMatchingPointName:baseIdentifier:activationRule:unwantedActivationRule:completion:
//                                        extensionsWithMatchingPointNameBaseIdentifierActivationRule
//   +extensionsWithMatchingPointName:baseIdentifier:completion:
//                                        extensionsWithMatchingPointNameBaseIdentifierCompletion
//   +extensionsWithMatchingPointName:baseIdentifier:unwantedActivationRule:completion:
//                                        extensionsWithMatchingPointNameBaseIdentifierUnwantedActivationRule
//   +extensionsWithMatchingPointName:activationRule:completion:
//                                        extensionsWithMatchingPointNameActivationRule
//   +extensionsWithMatchingPointName:unwantedActivationRule:completion:
//                                        extensionsWithMatchingPointNameUnwantedActivationRule
//   +extensionsWithMatchingPointName:completion:     extensionsWithMatchingPointName
//   -processMode                                     processMode(extension)
//   +[NSExtensionItem itemWithTitle:attachmentItem:] itemWithTitle
//
// A null QString is nil. The completion runs on the queue on which the registry answers (a
// global queue), with the registry's order kept and the registry's error passed on unchanged;
// the array is never absent, only empty. An empty completion drops the result.
#pragma once

#include <QString>
#include <QVariant>
#include <cstdint>
#include <functional>
#include <vector>

#include "platform/extension/NSExtension.h"
#include "platform/extension/NSExtensionItem.h"

namespace LMExtensions {

using ExtensionsCompletion =
    std::function<void(std::vector<NSExtensionPtr> extensions, NSErrorPtr error)>;

// The query dictionary handed to the registry: the point name, the protocol attribute holding
// the same name, and the platforms 1 and 6.
QVariantMap matchingAttributesForPointName(const QString& pointName);

// The full query. An extension is kept when its identifier begins with `baseIdentifier` (a
// literal, case-sensitive prefix test: a null one asks nothing, an empty one keeps none), and,
// when its activation rule is a dictionary, `activationRule` is present there and true and
// `unwantedActivationRule` is not present and true; when its activation rule is missing or not a
// dictionary, it is kept only if no `activationRule` is asked for.
void extensionsWithMatchingPointNameBaseIdentifierActivationRule(
    const QString& pointName, const QString& baseIdentifier, const QString& activationRule,
    const QString& unwantedActivationRule, ExtensionsCompletion completion);

void extensionsWithMatchingPointNameBaseIdentifierCompletion(const QString& pointName,
                                                             const QString& baseIdentifier,
                                                             ExtensionsCompletion completion);

void extensionsWithMatchingPointNameBaseIdentifierUnwantedActivationRule(
    const QString& pointName, const QString& baseIdentifier, const QString& unwantedActivationRule,
    ExtensionsCompletion completion);

void extensionsWithMatchingPointNameActivationRule(const QString& pointName,
                                                   const QString& activationRule,
                                                   ExtensionsCompletion completion);

void extensionsWithMatchingPointNameUnwantedActivationRule(const QString& pointName,
                                                           const QString& unwantedActivationRule,
                                                           ExtensionsCompletion completion);

void extensionsWithMatchingPointName(const QString& pointName, ExtensionsCompletion completion);

// 1 when the information dictionary's "NSExtension" dictionary has "LMBroadcastProcessMode"
// equal to "LMBroadcastProcessModeSampleBuffer", else 0.
int64_t processMode(const NSExtension& extension);

// A titled item: `title` as the attributed title and one attachment, a provider of
// `attachmentItem` typed kUTTypeData.
NSExtensionItemPtr itemWithTitle(const QString& title, const QVariant& attachmentItem);

// The truth of an activation-rule value as a rule declaration means it: booleans as they are,
// numbers when not zero, strings that begin (after blanks and a sign) with y, Y, t, T or a
// digit 1 to 9 after any zeros.
bool boolValue(const QVariant& value);

}  // namespace LMExtensions
