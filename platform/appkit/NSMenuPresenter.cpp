#include "platform/appkit/NSMenuPresenter.h"

#include <QApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMouseEvent>
#include <QScreen>
#include <QThread>
#include <QWindow>
#include <cstdio>

#include "platform/appkit/NSDisplaySession.h"
#include "platform/appkit/NSImage.h"
#include "platform/appkit/NSMenu.h"
#include "platform/appkit/NSView.h"
#include "platform/dispatch/dispatch.h"
#include "platform/log/os_log.h"

namespace platform::appkit {

namespace {

struct Current {
    std::mutex mutex;
    std::shared_ptr<NSMenuPresenter> presenter;
    std::function<void(const MenuRecord&)> hook;
};

Current& state() {
    static Current c;
    return c;
}

QString environment(const char* name) {
    return QString::fromLocal8Bit(qgetenv(name));
}

QJsonObject pointJson(const NSPoint& p) {
    return {{QStringLiteral("x"), p.x}, {QStringLiteral("y"), p.y}};
}

}  // namespace

MenuRecord MenuRecord::of(const NSMenu& menu, const NSMenuItemPtr& positioningItem,
                          const NSPoint& location, bool inView) {
    MenuRecord r;
    r.title = menu.title();
    r.location = location;
    r.inView = inView;
    r.positioningIndex = positioningItem ? menu.indexOfItem(positioningItem) : -1;
    r.menuBarVisible = NSMenu::menuBarVisible();
    for (const auto& item : menu.itemArray()) {
        MenuRecordEntry e;
        e.title = item->title();
        e.identifier = item->identifier();
        e.enabled = menu.isItemShownEnabled(*item);
        e.separator = item->isSeparatorItem();
        if (const auto image = item->image(); image && image->isValid()) {
            e.hasImage = true;
            e.imageSize = image->size();
        }
        r.entries.push_back(e);
    }
    return r;
}

QJsonObject MenuRecord::toJson() const {
    QJsonArray items;
    for (size_t i = 0; i < entries.size(); ++i) {
        const MenuRecordEntry& e = entries[i];
        QJsonObject o{{QStringLiteral("index"), static_cast<qint64>(i)},
                      {QStringLiteral("title"), e.title},
                      {QStringLiteral("identifier"), e.identifier},
                      {QStringLiteral("enabled"), e.enabled},
                      {QStringLiteral("image"), e.hasImage}};
        if (e.hasImage) {
            o.insert(QStringLiteral("imageSize"),
                     QJsonObject{{QStringLiteral("width"), e.imageSize.width},
                                 {QStringLiteral("height"), e.imageSize.height}});
        }
        if (e.separator) {
            o.insert(QStringLiteral("separator"), true);
        }
        items.append(o);
    }
    return {{QStringLiteral("backend"), backend},
            {QStringLiteral("platform"),
             platform.isEmpty() ? QJsonValue(QJsonValue::Null) : QJsonValue(platform)},
            {QStringLiteral("menu"), title},
            {QStringLiteral("location"), pointJson(location)},
            {QStringLiteral("inView"), inView},
            {QStringLiteral("positioningItem"),
             positioningIndex >= 0 ? QJsonValue(static_cast<qint64>(positioningIndex))
                                   : QJsonValue(QJsonValue::Null)},
            {QStringLiteral("menuBarVisible"), menuBarVisible},
            {QStringLiteral("items"), items},
            {QStringLiteral("choice"), choice},
            {QStringLiteral("chosen"),
             chosen >= 0 ? QJsonValue(static_cast<qint64>(chosen)) : QJsonValue(QJsonValue::Null)}};
}

QByteArray MenuRecord::toJsonLine() const {
    return QJsonDocument(toJson()).toJson(QJsonDocument::Compact) + '\n';
}

std::shared_ptr<NSMenuPresenter> NSMenuPresenter::current() {
    Current& c = state();
    std::lock_guard lock(c.mutex);
    if (!c.presenter) {
        c.presenter = fromEnvironment();
    }
    return c.presenter;
}

void NSMenuPresenter::setCurrent(std::shared_ptr<NSMenuPresenter> presenter) {
    Current& c = state();
    std::lock_guard lock(c.mutex);
    c.presenter = std::move(presenter);
}

QString NSMenuPresenter::backendFor(const QString& asked, const QString& platformName, bool widgets,
                                    QString* error) {
    const QString backend = asked.trimmed();
    if (backend == QLatin1String("qt") || backend == QLatin1String("automation")) {
        return backend;
    }
    if (!backend.isEmpty() && error != nullptr) {
        *error = QStringLiteral(
                     "LUMARO_MENU_BACKEND=%1 is neither \"qt\" nor \"automation\"; choosing by "
                     "the display platform (%2)")
                     .arg(backend, platformName.isEmpty() ? QStringLiteral("none") : platformName);
    }
    // A real display shows the real menu; only a run without one (offscreen, minimal, no GUI at
    // all) has nobody to show it to.
    return widgets && isRealDisplayPlatform(platformName) ? QStringLiteral("qt")
                                                          : QStringLiteral("automation");
}

std::shared_ptr<NSMenuPresenter> NSMenuPresenter::fromEnvironment() {
    const QString choice = environment("LUMARO_MENU_CHOOSE");
    QString error;
    const QString backend =
        backendFor(environment("LUMARO_MENU_BACKEND"), currentPlatformName(),
                   qobject_cast<QApplication*>(QCoreApplication::instance()) != nullptr, &error);
    if (!error.isEmpty()) {
        os_log_error(OS_LOG_DEFAULT, "%s", error);
    }
    if (backend == QLatin1String("qt")) {
        return std::make_shared<QtMenuPresenter>(choice);
    }
    return std::make_shared<AutomationMenuPresenter>(choice);
}

void NSMenuPresenter::setRecordHook(std::function<void(const MenuRecord&)> hook) {
    Current& c = state();
    std::lock_guard lock(c.mutex);
    c.hook = std::move(hook);
}

void NSMenuPresenter::publish(const MenuRecord& record, bool toStandardError) {
    std::function<void(const MenuRecord&)> hook;
    {
        Current& c = state();
        std::lock_guard lock(c.mutex);
        hook = c.hook;
    }
    if (hook) {
        hook(record);
    }
    const QByteArray line = record.toJsonLine();
    const QString path = environment("LUMARO_MENU_RECORD");
    if (!path.isEmpty()) {
        QFile file(path);
        if (file.open(QIODevice::WriteOnly | QIODevice::Append) &&
            file.write(line) == line.size()) {
            return;
        }
        os_log_error(OS_LOG_DEFAULT, "menu record: cannot write to %s: %s", path,
                     file.errorString());
        return;
    }
    if (toStandardError) {
        std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stderr);
        std::fflush(stderr);
    }
}

