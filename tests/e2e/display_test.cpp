// The whole road on real displays. Under Xvfb, the picker shows the chosen service's setup form
// embedded in its view. On a Wayland-only session (a private headless weston, no X11 display), the
// real menu shows (and is clicked by script), the setup form shows in the service's own window, the
// outcome reaches the host; and the session's faults end the request cleanly. Under sway, which
// offers xdg-foreign, the form's window is the child of the picker's. Screenshots land in
// build/<dir>/screenshots/. A test is skipped when its display server is not installed.
#include <gtest/gtest.h>

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QJsonArray>
#include <QJsonObject>
#include <QThread>

#include "tests/e2e/Road.h"
#include "tests/support/DisplayServers.h"

using namespace lumaro::test;

namespace {

// The road with the daemon, one service and the hosts on a display server of their own.
template <class Server>
class DisplayRoadTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!Server::available()) {
            GTEST_SKIP() << "its display server is not installed";
        }
        ASSERT_TRUE(road.busRunning());
        road.installService({kNorthwind, QStringLiteral("Northwind Live")});
        ASSERT_TRUE(road.startDaemon());
        ASSERT_TRUE(server.start()) << server.error().toStdString();
        road.setSession(server.session());
    }

    // Takes screenshots until windows cover at least `pixels` of the screen (the pixels that are
    // not the background's), saves the last as screenshots/<name>.png and answers what it
    // covered.
    int shoot(const QString& name, int pixels) {
        QImage shot;
        int covered = 0;
        const QDeadlineTimer limit(30000);  // a guard against windows that never show
        while (covered < pixels && !limit.hasExpired()) {
            QThread::msleep(50);
            QString error;
            shot = server.screenshot(&error);
            if (shot.isNull()) {
                ADD_FAILURE() << error.toStdString();
                return 0;
            }
            const QRgb background = shot.pixel(shot.width() - 1, shot.height() - 1) & 0xFFFFFF;
            covered = 0;
            for (int y = 0; y < shot.height(); ++y) {
                for (int x = 0; x < shot.width(); ++x) {
                    covered += (shot.pixel(x, y) & 0xFFFFFF) != background ? 1 : 0;
                }
            }
        }
        QDir().mkpath(buildPath(QStringLiteral("screenshots")));
        shot.save(buildPath(QStringLiteral("screenshots/%1.png").arg(name)));
        return covered;
    }

    Road road;
    Server server;
};
using XvfbRoadTest = DisplayRoadTest<XvfbServer>;
using WaylandRoadTest = DisplayRoadTest<WestonServer>;
using SwayRoadTest = DisplayRoadTest<SwayServer>;

TEST_F(XvfbRoadTest, ThePickerShowsTheSetupFormInsideItsView) {
    road.setSetupMode(QStringLiteral("interactive"));
    int covered = 0;
    const HostRun host = road.pick({"--choose", kNorthwind}, [&](const HostRun& run) {
        if (run.countInLog(kSheetArrival) == 0) {
            return false;
        }
        // The picker's 400 by 300 view is on screen, drawn by the form inside it.
        covered = shoot(QStringLiteral("picker-embedded-setup"), 400 * 300 / 2);
        return true;
    });
    EXPECT_GE(covered, 400 * 300 / 2) << host.standardError.toStdString();
    // Nothing chose or finished: the form waits for its user, so the daemon heard nothing.
    EXPECT_TRUE(road.daemonRequests().isEmpty());
}

TEST_F(WaylandRoadTest, ThePickerShowsItsRealMenuWithoutAnyChoice) {
    int covered = 0;
    const HostRun host = road.pick({}, [&](const HostRun&) {
        if (road.menuRecords().isEmpty()) {
            return false;
        }
        // The menu is up: its two entries, with the title line, cover over 100 by 80 pixels.
        covered = shoot(QStringLiteral("wayland-activity-menu"), 100 * 80);
        return true;
    });
    EXPECT_GE(covered, 100 * 80) << host.standardError.toStdString();
    const QList<QJsonObject> records = road.menuRecords();
    ASSERT_EQ(records.size(), 1) << host.standardError.toStdString();
    const QJsonObject& menu = records.first();
    EXPECT_EQ(menu.value("backend").toString(), "qt");
    EXPECT_EQ(menu.value("platform").toString(), "wayland");
    EXPECT_EQ(menu.value("choice").toString(), "user");
    EXPECT_TRUE(menu.value("chosen").isNull());
    const QJsonArray items = menu.value("items").toArray();
    ASSERT_EQ(items.size(), 2);  // the title line and the service, as on X11
    EXPECT_EQ(items[1].toObject().value("identifier").toString(), kNorthwind);
    // The anchor is read and recorded as on X11, though the compositor places the menu.
    EXPECT_EQ(menu.value("location").toObject().value("x").toDouble(), 200.0);
    EXPECT_TRUE(road.daemonRequests().isEmpty());
}

