#include "tests/discovery/ManifestFixture.h"

#include <QDir>
#include <QJsonDocument>
#include <chrono>
#include <cstdlib>
#include <future>

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

ScopedSearchPath::ScopedSearchPath(const QStringList& folders)
    : previous_(qgetenv("LUMARO_EXTENSIONS_PATH")),
      hadPrevious_(qEnvironmentVariableIsSet("LUMARO_EXTENSIONS_PATH")) {
    qputenv("LUMARO_EXTENSIONS_PATH", folders.join(QLatin1Char(':')).toUtf8());
}

ScopedSearchPath::~ScopedSearchPath() {
    if (hadPrevious_) {
        qputenv("LUMARO_EXTENSIONS_PATH", previous_);
    } else {
        qunsetenv("LUMARO_EXTENSIONS_PATH");
    }
}

QStringList identifiersOf(const std::vector<NSExtensionPtr>& extensions) {
    QStringList ids;
    for (const NSExtensionPtr& extension : extensions) {
        ids << extension->identifier();
    }
    return ids;
}

QStringList QueryResult::identifiers() const {
    return identifiersOf(extensions);
}

QueryResult waitFor(const QueryStart& start) {
    auto promise = std::make_shared<std::promise<QueryResult>>();
    start([promise](std::vector<NSExtensionPtr> extensions, NSErrorPtr error) {
        promise->set_value(QueryResult{true, std::move(extensions), std::move(error)});
    });
    auto future = promise->get_future();
    if (future.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
        return {};
    }
    return future.get();
}

}  // namespace lumaro::test
