#include "platform/foundation/NSBundle.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <cstdlib>

#include "platform/log/os_log.h"

NSBundle::NSBundle(QString path) : path_(std::move(path)) {
    QFile file(QDir(path_).filePath(QStringLiteral("Info.json")));
    if (!file.exists()) {
        return;
    }
    if (!file.open(QIODevice::ReadOnly)) {
        os_log_error(OS_LOG_DEFAULT, "bundle %s: cannot read Info.json: %s", path_,
                     file.errorString());
        return;
    }
    QJsonParseError parseError{};
    const QJsonDocument doc = QJsonDocument::fromJson(file.read(1 << 20), &parseError);
    if (!doc.isObject()) {
        os_log_error(OS_LOG_DEFAULT, "bundle %s: Info.json is not a JSON object: %s", path_,
                     parseError.errorString());
        return;
    }
    info_ = doc.object().toVariantMap();
}

std::shared_ptr<NSBundle> NSBundle::mainBundle() {
    static const std::shared_ptr<NSBundle> bundle = [] {
        const char* env = std::getenv("LUMARO_MAIN_BUNDLE");
        if (env != nullptr && *env != '\0') {
            return std::make_shared<NSBundle>(QFileInfo(QFile::decodeName(env)).absoluteFilePath());
        }
        const QString exe = QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath();
        return std::make_shared<NSBundle>(QFileInfo(exe).absolutePath());
    }();
    return bundle;
}

std::shared_ptr<NSBundle> NSBundle::bundleWithPath(const QString& path) {
    if (!QFileInfo(path).isDir()) {
        return nullptr;
    }
    return std::make_shared<NSBundle>(QFileInfo(path).absoluteFilePath());
}

QString NSBundle::bundleIdentifier() const {
    return info_.value(QStringLiteral("CFBundleIdentifier")).toString();
}

QString NSBundle::pathForResource(const QString& name, const QString& ext) const {
    const QString file = ext.isEmpty() ? name : name + QLatin1Char('.') + ext;
    for (const QString& dir : {QDir(path_).filePath(QStringLiteral("Resources")), path_}) {
        const QString candidate = QDir(dir).filePath(file);
        if (QFileInfo::exists(candidate)) {
            return candidate;
        }
    }
    return {};
}
