// A menu entry: a title, an enabled state, an image and an action.
//
// The action is a callable that receives the item itself as sender; a subclass that is its own
// target sets an action that casts the sender back to its class and calls its own method:
//
//     class MyEntry : public NSMenuItem {
//     public:
//         MyEntry() : NSMenuItem(title, [](const NSMenuItemPtr& sender) {
//             std::static_pointer_cast<MyEntry>(sender)->performAction(sender);
//         }, QString()) {}
//         void performAction(const std::shared_ptr<NSMenuItem>& sender);
//     };
//
// An item holds its state itself (no widget or QAction), so it can be made without a GUI; the
// Qt presentation makes a QAction for it while a menu is shown. Items live in shared pointers.
#pragma once

#include <QString>
#include <QVariant>
#include <functional>
#include <memory>

class NSImage;
class NSMenu;
class NSMenuItem;
using NSMenuItemPtr = std::shared_ptr<NSMenuItem>;

class NSMenuItem : public std::enable_shared_from_this<NSMenuItem> {
public:
    using Action = std::function<void(const NSMenuItemPtr& sender)>;

    NSMenuItem() = default;
    NSMenuItem(QString title, Action action, QString keyEquivalent);
    virtual ~NSMenuItem() = default;
    NSMenuItem(const NSMenuItem&) = delete;
    NSMenuItem& operator=(const NSMenuItem&) = delete;

    static NSMenuItemPtr initWithTitle(const QString& title, Action action,
                                       const QString& keyEquivalent);
    // A separator line: never enabled, never chosen.
    static NSMenuItemPtr separatorItem();

    // A null title is allowed and shows as an empty entry.
    const QString& title() const { return title_; }
    void setTitle(const QString& title) { title_ = title; }

    const Action& action() const { return action_; }
    void setAction(Action action) { action_ = std::move(action); }
    // The receiver the action is meant for, held weakly. When a target was set and is gone, the
    // action is not sent (and an automatically enabled menu shows the entry disabled).
    void setTarget(const std::shared_ptr<void>& target);
    bool hasLiveTarget() const;

    const QString& keyEquivalent() const { return keyEquivalent_; }
    void setKeyEquivalent(const QString& key) { keyEquivalent_ = key; }

    // The item's own state; a menu that enables its items automatically ignores it (see NSMenu).
    bool isEnabled() const { return enabled_; }
    void setEnabled(bool enabled) { enabled_ = enabled; }

    std::shared_ptr<NSImage> image() const { return image_; }
    void setImage(std::shared_ptr<NSImage> image) { image_ = std::move(image); }

    // A name by which automation chooses the entry (see NSMenuPresenter.h).
    const QString& identifier() const { return identifier_; }
    void setIdentifier(const QString& identifier) { identifier_ = identifier; }

    const QVariant& representedObject() const { return representedObject_; }
    void setRepresentedObject(const QVariant& object) { representedObject_ = object; }

    long tag() const { return tag_; }
    void setTag(long tag) { tag_ = tag; }

    bool isSeparatorItem() const { return separator_; }
    // The menu holding the item; an item is in one menu at most.
    std::shared_ptr<NSMenu> menu() const { return menu_.lock(); }

    // Sends the action now, on the calling thread, with this item as sender; answers whether
    // there was an action to send (and a live target, when one was set). Does not look at
    // the enabled state: menus check that before they choose.
    bool sendAction();

    QString description() const;

private:
    friend class NSMenu;
    QString title_;
    Action action_;
    QString keyEquivalent_;
    std::weak_ptr<void> target_;
    bool hasTarget_ = false;
    bool enabled_ = true;
    bool separator_ = false;
    std::shared_ptr<NSImage> image_;
    QString identifier_;
    QVariant representedObject_;
    long tag_ = 0;
    std::weak_ptr<NSMenu> menu_;
};
