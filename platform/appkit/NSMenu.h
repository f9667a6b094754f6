// Menus: a title, an ordered list of items, automatic enabling, and pop-up at a point.
//
// How a pop-up is presented (a real QMenu, or recorded and answered by automation) is up to the
// process-wide presenter, see NSMenuPresenter.h.
#pragma once

#include <QString>
#include <memory>
#include <vector>

#include "platform/appkit/NSGeometry.h"
#include "platform/appkit/NSMenuItem.h"

class NSView;

class NSMenu : public std::enable_shared_from_this<NSMenu> {
public:
    explicit NSMenu(QString title = QString());
    ~NSMenu();
    NSMenu(const NSMenu&) = delete;
    NSMenu& operator=(const NSMenu&) = delete;

    static std::shared_ptr<NSMenu> initWithTitle(const QString& title);

    const QString& title() const { return title_; }
    void setTitle(const QString& title) { title_ = title; }

    const std::vector<NSMenuItemPtr>& itemArray() const { return items_; }
    // Replaces every item. An item that was in another menu moves here; empty pointers are
    // skipped with an error line.
    void setItemArray(const std::vector<NSMenuItemPtr>& items);
    void addItem(const NSMenuItemPtr& item);
    // `index` from 0 to numberOfItems(); out of range: an error line and nothing inserted.
    void insertItem(const NSMenuItemPtr& item, long atIndex);
    void removeItem(const NSMenuItemPtr& item);
    void removeAllItems();
    long numberOfItems() const { return static_cast<long>(items_.size()); }
    // None when out of range.
    NSMenuItemPtr itemAtIndex(long index) const;
    long indexOfItem(const NSMenuItemPtr& item) const;  // -1 when absent
    NSMenuItemPtr itemWithTitle(const QString& title) const;

    // True for a new menu. While on, an entry is shown enabled exactly when it has an action
    // (and a live target, if it names one), whatever its own enabled state; while off, its own
    // enabled state decides. Separators are never enabled.
    bool autoenablesItems() const { return autoenablesItems_; }
    void setAutoenablesItems(bool autoenables) { autoenablesItems_ = autoenables; }
    bool isItemShownEnabled(const NSMenuItem& item) const;

    // Whether the process asks for its menu bar to be shown. A service process has no menu bar
    // of its own on this desktop: the switch is kept and reported by the presenters.
    static void setMenuBarVisible(bool visible);
    static bool menuBarVisible();

    // Pops the menu up with its top-left corner (or `item`, when given, which must be in the
    // menu) at `location`. With no view, `location` is a screen point, origin at the bottom
    // left of the main screen, y growing upward; with a view, a point in the view (top-left
    // origin, as views are flipped). Answers whether an entry was chosen by the time it
    // returns; a chosen entry's action runs in a later turn of the main queue.
    bool popUpMenuPositioningItem(const NSMenuItemPtr& item, const NSPoint& location,
                                  const std::shared_ptr<NSView>& view);

    // Sends the action of the entry at `index` now, if it is shown enabled; answers whether it
    // was sent.
    bool performActionForItemAtIndex(long index);

    QString description() const;

private:
    void adopt(const NSMenuItemPtr& item);

    QString title_;
    std::vector<NSMenuItemPtr> items_;
    bool autoenablesItems_ = true;
};
