#include "platform/appkit/NSMenuItem.h"

#include "platform/appkit/NSImage.h"
#include "platform/log/os_log.h"

NSMenuItem::NSMenuItem(QString title, Action action, QString keyEquivalent)
    : title_(std::move(title)),
      action_(std::move(action)),
      keyEquivalent_(std::move(keyEquivalent)) {}

NSMenuItemPtr NSMenuItem::initWithTitle(const QString& title, Action action,
                                        const QString& keyEquivalent) {
    return std::make_shared<NSMenuItem>(title, std::move(action), keyEquivalent);
}

NSMenuItemPtr NSMenuItem::separatorItem() {
    auto item = std::make_shared<NSMenuItem>();
    item->separator_ = true;
    item->enabled_ = false;
    return item;
}

void NSMenuItem::setTarget(const std::shared_ptr<void>& target) {
    target_ = target;
    hasTarget_ = target != nullptr;
}

bool NSMenuItem::hasLiveTarget() const {
    return !hasTarget_ || !target_.expired();
}

bool NSMenuItem::sendAction() {
    if (!action_ || separator_ || !hasLiveTarget()) {
        return false;
    }
    const NSMenuItemPtr self = weak_from_this().lock();
    if (!self) {
        os_log_error(OS_LOG_DEFAULT,
                     "NSMenuItem \"%s\": only an item held by a shared pointer sends its action",
                     title_);
        return false;
    }
    const Action action = action_;  // the action may replace itself
    action(self);
    return true;
}

QString NSMenuItem::description() const {
    return QStringLiteral("<NSMenuItem %1 \"%2\"%3>")
        .arg(QString::asprintf("%p", static_cast<const void*>(this)), title_,
             enabled_ ? QString() : QStringLiteral(" disabled"));
}