TEST_F(WaylandRoadTest, AChoiceClicksTheRealMenuAndTheFormShowsUntilItIsStarted) {
    road.setSetupMode(QStringLiteral("interactive"));
    const QString go = road.dir().file(QStringLiteral("start-now"));
    qputenv("LUMARO_EXAMPLE_SETUP_START_WHEN", go.toLocal8Bit());  // the host's children inherit
    int covered = 0;
    const HostRun host = road.pick({"--choose", kNorthwind}, [&](const HostRun& run) {
        if (covered == 0 && run.countInLog(kSheetArrival)) {
            // The picker's window (400 by 300) and the form's (360 by 160) are up.
            covered = shoot(QStringLiteral("wayland-setup-form"), 400 * 300);
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
    EXPECT_EQ(outcome.value("extensionBundleID").toString(), broadcastExtensionOf(kNorthwind));
    EXPECT_TRUE(outcome.value("broadcastURL").toString().startsWith("https://live.example.com/"));
    EXPECT_EQ(road.daemonRequests().size(), 1);

    const QList<QJsonObject> records = road.menuRecords();
    ASSERT_EQ(records.size(), 1);
    EXPECT_EQ(records.first().value("backend").toString(), "qt");
    EXPECT_EQ(records.first().value("platform").toString(), "wayland");
    EXPECT_EQ(records.first().value("chosen").toInt(-1), 1);
    // weston offers no xdg-foreign: the form's window is placed by the compositor, said once.
    EXPECT_EQ(host.countInLog("the compositor offers no xdg-foreign; the window \"Northwind Live\" "
                              "is placed by the compositor"),
              1);
}

TEST_F(WaylandRoadTest, TheCompositorGoingAwayEndsTheRequestWithoutAReport) {
    road.setSetupMode(QStringLiteral("interactive"));
    bool stopped = false;
    const HostRun host = road.pick({"--choose", kNorthwind}, [&](const HostRun& run) {
        if (!stopped && run.countInLog(kSheetArrival)) {
            stopped = true;
            server.stop();  // while the form is up
        }
        return false;
    });
    ASSERT_TRUE(stopped) << host.standardError.toStdString();
    ASSERT_TRUE(host.finished) << host.standardError.toStdString();
    EXPECT_EQ(host.exitCode, 1);
    EXPECT_TRUE(host.outcome().isEmpty()) << host.standardOutput.toStdString();
    EXPECT_EQ(host.countInLog("lumaro-broadcast pick: no outcome: "), 1)
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
    road.installService(
        {.identifier = QStringLiteral("com.test.gone.setupui"), .executable = gone});
    const HostRun host = road.pick({"--choose", "com.test.gone.setupui", "--timeout", "5"});
    EXPECT_EQ(host.countInLog("example-setup-ui: no Wayland compositor answers on "), 1);
    EXPECT_EQ(
        host.countInLog("(WAYLAND_DISPLAY=gone): No such file or directory; the request ends"), 1);
    EXPECT_EQ(host.exitCode, 1);  // no outcome: nothing was set up, nothing falsely reported
    EXPECT_TRUE(host.outcome().isEmpty());
    EXPECT_TRUE(road.daemonRequests().isEmpty());
}

TEST_F(SwayRoadTest, WithXdgForeignTheFormsWindowIsTransientForThePickers) {
    const HostRun host = road.pick({"--choose", kNorthwind});
    EXPECT_EQ(host.countInLog("NSExtensionMain: the window \"Northwind Live\" is transient for "
                              "the host's window"),
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
