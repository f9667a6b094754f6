#include "platform/appkit/NSMenu.h"

#include <algorithm>
#include <atomic>

#include "platform/appkit/NSMenuPresenter.h"
#include "platform/appkit/NSView.h"
#include "platform/log/os_log.h"

namespace {
std::atomic<bool> gMenuBarVisible{false};
}  // namespace

NSMenu::NSMenu(QString title) : title_(std::move(title)) {}

NSMenu::~NSMenu() = default;

std::shared_ptr<NSMenu> NSMenu::initWithTitle(const QString& title) {
    return std::make_shared<NSMenu>(title);
}

void NSMenu::adopt(const NSMenuItemPtr& item) {
    if (auto other = item->menu_.lock(); other && other.get() != this) {
        other->removeItem(item);
    }
    item->menu_ = weak_from_this();
}

void NSMenu::setItemArray(const std::vector<NSMenuItemPtr>& items) {
    const std::vector<NSMenuItemPtr> keep = items;  // `items` may be our own array
    removeAllItems();
    for (const auto& item : keep) {
        addItem(item);
    }
}

void NSMenu::addItem(const NSMenuItemPtr& item) {
    insertItem(item, numberOfItems());
}

void NSMenu::insertItem(const NSMenuItemPtr& item, long atIndex) {
    if (!item) {
        os_log_error(OS_LOG_DEFAULT, "NSMenu \"%s\": no item to insert; skipped", title_);
        return;
    }
    if (indexOfItem(item) >= 0) {
        os_log_error(OS_LOG_DEFAULT, "NSMenu \"%s\": item \"%s\" is already in the menu", title_,
                     item->title());
        return;
    }
    if (atIndex < 0 || atIndex > numberOfItems()) {
        os_log_error(OS_LOG_DEFAULT, "NSMenu \"%s\": index %ld out of range 0...%ld", title_,
                     atIndex, numberOfItems());
        return;
    }
    adopt(item);
    items_.insert(items_.begin() + atIndex, item);
}

void NSMenu::removeItem(const NSMenuItemPtr& item) {
    const long index = indexOfItem(item);
    if (index < 0) {
        return;
    }
    items_.erase(items_.begin() + index);
    item->menu_.reset();
}

void NSMenu::removeAllItems() {
    for (const auto& item : items_) {
        item->menu_.reset();
    }
    items_.clear();
}

NSMenuItemPtr NSMenu::itemAtIndex(long index) const {
    if (index < 0 || index >= numberOfItems()) {
        return nullptr;
    }
    return items_[static_cast<size_t>(index)];
}

long NSMenu::indexOfItem(const NSMenuItemPtr& item) const {
    const auto it = std::find(items_.begin(), items_.end(), item);
    return it == items_.end() || !item ? -1 : static_cast<long>(it - items_.begin());
}

NSMenuItemPtr NSMenu::itemWithTitle(const QString& title) const {
    for (const auto& item : items_) {
        if (item->title() == title) {
            return item;
        }
    }
    return nullptr;
}

bool NSMenu::isItemShownEnabled(const NSMenuItem& item) const {
    if (item.isSeparatorItem()) {
        return false;
    }
    if (autoenablesItems_) {
        return static_cast<bool>(item.action()) && item.hasLiveTarget();
    }
    return item.isEnabled();
}

void NSMenu::setMenuBarVisible(bool visible) {
    gMenuBarVisible.store(visible);
}

bool NSMenu::menuBarVisible() {
    return gMenuBarVisible.load();
}

bool NSMenu::popUpMenuPositioningItem(const NSMenuItemPtr& item, const NSPoint& location,
                                      const std::shared_ptr<NSView>& view) {
    NSMenuItemPtr positioning = item;
    if (positioning && indexOfItem(positioning) < 0) {
        os_log_error(OS_LOG_DEFAULT,
                     "NSMenu \"%s\": the positioning item is not in the menu; ignored", title_);
        positioning = nullptr;
    }
    const auto presenter = platform::appkit::NSMenuPresenter::current();
    return presenter->present(*this, positioning, location, view);
}

bool NSMenu::performActionForItemAtIndex(long index) {
    const NSMenuItemPtr item = itemAtIndex(index);
    if (!item || !isItemShownEnabled(*item)) {
        return false;
    }
    return item->sendAction();
}

QString NSMenu::description() const {
    return QStringLiteral("<NSMenu %1 \"%2\" %3 items>")
        .arg(QString::asprintf("%p", static_cast<const void*>(this)), title_)
        .arg(items_.size());
}
