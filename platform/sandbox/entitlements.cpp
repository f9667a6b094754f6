#include "platform/sandbox/entitlements.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <cstdlib>
#include <mutex>
#include <optional>

#include "platform/foundation/NSBundle.h"
#include "platform/log/os_log.h"
#include "platform/sandbox/paths.h"

namespace platform::sandbox {
namespace {

constexpr qint64 kMaxEntitlementsBytes = 1 << 20;

std::mutex gMutex;
std::optional<QVariantMap> gEntitlements;  // guarded by gMutex
std::vector<std::string> gUserSelected;    // canonical; guarded by gMutex

std::optional<std::string> canonicalFromQString(const QString& path) {
    return canonicalPath(QFile::encodeName(path).toStdString());
}

}  // namespace

QVariantMap entitlementsFromFile(const QString& path) {
    QFile file(path);
    if (!file.exists()) {
        os_log_error(OS_LOG_DEFAULT, "sandbox: no entitlements: %s does not exist", path);
        return {};
    }
    if (!file.open(QIODevice::ReadOnly)) {
        os_log_error(OS_LOG_DEFAULT, "sandbox: no entitlements: cannot read %s: %s", path,
                     file.errorString());
        return {};
    }
    QJsonParseError parseError{};
    const QJsonDocument doc =
        QJsonDocument::fromJson(file.read(kMaxEntitlementsBytes), &parseError);
    if (!doc.isObject()) {
        os_log_error(OS_LOG_DEFAULT, "sandbox: no entitlements: %s is not a JSON object: %s", path,
                     parseError.error == QJsonParseError::NoError ? QStringLiteral("not an object")
                                                                  : parseError.errorString());
        return {};
    }
    return doc.object().toVariantMap();
}

QVariantMap entitlements() {
    std::lock_guard lock(gMutex);
    if (!gEntitlements) {
        gEntitlements = entitlementsFromFile(QDir(NSBundle::mainBundle()->bundlePath())
                                                 .filePath(QLatin1String(kEntitlementsFileName)));
    }
    return *gEntitlements;
}

void setEntitlementsForTesting(const QVariantMap& values) {
    std::lock_guard lock(gMutex);
    gEntitlements = values;
}

void resetEntitlementsForTesting() {
    std::lock_guard lock(gMutex);
    gEntitlements.reset();
}

bool hasBooleanEntitlement(const QVariantMap& values, const char* key) {
    const QVariant value = values.value(QLatin1String(key));
    return value.typeId() == QMetaType::Bool && value.toBool();
}

bool isSandboxed() {
    return hasBooleanEntitlement(entitlements(), kAppSandboxEntitlement);
}

bool grantUserSelectedPath(const std::string& path) {
    std::optional<std::string> canonical = canonicalPath(path);
    if (!canonical) {
        return false;
    }
    std::lock_guard lock(gMutex);
    gUserSelected.push_back(std::move(*canonical));
    return true;
}

void clearUserSelectedPathsForTesting() {
    std::lock_guard lock(gMutex);
    gUserSelected.clear();
}

std::vector<PathGrant> currentPathGrants() {
    const QVariantMap values = entitlements();
    if (!hasBooleanEntitlement(values, kAppSandboxEntitlement)) {
        return {};
    }
    std::vector<PathGrant> grants;
    if (auto bundle = canonicalFromQString(NSBundle::mainBundle()->bundlePath())) {
        grants.push_back({std::move(*bundle), false});
    }

    const char* homeEnv = std::getenv("HOME");
    const QString home = homeEnv != nullptr ? QFile::decodeName(homeEnv) : QString();
    const std::optional<std::string> canonicalHome =
        home.startsWith(QLatin1Char('/')) ? canonicalFromQString(home) : std::nullopt;
    if (canonicalHome) {
        const QVariantList folders =
            values.value(QLatin1String(kHomeRelativeReadWriteEntitlement)).toList();
        for (const QVariant& folder : folders) {
            if (folder.typeId() != QMetaType::QString || folder.toString().isEmpty()) {
                continue;
            }
            QString relative = folder.toString();
            if (!relative.startsWith(QLatin1Char('/'))) {
                relative.prepend(QLatin1Char('/'));
            }
            auto root = canonicalFromQString(home + relative);
            if (root && isWithin(*root, *canonicalHome)) {  // ".." must not leave the home
                grants.push_back({std::move(*root), true});
            }
        }
    }

    if (hasBooleanEntitlement(values, kUserSelectedReadWriteEntitlement)) {
        std::lock_guard lock(gMutex);
        for (const std::string& selected : gUserSelected) {
            grants.push_back({selected, true});
        }
    }
    return grants;
}

}  // namespace platform::sandbox
