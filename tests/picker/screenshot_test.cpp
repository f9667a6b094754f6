// The picker's two menus on a real X server (Xvfb), shown by the Qt presenter and saved as
// screenshots: build/<dir>/screenshots/picker-activity-menu.png and
// picker-not-installed-menu.png. Skipped when Xvfb is not installed.
#include <gtest/gtest.h>

#include <QFile>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "tests/platform/appkit/XvfbServer.h"

namespace {

QJsonObject showMenu(const QString& menu, const QString& png) {
    lumaro::test::XvfbServer server;
    if (!server.start()) {
        ADD_FAILURE() << server.error().toStdString();
        return {};
    }
    QFile::remove(png);
    const auto result =
        server.run(QStringLiteral(PICKER_MENU_SCENE), {"--menu", menu, "--screenshot", png});
    server.stop();
    EXPECT_TRUE(result.finished) << result.standardError.toStdString();
    EXPECT_EQ(result.exitCode, 0) << result.standardOutput.toStdString()
                                  << result.standardError.toStdString();
    return QJsonDocument::fromJson(result.standardOutput).object();
}

void expectMenuOnScreen(const QJsonObject& report, const QString& png) {
    const QJsonArray g = report.value("geometry").toArray();
    ASSERT_EQ(g.size(), 4);
    const QRect menuRect(g[0].toInt(), g[1].toInt(), g[2].toInt(), g[3].toInt());
    // The anchor (120.7, 600.2) from the bottom left of a 768-pixel-high screen.
    EXPECT_EQ(menuRect.topLeft(), QPoint(121, 168));
    QImage shot(png);
    ASSERT_FALSE(shot.isNull()) << png.toStdString();
    EXPECT_EQ(shot.size(), QSize(1024, 768));
    // The menu is drawn (not the server's black), and the screen above it is untouched.
    const auto lit = [&shot](const QRect& area) {
        int n = 0;
        for (int y = area.top(); y <= area.bottom(); ++y) {
            for (int x = area.left(); x <= area.right(); ++x) {
                n += (shot.pixel(x, y) & 0xFFFFFF) != 0 ? 1 : 0;
            }
        }
        return n;
    };
    EXPECT_GT(lit(menuRect), menuRect.width() * menuRect.height() / 2);
    EXPECT_EQ(lit(QRect(0, 0, 1024, 160)), 0);
}

TEST(PickerScreenshotTest, ActivityMenuShowsTheTitleLineAndThreeServices) {
    if (!lumaro::test::XvfbServer::available()) {
        GTEST_SKIP() << "Xvfb is not installed: no screenshot taken";
    }
    const QString png = lumaro::test::screenshotPath(QStringLiteral("picker-activity-menu"));
    const QJsonObject report = showMenu(QStringLiteral("activity"), png);
    EXPECT_EQ(report.value("backend").toString(), QStringLiteral("qt"));
    EXPECT_EQ(report.value("titles").toArray(),
              (QJsonArray{"Broadcast Notes to", "Example Stream", "Sample Cast", "Demo Live"}));
    EXPECT_EQ(report.value("enabled").toArray(), (QJsonArray{false, true, true, true}));
    expectMenuOnScreen(report, png);
}

TEST(PickerScreenshotTest, NotInstalledMenuShowsTwoDisabledLines) {
    if (!lumaro::test::XvfbServer::available()) {
        GTEST_SKIP() << "Xvfb is not installed: no screenshot taken";
    }
    const QString png = lumaro::test::screenshotPath(QStringLiteral("picker-not-installed-menu"));
    const QJsonObject report = showMenu(QStringLiteral("not-installed"), png);
    EXPECT_EQ(report.value("titles").toArray(),
              (QJsonArray{"No broadcast service installed", "Find broadcast apps in the store"}));
    EXPECT_EQ(report.value("enabled").toArray(), (QJsonArray{false, false}));
    expectMenuOnScreen(report, png);
}

}  // namespace
