// The whole road on a Wayland-only session: a private headless weston, no X11 display. The real
// menu shows (and is clicked by script), the setup form shows in the service's own window, the
// outcome reaches the host; and the session's faults end the request cleanly. Screenshots land
// in build/<dir>/screenshots/wayland-*.png. Skipped when weston is not installed. Under sway,
// which offers xdg-foreign, the form's window is the child of the picker's.
#include <gtest/gtest.h>

#include <QFile>
#include <QImage>
#include <QJsonArray>
#include <QJsonObject>

#include "tests/e2e/Road.h"
#include "tests/support/XvfbServer.h"
#include "tests/support/SwayServer.h"
#include "tests/support/WestonServer.h"

using namespace lumaro::test;

namespace {

const QString kService = QStringLiteral("com.test.northwind.setupui");

// Pixels of a screenshot that are not the compositor's background: what windows cover.
int coveredPixels(const QImage& shot) {
    const QRgb background = shot.pixel(shot.width() - 1, shot.height() - 1) & 0xFFFFFF;
    int covered = 0;
    for (int y = 0; y < shot.height(); ++y) {
        for (int x = 0; x < shot.width(); ++x) {
            covered += (shot.pixel(x, y) & 0xFFFFFF) != background ? 1 : 0;
        }
    }
    return covered;
}

class WaylandRoadTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!WestonServer::available()) {
            GTEST_SKIP() << "weston is not installed: no Wayland session";
        }
        ASSERT_TRUE(road.busRunning());
        road.installService(Road::Service(kService, QStringLiteral("Northwind Live")));
        ASSERT_TRUE(road.startDaemon());
        ASSERT_TRUE(weston.start()) << weston.error().toStdString();
        road.setSession(weston.environment(QProcessEnvironment()));
    }

    // Takes screenshots into `name` until at least `pixels` of it are covered by windows;
    // answers what the last one covered.
    int shootOnceCovered(const QString& name, int pixels) {
        const QString png = screenshotPath(name);
        int covered = 0;
        for (int attempt = 0; attempt < 100 && covered < pixels; ++attempt) {
            QString error;
            if (!weston.screenshot(png, &error)) {
                ADD_FAILURE() << error.toStdString();
                return covered;
            }
            covered = coveredPixels(QImage(png));
        }
        return covered;
    }

    Road road;
    WestonServer weston;
};

TEST_F(WaylandRoadTest, ThePickerShowsItsRealMenuWithoutAnyChoice) {
    int covered = 0;
    const HostRun host = road.pick({}, [&](const HostRun&) {
        if (road.menuRecords().isEmpty()) {
            return false;
        }
        // The menu is up: its two entries, with the title line, cover over 100 by 80 pixels.
        covered = shootOnceCovered(QStringLiteral("wayland-activity-menu"), 100 * 80);
        return true;
    });
    EXPECT_GE(covered, 100 * 80) << host.standardError.toStdString();
    const QList<QJsonObject> records = road.menuRecords();
    ASSERT_EQ(records.size(), 1) << host.standardError.toStdString();
    const QJsonObject& menu = records.first();
    EXPECT_EQ(menu.value("backend").toString(), QStringLiteral("qt"));
    EXPECT_EQ(menu.value("platform").toString(), QStringLiteral("wayland"));
    EXPECT_EQ(menu.value("choice").toString(), QStringLiteral("user"));
    EXPECT_TRUE(menu.value("chosen").isNull());
    const QJsonArray items = menu.value("items").toArray();
    ASSERT_EQ(items.size(), 2);  // the title line and the service, as on X11
    EXPECT_EQ(items[1].toObject().value("identifier").toString(), kService);
    // The anchor is read and recorded as on X11, though the compositor places the menu.
    EXPECT_EQ(menu.value("location").toObject().value("x").toDouble(), 200.0);
    EXPECT_TRUE(road.daemonRequests().isEmpty());
}

TEST_F(WaylandRoadTest, AChoiceClicksTheRealMenuAndTheFormShowsUntilItIsStarted) {
    road.setSetupMode(QStringLiteral("interactive"));
    const QString go = road.dir().file(QStringLiteral("start-now"));
    qputenv("LUMARO_EXAMPLE_SETUP_START_WHEN", go.toLocal8Bit());  // the host's children inherit
    int covered = 0;
    const HostRun host = road.pick({QStringLiteral("--choose"), kService}, [&](const HostRun& run) {
        if (covered == 0 &&
            run.countInLog(QStringLiteral("arrived presentBroadcastActivitySheet"))) {
            // The picker's window (400 by 300) and the form's (360 by 160) are up.
            covered = shootOnceCovered(QStringLiteral("wayland-setup-form"), 400 * 300);
            QFile(go).open(QIODevice::WriteOnly);  // the user presses "Start"
        }
        return false;
    });
    qunsetenv("LUMARO_EXAMPLE_SETUP_START_WHEN");
    ASSERT_TRUE(host.finished) << host.standardError.toStdString();
    EXPECT_EQ(host.exitCode, 0) << host.standardError.toStdString();
    EXPECT_GE(covered, 400 * 300);

    const QJsonObject outcome = host.outcome();
    EXPECT_FALSE(outcome.value("cancelled").toBool(true));
    EXPECT_EQ(outcome.value("extensionBundleID").toString(), broadcastExtensionOf(kService));
    EXPECT_TRUE(outcome.value("broadcastURL").toString().startsWith("https://live.example.com/"));
    EXPECT_EQ(road.daemonRequests().size(), 1);

    const QList<QJsonObject> records = road.menuRecords();
    ASSERT_EQ(records.size(), 1);
    EXPECT_EQ(records.first().value("backend").toString(), QStringLiteral("qt"));
    EXPECT_EQ(records.first().value("platform").toString(), QStringLiteral("wayland"));
    EXPECT_EQ(records.first().value("chosen").toInt(-1), 1);
    // weston offers no xdg-foreign: the form's window is placed by the compositor, said once.
    EXPECT_EQ(host.countInLog(QStringLiteral(
                  "the compositor offers no xdg-foreign; the window \"Northwind Live\" is placed "
                  "by the compositor")),
              1);
}