void NSMenuPresenter::sendLater(const NSMenuItemPtr& item) {
    dispatch_async(dispatch_get_main_queue(), [item] { item->sendAction(); });
}

// Qt ----------------------------------------------------------------------------------------

namespace {

// Clicks `action` in `menu` as a user would, once the menu's window is exposed: before that a
// click could land on a window the compositor has not shown yet.
class ClickWhenExposed : public QObject {
public:
    ClickWhenExposed(QMenu* menu, QAction* action) : QObject(menu), menu_(menu), action_(action) {}

    void watch() {
        QWindow* window = menu_->windowHandle();
        if (window == nullptr) {
            os_log_error(OS_LOG_DEFAULT, "NSMenu \"%s\": the menu has no window; nothing chosen",
                         menu_->title());
            return;
        }
        if (window->isExposed()) {
            clickLater();
        } else {
            window->installEventFilter(this);
        }
    }

    bool eventFilter(QObject* watched, QEvent* event) override {
        if (event->type() == QEvent::Expose && static_cast<QWindow*>(watched)->isExposed()) {
            watched->removeEventFilter(this);
            clickLater();
        }
        return false;
    }

private:
    void clickLater() {
        QMetaObject::invokeMethod(
            this, [this] { click(); }, Qt::QueuedConnection);
    }

