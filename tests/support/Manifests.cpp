#include "tests/support/Manifests.h"

#include <QDir>
#include <QJsonDocument>


namespace lumaro::test {

QJsonObject manifest(const QString& identifier, const QJsonValue& rule, const QString& point,
                     int platform, const QString& displayName) {
    QJsonObject attributes{{"NSExtensionPointIdentifier", point}};
    if (!rule.isUndefined() && !rule.isNull()) {
        attributes.insert("NSExtensionActivationRule", rule);
    }
    return QJsonObject{
        {"identifier", identifier},
        {"NSExtension", attributes},
        {"infoDictionary", QJsonObject{{"CFBundleDisplayName", displayName}}},
        {"platform", platform},
        {"containingApplication", "apps/" + identifier},
        {"executable", "bin/setup-ui"},
    };
}

QString writeManifest(const TempDir& dir, const QString& file, const QJsonObject& object) {
    return dir.write(file, 0, QJsonDocument(object).toJson());
}

QStringList identifiersOf(const std::vector<NSExtensionPtr>& extensions) {
    QStringList ids;
    for (const NSExtensionPtr& extension : extensions) {
        ids << extension->identifier();
    }
    return ids;
}

}  // namespace lumaro::test
