// How pop-up menus are presented: a real QMenu, or a record plus a scripted choice for headless
// runs. One presenter serves the process; see README.md in this folder for the environment
// variables that pick it.
#pragma once

#include <QJsonObject>
#include <QMenu>
#include <QPointer>
#include <QString>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/appkit/NSGeometry.h"
#include "platform/appkit/NSMenuItem.h"

class NSMenu;
class NSView;

namespace platform::appkit {

// What one pop-up showed, and what was chosen.
struct MenuRecordEntry {
    QString title;
    QString identifier;
    bool enabled = false;  // as shown (automatic enabling applied)
    bool separator = false;
    bool hasImage = false;
    NSSize imageSize;  // in points, when it has one
};

struct MenuRecord {
    QString backend;   // "qt" or "automation"
    QString platform;  // the Qt platform it ran on ("xcb", "wayland", "offscreen"); empty: none
    QString title;
    NSPoint location;
    bool inView = false;  // true when `location` was in a view rather than on the screen
    long positioningIndex = -1;
    bool menuBarVisible = false;
    std::vector<MenuRecordEntry> entries;
    QString choice;    // what was asked for ("none", "#2", an identifier)
    long chosen = -1;  // the entry chosen, -1 for none

    static MenuRecord of(const NSMenu& menu, const NSMenuItemPtr& positioningItem,
                         const NSPoint& location, bool inView);
    // One JSON object; `chosen` is null when nothing was chosen. See README.md.
    QJsonObject toJson() const;
    QByteArray toJsonLine() const;  // compact, newline-terminated
};

class NSMenuPresenter {
public:
    virtual ~NSMenuPresenter() = default;
    virtual QString name() const = 0;

    // Presents `menu`; answers whether an entry was chosen before returning. A chosen entry's
    // action is sent in a later turn of the main queue, with the item as sender.
    virtual bool present(const NSMenu& menu, const NSMenuItemPtr& positioningItem,
                         const NSPoint& location, const std::shared_ptr<NSView>& view) = 0;

    // The process's presenter: the one set with setCurrent, else the one the environment
    // names (made on first use).
    static std::shared_ptr<NSMenuPresenter> current();
    // Replaces the process's presenter; none goes back to the environment's choice.
    static void setCurrent(std::shared_ptr<NSMenuPresenter> presenter);
    static std::shared_ptr<NSMenuPresenter> fromEnvironment();
    // The backend ("qt" or "automation") for LUMARO_MENU_BACKEND's value `asked` in a process on
    // the Qt platform `platformName` (empty: no QGuiApplication) that has widgets or not. An
    // unknown `asked` is reported in `error` and the platform decides.
    static QString backendFor(const QString& asked, const QString& platformName, bool widgets,
                              QString* error = nullptr);

    // Called on the presenting thread with every record, by every presenter; for tests and
    // in-process drivers. None removes the hook.
    static void setRecordHook(std::function<void(const MenuRecord&)> hook);

protected:
    // Hands `record` to the hook and appends it to the file named by LUMARO_MENU_RECORD;
    // without that file, to standard error when `toStandardError`.
    static void publish(const MenuRecord& record, bool toStandardError);
    // Sends `item`'s action in a later turn of the main queue.
    static void sendLater(const NSMenuItemPtr& item);
};

// A QMenu at the point, shown without blocking: the call returns once the menu is on screen,
// and the user's choice arrives later. Needs a QApplication and its thread (otherwise: an error
// line, nothing shown).
//
// With a scripted choice (the same forms as the automation presenter's) the menu is still
// shown, and once its window is exposed the chosen entry is clicked as a user would: a press
// and a release of the left button on it.
class QtMenuPresenter : public NSMenuPresenter {
public:
    explicit QtMenuPresenter(QString choice = QString()) : choice_(std::move(choice)) {}
    QString name() const override { return QStringLiteral("qt"); }
    bool present(const NSMenu& menu, const NSMenuItemPtr& positioningItem, const NSPoint& location,
                 const std::shared_ptr<NSView>& view) override;

    // The menu on screen (the last one shown), while it is open.
    QMenu* shownMenu() const { return shown_.data(); }

    // A screen point (origin at the main screen's bottom left, y upward) in Qt's global
    // coordinates (origin at the main screen's top left, y downward), rounded to the pixel.
    static QPoint screenPointToQt(const NSPoint& point);

private:
    static void clickWhenExposed(QMenu* menu, QAction* action);

    QString choice_;
    QPointer<QMenu> shown_;
};

// Shows nothing: records the menu and chooses as told. The choice is "none" (or empty),
// "#<index>" (0-based, over all entries, the disabled ones included), or an identifier: the
// first entry whose `identifier` equals it, else the first whose title does. Choosing an entry
// that is not shown enabled, or that does not exist, chooses nothing (an error line).
class AutomationMenuPresenter : public NSMenuPresenter {
public:
    explicit AutomationMenuPresenter(QString choice = QString());
    QString name() const override { return QStringLiteral("automation"); }
    bool present(const NSMenu& menu, const NSMenuItemPtr& positioningItem, const NSPoint& location,
                 const std::shared_ptr<NSView>& view) override;

    QString choice() const;
    void setChoice(const QString& choice);
    std::vector<MenuRecord> records() const;

    // The entry `choice` names in `menu`, -1 for none (with an error line when it names one
    // that cannot be chosen).
    static long resolveChoice(const NSMenu& menu, const QString& choice);

private:
    mutable std::mutex mutex_;
    QString choice_;
    std::vector<MenuRecord> records_;
};

}  // namespace platform::appkit