    void click() {
        if (!menu_ || !action_ || !menu_->isVisible()) {
            return;  // closed in the meantime: the user (or the program) decided otherwise
        }
        const QPoint at = menu_->actionGeometry(action_).center();
        const QPoint global = menu_->mapToGlobal(at);
        menu_->setActiveAction(action_);
        QMouseEvent press(QEvent::MouseButtonPress, at, global, Qt::LeftButton, Qt::LeftButton,
                          Qt::NoModifier);
        QCoreApplication::sendEvent(menu_, &press);
        if (menu_ && action_) {
            QMouseEvent release(QEvent::MouseButtonRelease, at, global, Qt::LeftButton,
                                Qt::NoButton, Qt::NoModifier);
            QCoreApplication::sendEvent(menu_, &release);
        }
    }

    QPointer<QMenu> menu_;
    QPointer<QAction> action_;
};

}  // namespace

void QtMenuPresenter::clickWhenExposed(QMenu* menu, QAction* action) {
    (new ClickWhenExposed(menu, action))->watch();
}

QPoint QtMenuPresenter::screenPointToQt(const NSPoint& point) {
    const QScreen* screen = QGuiApplication::primaryScreen();
    if (screen == nullptr) {
        return {NSPixel(point.x), NSPixel(point.y)};
    }
    const QRect g = screen->geometry();
    return {g.left() + NSPixel(point.x), g.top() + g.height() - NSPixel(point.y)};
}

bool QtMenuPresenter::present(const NSMenu& menu, const NSMenuItemPtr& positioningItem,
                              const NSPoint& location, const std::shared_ptr<NSView>& view) {
    MenuRecord record = MenuRecord::of(menu, positioningItem, location, view != nullptr);
    record.backend = name();
    record.platform = currentPlatformName();
    const bool scripted = !choice_.trimmed().isEmpty();
    record.choice = scripted ? choice_ : QStringLiteral("user");
    auto* app = qobject_cast<QApplication*>(QCoreApplication::instance());
    if (app == nullptr) {
        os_log_error(OS_LOG_DEFAULT,
                     "NSMenu \"%s\": the Qt presentation needs a QApplication; menu not shown",
                     menu.title());
        return false;
    }
    if (QThread::currentThread() != app->thread()) {
        os_log_error(OS_LOG_DEFAULT,
                     "NSMenu \"%s\": menus pop up on the main thread only; menu not shown",
                     menu.title());
        return false;
    }
    auto* qmenu = new QMenu();
    qmenu->setTitle(menu.title());
    QObject::connect(qmenu, &QMenu::aboutToHide, qmenu, &QObject::deleteLater);
    const double scale = qmenu->devicePixelRatioF();
    QAction* atAction = nullptr;
    for (const auto& item : menu.itemArray()) {
        if (item->isSeparatorItem()) {
            qmenu->addSeparator();
            continue;
        }
        QAction* action = qmenu->addAction(item->title());
        action->setEnabled(menu.isItemShownEnabled(*item));
        if (const auto image = item->image(); image && image->isValid()) {
            // Drawn at its size in points; the style's icon slot is only a lower bound.
            const QImage bitmap = image->imageRepresentation(scale);
            if (!bitmap.isNull()) {
                QPixmap pixmap = QPixmap::fromImage(bitmap);
                pixmap.setDevicePixelRatio(scale);
                action->setIcon(QIcon(pixmap));
            }
        }
        if (item == positioningItem) {
            atAction = action;
        }
        QObject::connect(action, &QAction::triggered, qmenu, [item] { sendLater(item); });
    }
    QPoint at;
    if (!view) {
        at = screenPointToQt(location);
    } else if (QWidget* widget = view->widget()) {
        at = widget->mapToGlobal(QPoint(NSPixel(location.x), NSPixel(location.y)));
    } else {
        os_log_error(OS_LOG_DEFAULT,
                     "NSMenu \"%s\": the view has no widget; taking the point on the screen",
                     menu.title());
        at = screenPointToQt(location);
    }
    if (scripted) {
        record.chosen = AutomationMenuPresenter::resolveChoice(menu, choice_);
    }
    qmenu->popup(at, atAction);
    shown_ = qmenu;
    if (record.chosen >= 0) {
        clickWhenExposed(qmenu, qmenu->actions().at(static_cast<qsizetype>(record.chosen)));
    }
    publish(record, false);
    return false;
}

