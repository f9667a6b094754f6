// appkit_menu_scene: shows the activity menu (a disabled title line and three services with
// icons) through the process's menu presenter, grabs the screen to a PNG, then chooses the
// second service and waits for its action. Prints one JSON object describing what it saw.
// Run it on an X server (the screenshot test starts one with Xvfb).
#include <QApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QWindow>
#include <cstdio>

#include "platform/appkit/NSImage.h"
#include "platform/appkit/NSMenu.h"
#include "platform/appkit/NSMenuPresenter.h"
#include "platform/dispatch/dispatch.h"
#include "tests/platform/appkit/XvfbServer.h"

namespace {

constexpr const char* kUsage =
    "usage: appkit_menu_scene --screenshot FILE [--x X] [--y Y]\n"
    "Pops the activity menu up at the screen point (X, Y) (origin bottom left; default 120.7,\n"
    "600.2), saves a screenshot to FILE, chooses the second service and prints a JSON report.\n";

std::shared_ptr<NSImage> square(QColor color) {
    QImage image(64, 64, QImage::Format_ARGB32);
    image.fill(color);
    auto result = std::make_shared<NSImage>(image);
    result->setSize(NSMakeSize(16, 16));
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    // Arguments first: --help must work without a display.
    QString screenshot;
    float x = 120.7f;
    float y = 600.2f;
    for (int i = 1; i < argc; ++i) {
        const QString a = QString::fromLocal8Bit(argv[i]);
        const bool hasValue = i + 1 < argc;
        if (a == QLatin1String("--help") || a == QLatin1String("-h")) {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (a == QLatin1String("--screenshot") && hasValue) {
            screenshot = QString::fromLocal8Bit(argv[++i]);
        } else if (a == QLatin1String("--x") && hasValue) {
            x = QString::fromLocal8Bit(argv[++i]).toFloat();
        } else if (a == QLatin1String("--y") && hasValue) {
            y = QString::fromLocal8Bit(argv[++i]).toFloat();
        } else {
            std::fprintf(stderr, "appkit_menu_scene: unknown argument %s\n%s", argv[i], kUsage);
            return 2;
        }
    }
    if (screenshot.isEmpty()) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    if (qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        std::fputs("appkit_menu_scene: no X display (set DISPLAY)\n", stderr);
        return 2;
    }
    QApplication app(argc, argv);

    QJsonObject report;
    QString chosen;
    auto menu = NSMenu::initWithTitle(QStringLiteral("Screen Broadcast"));
    auto title = NSMenuItem::initWithTitle(QStringLiteral("Broadcast Notes to"), {}, QString());
    title->setEnabled(false);
    std::vector<NSMenuItemPtr> items{title};
    const std::pair<const char*, QColor> services[] = {
        {"Example Stream", QColor(255, 0, 0)},
        {"Sample Cast", QColor(0, 255, 0)},
        {"Demo Live", QColor(0, 0, 255)},
    };
    for (const auto& [name, color] : services) {
        auto item = NSMenuItem::initWithTitle(
            QString::fromLatin1(name),
            [&chosen](const NSMenuItemPtr& sender) { chosen = sender->title(); }, QString());
        item->setImage(square(color));
        items.push_back(item);
    }
    menu->setItemArray(items);
    menu->setAutoenablesItems(false);
    NSMenu::setMenuBarVisible(true);

    const auto presenter = platform::appkit::NSMenuPresenter::current();
    report.insert(QStringLiteral("backend"), presenter->name());
    menu->popUpMenuPositioningItem(nullptr, NSMakePoint(x, y), nullptr);

    auto* qt = dynamic_cast<platform::appkit::QtMenuPresenter*>(presenter.get());
    QMenu* shown = qt != nullptr ? qt->shownMenu() : nullptr;
    const bool visible = shown != nullptr && platform::dispatch::runMainLoopUntil(
                                                 [shown] {
                                                     return shown->isVisible() &&
                                                            shown->windowHandle() != nullptr &&
                                                            shown->windowHandle()->isExposed();
                                                 },
                                                 20000);
    report.insert(QStringLiteral("visible"), visible);
    if (visible) {
        shown->repaint();  // painted and flushed to the server before the grab
        QCoreApplication::processEvents();
        const QRect g = shown->geometry();
        report.insert(QStringLiteral("geometry"), QJsonArray{g.x(), g.y(), g.width(), g.height()});
        QJsonArray enabled;
        for (QAction* action : shown->actions()) {
            enabled.append(action->isEnabled());
        }
        report.insert(QStringLiteral("enabled"), enabled);
        QString error;
        report.insert(QStringLiteral("screenshot"),
                      lumaro::test::grabScreenToPng(screenshot, &error) ? screenshot : error);
        shown->actions().at(2)->trigger();
        shown->hide();
        platform::dispatch::runMainLoopUntil([&chosen] { return !chosen.isEmpty(); }, 20000);
    }
    report.insert(QStringLiteral("chosen"), chosen);
    std::fputs(QJsonDocument(report).toJson(QJsonDocument::Compact).append('\n').constData(),
               stdout);
    return visible ? 0 : 1;
}
