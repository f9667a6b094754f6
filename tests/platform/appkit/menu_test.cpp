#include <gtest/gtest.h>

#include <QFile>
#include <QGuiApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMenu>
#include <QScreen>
#include <thread>

#include "platform/appkit/NSImage.h"
#include "platform/appkit/NSMenu.h"
#include "platform/appkit/NSMenuPresenter.h"
#include "platform/dispatch/dispatch.h"
#include "platform/log/os_log.h"
#include "tests/support/TempDir.h"

using platform::appkit::AutomationMenuPresenter;
using platform::appkit::MenuRecord;
using platform::appkit::NSMenuPresenter;
using platform::appkit::QtMenuPresenter;

namespace {

// What the activity menu looks like: a disabled title line, then one entry per service, each
// with an action, a 16-point icon and an identifier; automatic enabling off.
struct ActivityMenu {
    std::shared_ptr<NSMenu> menu = NSMenu::initWithTitle(QStringLiteral("Screen Broadcast"));
    std::vector<std::string> performed;  // identifiers, in order
    std::vector<std::string> queues;     // the queue each action ran on

    ActivityMenu() {
        auto title = NSMenuItem::initWithTitle(QStringLiteral("Broadcast Notes to"), {}, QString());
        title->setEnabled(false);
        std::vector<NSMenuItemPtr> items{title};
        QImage square(64, 64, QImage::Format_ARGB32);
        square.fill(Qt::red);
        for (int i = 1; i <= 3; ++i) {
            auto item = NSMenuItem::initWithTitle(
                QStringLiteral("Service %1").arg(i),
                [this](const NSMenuItemPtr& sender) {
                    performed.push_back(sender->identifier().toStdString());
                    queues.emplace_back(dispatch_queue_get_label(DISPATCH_CURRENT_QUEUE_LABEL));
                },
                QString());
            item->setIdentifier(QStringLiteral("com.example.service%1.setup").arg(i));
            item->setImage(std::make_shared<NSImage>(square));
            item->image()->setSize(NSMakeSize(16, 16));
            items.push_back(item);
        }
        menu->setItemArray(items);
        menu->setAutoenablesItems(false);
    }
};

class MenuTest : public ::testing::Test {
protected:
    void SetUp() override {
        automation = std::make_shared<AutomationMenuPresenter>();
        NSMenuPresenter::setCurrent(automation);
        NSMenuPresenter::setRecordHook([this](const MenuRecord& r) { hooked.push_back(r); });
        qputenv("LUMARO_MENU_RECORD", recordFile().toLocal8Bit());
    }
    void TearDown() override {
        NSMenuPresenter::setRecordHook({});
        NSMenuPresenter::setCurrent(nullptr);
        qunsetenv("LUMARO_MENU_RECORD");
        NSMenu::setMenuBarVisible(false);
    }
    QString recordFile() const { return dir.file(QStringLiteral("menus.jsonl")); }
    static bool runUntil(const std::function<bool()>& done) {
        return platform::dispatch::runMainLoopUntil(done, 10000);
    }

