#include "platform/extension/NSExtension.h"

#include "platform/dispatch/dispatch.h"
#include "platform/extension/NSExtensionRegistry.h"
#include "platform/extension/NSExtensionRequest.h"

NSExtensionPlugIn::NSExtensionPlugIn(QString identifier, QUrl containingUrl, int64_t platform,
                                     QUrl executableUrl, QVariantMap plugInDictionary,
                                     QString manifestPath)
    : identifier_(std::move(identifier)),
      containingUrl_(std::move(containingUrl)),
      platform_(platform),
      executableUrl_(std::move(executableUrl)),
      plugInDictionary_(std::move(plugInDictionary)),
      manifestPath_(std::move(manifestPath)) {}

NSExtensionBundle::NSExtensionBundle(QString bundlePath, QString bundleIdentifier)
    : bundlePath_(std::move(bundlePath)), bundleIdentifier_(std::move(bundleIdentifier)) {}

QString NSExtensionBundle::description() const {
    return QStringLiteral("NSExtensionBundle <%1> (%2)").arg(bundlePath_, bundleIdentifier_);
}

NSExtension::NSExtension(QString identifier, QVariantMap attributes, QVariantMap infoDictionary,
                         std::shared_ptr<const NSExtensionPlugIn> plugIn,
                         std::shared_ptr<const NSExtensionBundle> bundle)
    : identifier_(std::move(identifier)),
      extensionPointIdentifier_(attributes.value(NSExtensionPointIdentifierKey).toString()),
      attributes_(std::move(attributes)),
      infoDictionary_(std::move(infoDictionary)),
      plugIn_(std::move(plugIn)),
      bundle_(std::move(bundle)) {}

QString NSExtension::description() const {
    return QStringLiteral("<NSExtension: %1 (%2)>").arg(identifier_, extensionPointIdentifier_);
}

namespace {

// Whether `extension` satisfies every recognised entry of the query dictionary.
bool matches(const NSExtension& extension, const QString& pointName, const QVariantMap& query) {
    if (extension.extensionPointIdentifier() != pointName) {
        return false;
    }
    if (query.contains(PKProtocolAttribute) &&
        !query.value(PKProtocolAttribute).toStringList().contains(pointName)) {
        return false;
    }
    if (query.contains(LSExtensionPlatformsAttribute)) {
        const int64_t platform = extension._plugIn() ? extension._plugIn()->platform() : 0;
        bool found = false;
        for (const QVariant& accepted : query.value(LSExtensionPlatformsAttribute).toList()) {
            found = found || accepted.toLongLong() == platform;
        }
        if (!found) {
            return false;
        }
    }
    return true;
}

}  // namespace

void NSExtension::extensionsWithMatchingAttributes(const QVariantMap& attributes,
                                                   MatchingCompletion completion) {
    platform::extension::useBuildTreeExtensions();
    dispatch_async(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0),
                   [attributes, completion = std::move(completion)] {
                       const QVariant point = attributes.value(NSExtensionPointName);
                       std::vector<NSExtensionPtr> found;
                       NSErrorPtr error;
                       if (point.typeId() != QMetaType::QString || point.toString().isEmpty()) {
                           error = NSError::errorWithDomain(
                               NSExtensionRegistryErrorDomain, NSExtensionRegistryInvalidQueryError,
                               {{NSLocalizedDescriptionKey,
                                 QStringLiteral("The query names no extension point.")}});
                       } else {
                           NSExtensionRegistry::Scan scan =
                               NSExtensionRegistry::sharedRegistry()->scan();
                           error = scan.error;
                           for (NSExtensionPtr& extension : scan.extensions) {
                               if (matches(*extension, point.toString(), attributes)) {
                                   found.push_back(std::move(extension));
                               }
                           }
                       }
                       if (completion) {
                           completion(std::move(found), error);
                       }
                   });
}

NSExtensionPtr NSExtension::extensionWithIdentifier(const QString& identifier, NSErrorPtr* error) {
    platform::extension::useBuildTreeExtensions();
    NSExtensionRegistry::Scan scan = NSExtensionRegistry::sharedRegistry()->scan();
    for (NSExtensionPtr& extension : scan.extensions) {
        if (extension->identifier() == identifier) {
            return extension;
        }
    }
    if (error != nullptr) {
        *error = NSError::errorWithDomain(
            NSExtensionRegistryErrorDomain, NSExtensionRegistryNotFoundError,
            {{NSLocalizedDescriptionKey,
              QStringLiteral("No installed extension has the identifier %1.").arg(identifier)}});
    }
    return nullptr;
}
