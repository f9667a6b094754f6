#include "platform/appkit/NSStoryboard.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <mutex>

#include "platform/appkit/NSViewController.h"
#include "platform/foundation/NSBundle.h"
#include "platform/log/os_log.h"

namespace {

constexpr qint64 kMaxStoryboardBytes = 1 << 20;

struct Registry {
    std::mutex mutex;
    QMap<QString, NSViewControllerFactory> factories;
};

Registry& registry() {
    static Registry r;
    return r;
}

}  // namespace

NSStoryboard::NSStoryboard(QString name, QString path, QString initialControllerClass)
    : name_(std::move(name)),
      path_(std::move(path)),
      initialControllerClass_(std::move(initialControllerClass)) {}

std::shared_ptr<NSStoryboard> NSStoryboard::storyboardWithName(
    const QString& name, const std::shared_ptr<NSBundle>& bundle) {
    if (name.isEmpty() || name.contains(QLatin1Char('/'))) {
        return nullptr;
    }
    const std::shared_ptr<NSBundle> where = bundle ? bundle : NSBundle::mainBundle();
    if (!where) {
        return nullptr;
    }
    const QString path =
        where->pathForResource(name + QStringLiteral(".storyboard"), QStringLiteral("json"));
    if (path.isEmpty()) {
        return nullptr;
    }
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        os_log_error(OS_LOG_DEFAULT, "storyboard %s: cannot read %s: %s", name, path,
                     file.errorString());
        return std::make_shared<NSStoryboard>(name, path, QString());
    }
    QJsonParseError parseError{};
    const QJsonDocument doc = QJsonDocument::fromJson(file.read(kMaxStoryboardBytes), &parseError);
    if (!doc.isObject()) {
        os_log_error(OS_LOG_DEFAULT, "storyboard %s: %s is not a JSON object: %s", name, path,
                     parseError.errorString());
        return std::make_shared<NSStoryboard>(name, path, QString());
    }
    const QJsonValue initial = doc.object().value(QStringLiteral("initialController"));
    if (!initial.isUndefined() && !initial.isString()) {
        os_log_error(OS_LOG_DEFAULT, "storyboard %s: \"initialController\" is not a string", name);
    }
    return std::make_shared<NSStoryboard>(name, path, initial.toString());
}

std::shared_ptr<NSViewController> NSStoryboard::instantiateInitialController() const {
    if (initialControllerClass_.isEmpty()) {
        os_log_error(OS_LOG_DEFAULT, "storyboard %s names no initial controller", name_);
        return nullptr;
    }
    if (!isViewControllerClassRegistered(initialControllerClass_)) {
        os_log_error(OS_LOG_DEFAULT, "storyboard %s: unknown view controller class %s", name_,
                     initialControllerClass_);
        return nullptr;
    }
    auto controller = makeViewController(initialControllerClass_);
    if (!controller) {
        os_log_error(OS_LOG_DEFAULT, "storyboard %s: class %s made no view controller", name_,
                     initialControllerClass_);
    }
    return controller;
}

void NSStoryboard::registerViewControllerClass(const QString& className,
                                               NSViewControllerFactory factory) {
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    if (factory) {
        r.factories.insert(className, std::move(factory));
    } else {
        r.factories.remove(className);
    }
}

bool NSStoryboard::isViewControllerClassRegistered(const QString& className) {
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    return r.factories.contains(className);
}

std::shared_ptr<NSViewController> NSStoryboard::makeViewController(const QString& className) {
    NSViewControllerFactory factory;
    {
        Registry& r = registry();
        std::lock_guard lock(r.mutex);
        factory = r.factories.value(className);
    }
    return factory ? factory() : nullptr;
}