TEST_F(WaylandRoadTest, TheCompositorGoingAwayEndsTheRequestWithoutAReport) {
    road.setSetupMode(QStringLiteral("interactive"));
    bool stopped = false;
    const HostRun host = road.pick({QStringLiteral("--choose"), kService}, [&](const HostRun& run) {
        if (!stopped && run.countInLog(QStringLiteral("arrived presentBroadcastActivitySheet"))) {
            stopped = true;
            weston.stop();  // while the form is up
        }
        return false;
    });
    ASSERT_TRUE(stopped) << host.standardError.toStdString();
    ASSERT_TRUE(host.finished) << host.standardError.toStdString();
    EXPECT_EQ(host.exitCode, 1);
    EXPECT_TRUE(host.outcome().isEmpty()) << host.standardOutput.toStdString();
    EXPECT_EQ(host.countInLog(QStringLiteral("lumaro-broadcast pick: no outcome: ")), 1)
        << host.standardError.toStdString();
    EXPECT_TRUE(road.daemonRequests().isEmpty());
}

TEST_F(WaylandRoadTest, AnExtensionStartedWithoutItsCompositorEndsItsRequest) {
    const QString gone = road.dir().write(
        QStringLiteral("gone-setup-ui"), 0,
        QStringLiteral("#!/bin/sh\nWAYLAND_DISPLAY=gone exec %1 \"$@\"\n")
            .arg(buildPath(QStringLiteral("programs/example-setup-ui/example-setup-ui")))
            .toLocal8Bit());
    QFile::setPermissions(gone, QFile::ReadOwner | QFile::ExeOwner);
    road.installService(Road::Service(QStringLiteral("com.test.gone.setupui"),
                                      QStringLiteral("Gone"), 1,
                                      QStringLiteral("ExampleSetupViewController"),
                                      QStringLiteral("ExampleSetupViewController"), gone));
    const HostRun host = road.pick({"--choose", "com.test.gone.setupui", "--timeout", "5"});
    EXPECT_EQ(
        host.countInLog(QStringLiteral("example-setup-ui: no Wayland compositor answers on ")), 1);
    EXPECT_EQ(host.countInLog(QStringLiteral(
                  "(WAYLAND_DISPLAY=gone): No such file or directory; the request ends")),
              1);
    EXPECT_EQ(host.exitCode, 1);  // no outcome: nothing was set up, nothing falsely reported
    EXPECT_TRUE(host.outcome().isEmpty());
    EXPECT_TRUE(road.daemonRequests().isEmpty());
}

TEST(WaylandSessionTest, WithXdgForeignTheFormsWindowIsTransientForThePickers) {
    SwayServer sway;
    if (!SwayServer::available()) {
        GTEST_SKIP() << "sway is not installed: no compositor that offers xdg-foreign";
    }
    Road road;
    road.installService(Road::Service(kService, QStringLiteral("Northwind Live")));
    ASSERT_TRUE(road.startDaemon());
    ASSERT_TRUE(sway.start()) << sway.error().toStdString();
    road.setSession(sway.environment(QProcessEnvironment()));
    const HostRun host = road.pick({QStringLiteral("--choose"), kService});
    EXPECT_EQ(host.countInLog(QStringLiteral(
                  "NSExtensionMain: the window \"Northwind Live\" is transient for the host's "
                  "window")),
              1)
        << host.standardError.toStdString();
}

TEST(WaylandSessionTest, AMissingCompositorSocketIsOneLineAndAFailure) {
    Road road;
    QProcessEnvironment session;
    session.insert(QStringLiteral("XDG_RUNTIME_DIR"), road.dir().path());
    session.insert(QStringLiteral("WAYLAND_DISPLAY"), QStringLiteral("no-such-compositor"));
    road.setSession(session);
    const HostRun host = road.pick({});
    ASSERT_TRUE(host.finished);
    EXPECT_EQ(host.exitCode, 1);
    EXPECT_EQ(host.standardError,
              QStringLiteral("lumaro-broadcast pick: no Wayland compositor answers on %1/"
                             "no-such-compositor (WAYLAND_DISPLAY=no-such-compositor): No such "
                             "file or directory\n")
                  .arg(road.dir().path()));
    EXPECT_TRUE(host.standardOutput.isEmpty());
}

}  // namespace