// Automation --------------------------------------------------------------------------------

AutomationMenuPresenter::AutomationMenuPresenter(QString choice) : choice_(std::move(choice)) {}

QString AutomationMenuPresenter::choice() const {
    std::lock_guard lock(mutex_);
    return choice_;
}

void AutomationMenuPresenter::setChoice(const QString& choice) {
    std::lock_guard lock(mutex_);
    choice_ = choice;
}

std::vector<MenuRecord> AutomationMenuPresenter::records() const {
    std::lock_guard lock(mutex_);
    return records_;
}

long AutomationMenuPresenter::resolveChoice(const NSMenu& menu, const QString& choice) {
    const QString wanted = choice.trimmed();
    if (wanted.isEmpty() || wanted == QLatin1String("none")) {
        return -1;
    }
    long index = -1;
    if (wanted.startsWith(QLatin1Char('#'))) {
        bool ok = false;
        index = wanted.mid(1).toLong(&ok);
        if (!ok || index < 0 || index >= menu.numberOfItems()) {
            os_log_error(OS_LOG_DEFAULT,
                         "menu \"%s\": no entry %s among %ld entries; nothing chosen", menu.title(),
                         wanted, menu.numberOfItems());
            return -1;
        }
    } else {
        const auto& items = menu.itemArray();
        for (size_t i = 0; i < items.size() && index < 0; ++i) {
            if (!items[i]->identifier().isEmpty() && items[i]->identifier() == wanted) {
                index = static_cast<long>(i);
            }
        }
        for (size_t i = 0; i < items.size() && index < 0; ++i) {
            if (items[i]->title() == wanted) {
                index = static_cast<long>(i);
            }
        }
        if (index < 0) {
            os_log_error(OS_LOG_DEFAULT, "menu \"%s\": no entry is named %s; nothing chosen",
                         menu.title(), wanted);
            return -1;
        }
    }
    if (!menu.isItemShownEnabled(*menu.itemAtIndex(index))) {
        os_log_error(OS_LOG_DEFAULT, "menu \"%s\": entry %ld is disabled; nothing chosen",
                     menu.title(), index);
        return -1;
    }
    return index;
}

bool AutomationMenuPresenter::present(const NSMenu& menu, const NSMenuItemPtr& positioningItem,
                                      const NSPoint& location,
                                      const std::shared_ptr<NSView>& view) {
    MenuRecord record = MenuRecord::of(menu, positioningItem, location, view != nullptr);
    record.backend = name();
    record.platform = currentPlatformName();
    record.choice = choice();
    if (record.choice.trimmed().isEmpty()) {
        record.choice = QStringLiteral("none");
    }
    record.chosen = resolveChoice(menu, record.choice);
    {
        std::lock_guard lock(mutex_);
        records_.push_back(record);
    }
    publish(record, true);
    if (record.chosen < 0) {
        return false;
    }
    sendLater(menu.itemAtIndex(record.chosen));
    return true;
}

}  // namespace platform::appkit
