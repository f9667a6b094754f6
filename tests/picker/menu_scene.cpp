// picker_menu_scene: runs the picker controller's activity menu (three services) or its
// not-installed menu through the process's menu presenter, grabs the screen to a PNG and prints
// one JSON object describing the menu shown. Run it on an X server (the screenshot test starts
// one with Xvfb).
#include <QApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QWindow>
#include <cstdio>

#include "picker/LMBroadcastActivityKeys.h"
#include "platform/appkit/NSMenuPresenter.h"
#include "platform/dispatch/dispatch.h"
#include "tests/picker/PickerFixture.h"
#include "tests/platform/appkit/XvfbServer.h"

namespace {

constexpr const char* kUsage =
    "usage: picker_menu_scene --menu activity|not-installed --screenshot FILE\n"
    "Shows the picker's activity menu (three services) or its not-installed menu at the request's\n"
    "source point (120.7, 600.2), saves a screenshot to FILE and prints a JSON report.\n";

}  // namespace

int main(int argc, char** argv) {
    QString screenshot;
    QString menu;
    for (int i = 1; i < argc; ++i) {
        const QString a = QString::fromLocal8Bit(argv[i]);
        const bool hasValue = i + 1 < argc;
        if (a == QLatin1String("--help") || a == QLatin1String("-h")) {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (a == QLatin1String("--screenshot") && hasValue) {
            screenshot = QString::fromLocal8Bit(argv[++i]);
        } else if (a == QLatin1String("--menu") && hasValue) {
            menu = QString::fromLocal8Bit(argv[++i]);
        } else {
            std::fprintf(stderr, "picker_menu_scene: unknown argument %s\n%s", argv[i], kUsage);
            return 2;
        }
    }
    if (screenshot.isEmpty() ||
        (menu != QLatin1String("activity") && menu != QLatin1String("not-installed"))) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    if (qEnvironmentVariableIsEmpty("DISPLAY")) {
        std::fputs("picker_menu_scene: no X display (set DISPLAY)\n", stderr);
        return 2;
    }
    QApplication app(argc, argv);

    lumaro::test::makeRequest({lumaro::test::requestItem(
        {{kLMBroadcastActivityExtensionLedraKeyLocalizedNoService,
          "No broadcast service installed"},
         {kLMBroadcastActivityExtensionLedraKeyLocalizedBroadcastTitle, "Broadcast %@ to"},
         {kLMBroadcastActivityExtensionLedraKeyLocalizedFindBroadcastApps,
          "Find broadcast apps in the store"},
         {kLMBroadcastActivityExtensionLedraKeySourceX, 120.7},
         {kLMBroadcastActivityExtensionLedraKeySourceY, 600.2}})});
    auto controller = std::make_shared<LMBroadcastActivityExtensionNSViewController>();
    controller->loadViewIfNeeded();
    if (menu == QLatin1String("activity")) {
        LMStreamingActivityArray activities;
        const std::pair<const char*, const char*> services[] = {
            {"com.example.stream.setup", "Example Stream"},
            {"com.sample.cast.setup", "Sample Cast"},
            {"com.demo.live.setup", "Demo Live"},
        };
        for (const auto& [id, name] : services) {
            auto activity = LMStreamingActivity::initWithApplicationExtension(
                lumaro::test::makeExtension(QString::fromLatin1(id), QString::fromLatin1(name)));
            activity->setDelegate(controller);
            activities.push_back(activity);
        }
        controller->setupActivityViewController("Notes", "com.test.notes", nullptr, activities);
    } else {
        controller->showNotInstalledAlertWithAppName("Notes", "Unused title", "Unused message");
    }

    const auto presenter = platform::appkit::NSMenuPresenter::current();
    QJsonObject report;
    report.insert(QStringLiteral("backend"), presenter->name());
    auto* qt = dynamic_cast<platform::appkit::QtMenuPresenter*>(presenter.get());
    const bool visible = qt != nullptr && platform::dispatch::runMainLoopUntil(
                                              [qt] {
                                                  QMenu* shown = qt->shownMenu();
                                                  return shown != nullptr && shown->isVisible() &&
                                                         shown->windowHandle() != nullptr &&
                                                         shown->windowHandle()->isExposed();
                                              },
                                              20000);
    report.insert(QStringLiteral("visible"), visible);
    if (visible) {
        QMenu* shown = qt->shownMenu();
        shown->repaint();  // painted and flushed to the server before the grab
        QCoreApplication::processEvents();
        const QRect g = shown->geometry();
        report.insert(QStringLiteral("geometry"), QJsonArray{g.x(), g.y(), g.width(), g.height()});
        QJsonArray titles, enabled;
        for (QAction* action : shown->actions()) {
            titles.append(action->text());
            enabled.append(action->isEnabled());
        }
        report.insert(QStringLiteral("titles"), titles);
        report.insert(QStringLiteral("enabled"), enabled);
        QString error;
        report.insert(QStringLiteral("screenshot"),
                      lumaro::test::grabScreenToPng(screenshot, &error) ? screenshot : error);
        shown->hide();
    }
    controller->setActivities({});
    std::fputs(QJsonDocument(report).toJson(QJsonDocument::Compact).append('\n').constData(),
               stdout);
    return visible ? 0 : 1;
}
