#include <gtest/gtest.h>

#include <QFile>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "tests/platform/appkit/XvfbServer.h"

namespace {

// How many pixels of `image` inside `area` have exactly `color`.
int countColor(const QImage& image, const QRect& area, QRgb color) {
    int n = 0;
    const QRect clipped = area.intersected(image.rect());
    for (int y = clipped.top(); y <= clipped.bottom(); ++y) {
        for (int x = clipped.left(); x <= clipped.right(); ++x) {
            n += (image.pixel(x, y) & 0xFFFFFF) == (color & 0xFFFFFF) ? 1 : 0;
        }
    }
    return n;
}

TEST(ScreenshotTest, QtMenuUnderXvfbShowsTheActivityMenu) {
    if (!lumaro::test::XvfbServer::available()) {
        GTEST_SKIP() << "Xvfb is not installed: no screenshot taken";
    }
    lumaro::test::XvfbServer server;
    ASSERT_TRUE(server.start()) << server.error().toStdString();
    ASSERT_GT(server.pid(), 0);

    const QString png = lumaro::test::screenshotPath(QStringLiteral("activity-menu"));
    QFile::remove(png);
    const auto result = server.run(QStringLiteral(APPKIT_MENU_SCENE), {"--screenshot", png});
    server.stop();
    EXPECT_FALSE(server.isRunning());
    ASSERT_TRUE(result.finished) << result.standardError.toStdString();
    ASSERT_EQ(result.exitCode, 0) << result.standardOutput.toStdString()
                                  << result.standardError.toStdString();

    const QJsonObject report = QJsonDocument::fromJson(result.standardOutput).object();
    // A display and the X11 platform choose the Qt backend by default.
    EXPECT_EQ(report.value("backend").toString(), QStringLiteral("qt"));
    EXPECT_EQ(report.value("enabled").toArray(), (QJsonArray{false, true, true, true}));
    EXPECT_EQ(report.value("chosen").toString(), QStringLiteral("Sample Cast"));
    const QJsonArray g = report.value("geometry").toArray();
    ASSERT_EQ(g.size(), 4);
    const QRect menuRect(g[0].toInt(), g[1].toInt(), g[2].toInt(), g[3].toInt());
    // (120.7, 600.2) from the bottom left of a 768-pixel-high screen.
    EXPECT_EQ(menuRect.topLeft(), QPoint(121, 168));

    QImage shot(png);
    ASSERT_FALSE(shot.isNull()) << png.toStdString();
    EXPECT_EQ(shot.size(), QSize(1024, 768));
    // The menu is really on screen: its three icons show in their pure colours inside it, and
    // none of it is outside it (the rest of the screen is the server's black).
    for (QRgb colour : {qRgb(255, 0, 0), qRgb(0, 255, 0), qRgb(0, 0, 255)}) {
        EXPECT_GE(countColor(shot, menuRect, colour), 100) << std::hex << colour;
    }
    EXPECT_EQ(countColor(shot, QRect(0, 0, 1024, 160), qRgb(0, 0, 0)), 1024 * 160);
    EXPECT_LT(countColor(shot, menuRect, qRgb(0, 0, 0)), menuRect.width() * menuRect.height() / 2);
}

}  // namespace