    lumaro::test::TempDir dir;
    std::shared_ptr<AutomationMenuPresenter> automation;
    std::vector<MenuRecord> hooked;
};

// The record's texts, order and anchor, and choosing by identifier or index, are read by the
// end-to-end road and the picker's tests; here what only this layer knows: images, the menu bar,
// the file's line being the hook's, a choice by title, and the action on a later turn of the main
// queue.
TEST_F(MenuTest, AutomationRecordsTheMenuAndChoosesByTitleOnTheMainQueue) {
    ActivityMenu activity;
    NSMenu::setMenuBarVisible(true);
    automation->setChoice(QStringLiteral("Service 2"));  // no such identifier: the title
    EXPECT_TRUE(activity.menu->popUpMenuPositioningItem(nullptr, NSMakePoint(1, 2), nullptr));
    EXPECT_TRUE(activity.performed.empty());  // not before a later turn of the main queue
    ASSERT_EQ(hooked.size(), 1u);
    const MenuRecord& r = hooked.front();
    EXPECT_EQ(r.backend, QStringLiteral("automation"));
    EXPECT_TRUE(r.menuBarVisible);
    EXPECT_EQ(r.chosen, 2);
    ASSERT_EQ(r.entries.size(), 4u);
    EXPECT_FALSE(r.entries[0].hasImage);
    EXPECT_TRUE(r.entries[3].hasImage);
    EXPECT_EQ(r.entries[3].imageSize, NSMakeSize(16, 16));
    QFile file(recordFile());
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray line = file.readLine();
    EXPECT_EQ(line, r.toJsonLine());
    EXPECT_EQ(QJsonDocument::fromJson(line).object().value("platform").toString(),
              QGuiApplication::platformName());

    ASSERT_TRUE(runUntil([&] { return activity.performed.size() == 1; }));
    EXPECT_EQ(activity.performed.back(), "com.example.service2.setup");
    EXPECT_EQ(activity.queues.back(), dispatch_queue_get_label(dispatch_get_main_queue()));
}

TEST_F(MenuTest, AutomationChoosesNothingItCannot) {
    ActivityMenu activity;
    platform::log::LogCapture capture;
    for (const char* choice :
         {"none", "", "#0", "#4", "#-1", "#x", "Broadcast Notes to", "com.example.missing"}) {
        automation->setChoice(QString::fromLatin1(choice));
        EXPECT_FALSE(activity.menu->popUpMenuPositioningItem(nullptr, NSZeroPoint, nullptr))
            << choice;
        EXPECT_EQ(hooked.back().chosen, -1) << choice;
    }
    EXPECT_EQ(capture.records().size(), 6u);  // two quiet dismissals, six refusals
    // Nothing arrives late either: a block queued now runs after anything queued before it.
    bool drained = false;
    dispatch_async(dispatch_get_main_queue(), [&] { drained = true; });
    ASSERT_TRUE(runUntil([&] { return drained; }));
    EXPECT_TRUE(activity.performed.empty());
}

// What every presenter shows as enabled: with automatic enabling, an entry whose action can be
// sent (a target, when it has one, is held weakly); without it, the entry's own state.
TEST_F(MenuTest, AutomaticEnablingDecidesWhatIsShownEnabled) {
    auto menu = NSMenu::initWithTitle(QStringLiteral("M"));
    EXPECT_TRUE(menu->autoenablesItems());
    int sent = 0;
    auto withAction = NSMenuItem::initWithTitle(
        QStringLiteral("a"), [&](const NSMenuItemPtr&) { ++sent; }, QString());
    withAction->setEnabled(false);
    auto withoutAction = NSMenuItem::initWithTitle(QStringLiteral("b"), {}, QString());
    auto targeted = NSMenuItem::initWithTitle(
        QStringLiteral("c"), [&](const NSMenuItemPtr&) { ++sent; }, QString());
    auto target = std::make_shared<int>(1);
    targeted->setTarget(target);
    menu->setItemArray({withAction, withoutAction, targeted, NSMenuItem::separatorItem()});

    EXPECT_TRUE(menu->isItemShownEnabled(*withAction));
    EXPECT_FALSE(menu->isItemShownEnabled(*withoutAction));
    EXPECT_TRUE(menu->isItemShownEnabled(*targeted));
    EXPECT_FALSE(menu->isItemShownEnabled(*menu->itemAtIndex(3)));
    target.reset();
    EXPECT_FALSE(menu->isItemShownEnabled(*targeted));
    EXPECT_TRUE(menu->performActionForItemAtIndex(0));
    EXPECT_EQ(sent, 1);

    menu->setAutoenablesItems(false);
    EXPECT_FALSE(menu->isItemShownEnabled(*withAction));
    EXPECT_TRUE(menu->isItemShownEnabled(*withoutAction));
    EXPECT_FALSE(menu->performActionForItemAtIndex(0));
    EXPECT_FALSE(menu->performActionForItemAtIndex(99));
    EXPECT_EQ(sent, 1);
}

TEST_F(MenuTest, TheRealMenuServesEveryRealDisplayAndAutomationTheRest) {
    struct Case {
        const char* asked;
        const char* platform;
        bool widgets;
        const char* backend;
        bool complaint;
    };
    for (const Case& c : std::initializer_list<Case>{
             // (xcb, wayland and offscreen with widgets: the X11, Wayland and plain roads.)
             {"", "wayland-egl", true, "qt", false},
             {"", "xcb", false, "automation", false},  // a GUI without widgets has no QMenu
             {"automation", "wayland", true, "automation", false},
             {" qt ", "offscreen", true, "qt", false},
             {"gtk", "wayland", true, "qt", true},
         }) {
        QString error;
        EXPECT_EQ(NSMenuPresenter::backendFor(QString::fromLatin1(c.asked),
                                              QString::fromLatin1(c.platform), c.widgets, &error),
                  QLatin1String(c.backend))
            << c.asked << " on " << c.platform;
        EXPECT_EQ(!error.isEmpty(), c.complaint) << error.toStdString();
    }
}

TEST_F(MenuTest, QtBackendShowsARealMenuAtTheConvertedPoint) {
    auto qt = std::make_shared<QtMenuPresenter>();
    NSMenuPresenter::setCurrent(qt);
    ActivityMenu activity;
    const QRect screen = QGuiApplication::primaryScreen()->geometry();

    // Bottom-left origin, y upward, to Qt's top-left origin, y downward.
    EXPECT_EQ(QtMenuPresenter::screenPointToQt(NSMakePoint(100.4, 50.6)),
              QPoint(screen.left() + 100, screen.top() + screen.height() - 51));

    EXPECT_FALSE(activity.menu->popUpMenuPositioningItem(nullptr, NSMakePoint(100, 300), nullptr));
    QMenu* shown = qt->shownMenu();
    ASSERT_NE(shown, nullptr);
    ASSERT_TRUE(runUntil([&] { return shown->isVisible(); }));
    EXPECT_EQ(shown->pos(), QtMenuPresenter::screenPointToQt(NSMakePoint(100, 300)));
    const auto actions = shown->actions();
    ASSERT_EQ(actions.size(), 4);
    EXPECT_EQ(actions[0]->text(), QStringLiteral("Broadcast Notes to"));
    EXPECT_FALSE(actions[0]->isEnabled());
    EXPECT_TRUE(actions[2]->isEnabled());
    EXPECT_FALSE(actions[2]->icon().isNull());
    shown->hide();
    ASSERT_TRUE(runUntil([&] { return qt->shownMenu() == nullptr; }));  // deleted once closed
    EXPECT_TRUE(activity.performed.empty());  // (a scripted click: the Wayland and X11 roads)

    // Off the main thread nothing is shown, and nothing breaks.
    platform::log::LogCapture capture;
    std::thread([&] {
        activity.menu->popUpMenuPositioningItem(nullptr, NSZeroPoint, nullptr);
    }).join();
    EXPECT_EQ(qt->shownMenu(), nullptr);
    EXPECT_EQ(capture.records().size(), 1u);
}

}  // namespace
