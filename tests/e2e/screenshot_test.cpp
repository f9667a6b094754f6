// The picker with the chosen service's setup form embedded, on a real X server (Xvfb), saved as
// build/<dir>/screenshots/picker-embedded-setup.png. Skipped when Xvfb is not installed.
#include <gtest/gtest.h>

#include <QFile>
#include <QImage>
#include <QJsonDocument>
#include <QJsonObject>

#include "tests/e2e/Road.h"
#include "tests/support/XvfbServer.h"

using namespace lumaro::test;

namespace {

TEST(SheetScreenshotTest, PickerShowsTheSetupFormInsideItsView) {
    if (!XvfbServer::available()) {
        GTEST_SKIP() << "Xvfb is not installed: no screenshot taken";
    }
    Road road;
    ASSERT_TRUE(road.busRunning());
    road.installService(QStringLiteral("com.test.northwind.setupui"));
    road.setSetupMode(QStringLiteral("interactive"));
    ASSERT_TRUE(road.startDaemon());
    // The scene's children take the road's environment from this process.
    const QProcessEnvironment env = road.environment();
    for (const char* key : {"XDG_DATA_HOME", "XDG_DATA_DIRS", "LUMARO_EXTENSIONS_PATH",
                            "LUMARO_EXAMPLE_SETUP_MODE"}) {
        qputenv(key, env.value(QString::fromLatin1(key)).toLocal8Bit());
    }

    XvfbServer server;
    ASSERT_TRUE(server.start()) << server.error().toStdString();
    const QString png = screenshotPath(QStringLiteral("picker-embedded-setup"));
    QFile::remove(png);
    const auto result =
        server.run(QStringLiteral(E2E_SHEET_SCENE),
                   {"--host", buildPath("programs/lumaro-broadcast/lumaro-broadcast"), "--choose",
                    "com.test.northwind.setupui", "--screenshot", png},
                   90000);
    server.stop();
    ASSERT_TRUE(result.finished) << result.standardError.toStdString();
    EXPECT_EQ(result.exitCode, 0) << result.standardError.toStdString();
    const QJsonObject report = QJsonDocument::fromJson(result.standardOutput).object();
    EXPECT_TRUE(report.value("sheet").toBool());

    const QImage shot(png);
    ASSERT_FALSE(shot.isNull()) << png.toStdString();
    EXPECT_EQ(shot.size(), QSize(1024, 768));
    // The picker's 400 by 300 view is on screen, drawn by the form inside it.
    EXPECT_GE(report.value("lit").toInt(), 400 * 300 / 2);
    // Nothing chose or finished: the form waits for its user, so the daemon heard nothing.
    EXPECT_TRUE(road.daemonRequests().isEmpty());
}

}  // namespace
