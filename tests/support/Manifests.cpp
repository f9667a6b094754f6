#include "tests/support/Manifests.h"

#include <QDir>
#include <QJsonDocument>
#include <chrono>
#include <future>

#include "platform/dispatch/dispatch.h"

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

QVariant loadItem(const NSItemProviderPtr& provider, NSErrorPtr* error, const QString& type) {
    struct Loaded {
        std::atomic<bool> done{false};
        QVariant item;
        NSErrorPtr error;
    };
    auto loaded = std::make_shared<Loaded>();  // outlives a load that never ends
    provider->loadItemForTypeIdentifier(type, {}, [loaded](const QVariant& v, const NSErrorPtr& e) {
        loaded->item = v;
        loaded->error = e;
        loaded->done = true;
    });
    platform::dispatch::runMainLoopUntil([&] { return loaded->done.load(); }, 20000);
    if (error != nullptr) {
        *error = loaded->error;
    }
    return loaded->item;
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
