// One host request along the whole road, with real processes on a private bus: the host command,
// the picker, the example setup UI and the reference daemon. Each test asserts on the host's
// outcome line, the daemon's record, the menu record and the log lines of the processes (the
// host's standard error carries its children's).
#include <gtest/gtest.h>

#include <QByteArray>
#include <QFile>
#include <QJsonArray>
#include <QUuid>

#include "tests/e2e/Road.h"

using namespace lumaro::test;

namespace {

const QString kTidecast = QStringLiteral("com.test.tidecast.setupui");
const QString kPerformLine = QStringLiteral(
    "-[LMBroadcastActivityExtensionNSViewController performActionWithStreamingActivity:]");
const QString kInfoLine = QStringLiteral(
    " [INFO] -[LMBroadcastActivityExtensionNSViewController "
    "performActionWithStreamingActivity:]_block_invoke_2:237 0x");
const QString kFinishArrival = QStringLiteral("arrived extensionDidFinishWithLaunchURL:");

// The outcome of a setup that reached the daemon, for `service`.
void expectSetUp(const HostRun& host, const QString& service) {
    EXPECT_TRUE(host.finished);
    EXPECT_EQ(host.exitCode, 0) << host.standardError.toStdString();
    const QJsonObject outcome = host.outcome();
    EXPECT_TRUE(outcome.value("launchURL").isNull());
    EXPECT_TRUE(outcome.value("broadcastURL")
                    .toString()
                    .startsWith(QStringLiteral("https://live.example.com/%1/").arg(service)))
        << host.standardOutput.toStdString();
    EXPECT_EQ(outcome.value("extensionBundleID").toString(), broadcastExtensionOf(service));
    EXPECT_EQ(outcome.value("cancelled"), QJsonValue(false));
}

class RoadTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(road.busRunning()); }
    Road road;
};

TEST_F(RoadTest, ChosenServiceIsSetUpWithTheDaemonAndReportedToTheHost) {
    road.installService({kNorthwind});
    road.installService({kTidecast, "Tidecast"});
    ASSERT_TRUE(road.startDaemon());
    const HostRun host =
        road.pick({"--choose", kNorthwind, "--app-name", "Notes", "--bundle-id",
                   "com.example.notes", "--width", "320", "--height", "240", "--x", "120.5"});
    expectSetUp(host, kNorthwind);
    EXPECT_TRUE(host.outcome().value("broadcastURL").toString().endsWith("Notes%20live"));

    // The menu: the title line, then the services in registry order; the choice.
    const auto menus = road.menuRecords();
    ASSERT_EQ(menus.size(), 1);
    const QJsonArray items = menus[0].value("items").toArray();
    ASSERT_EQ(items.size(), 3);
    EXPECT_EQ(items[0].toObject().value("title").toString(), "Broadcast Notes to");
    EXPECT_FALSE(items[0].toObject().value("enabled").toBool());
    EXPECT_EQ(items[1].toObject().value("identifier").toString(), kNorthwind);
    EXPECT_EQ(items[2].toObject().value("identifier").toString(), kTidecast);
    EXPECT_EQ(menus[0].value("chosen").toInt(), 1);
    EXPECT_EQ(menus[0].value("location").toObject().value("x").toDouble(), 120.5);

    // The daemon's one request: host, extension, configuration and user info.
    const auto requests = road.daemonRequests();
    ASSERT_EQ(requests.size(), 1);
    const QJsonArray args = requests[0].value("args").toArray();
    ASSERT_EQ(args.size(), 4);
    EXPECT_EQ(args[0].toString(), "com.example.notes");
    EXPECT_EQ(args[1].toString(), broadcastExtensionOf(kNorthwind));
    const QByteArray configuration = QByteArray::fromBase64(args[2].toString().toLatin1());
    EXPECT_TRUE(configuration.contains("com.example.notes"));
    EXPECT_TRUE(configuration.contains("Notes live"));
    const QJsonObject userInfo = args[3].toObject();
    EXPECT_EQ(userInfo.value("hostAppName").toString(), "Notes");
    const QJsonObject client = userInfo.value("hostAppClientParameters").toObject();
    EXPECT_EQ(client.value("isPrismApp").toString(), "NO");
    EXPECT_EQ(client.value("view-width").toDouble(), 320.0);
    EXPECT_EQ(client.value("view-height").toDouble(), 240.0);
    EXPECT_FALSE(QUuid::fromString(client.value("request-identifier").toString()).isNull());

    // Along the road: one trace line, the sheet before the finish, one info line.
    EXPECT_EQ(host.countInLog("<NSLog> " + kPerformLine), 1) << host.standardError.toStdString();
    EXPECT_EQ(host.countInLog(kInfoLine), 1);
    EXPECT_EQ(host.countInLog(kSheetArrival), 1);
    EXPECT_LT(host.standardError.indexOf(kSheetArrival),
              host.standardError.indexOf(kFinishArrival));
}

TEST_F(RoadTest, DaemonErrorIsReportedLikeASuccessAfterOneErrorLine) {
    road.installService({kNorthwind});
    ASSERT_TRUE(road.startDaemon({"--fail", kSetupSelector + "=7"}));
    const HostRun host = road.pick({"--choose-index", "1"});
    expectSetUp(host, kNorthwind);
    EXPECT_EQ(road.daemonRequests().size(), 1);
    EXPECT_EQ(host.countInLog("Error setting up broadcast, error code: 7"), 1)
        << host.standardError.toStdString();
}

TEST_F(RoadTest, CancelledSetupIsReportedAsCancelledWithoutADaemonRequest) {
    road.installService({kNorthwind});
    road.setSetupMode("cancel");
    ASSERT_TRUE(road.startDaemon());
    const HostRun host = road.pick({"--choose", kNorthwind});
    ASSERT_TRUE(host.finished);
    EXPECT_EQ(host.exitCode, 0) << host.standardError.toStdString();
    EXPECT_EQ(host.standardOutput.trimmed(),
              R"({"launchURL": null, "broadcastURL": null, "extensionBundleID": null, )"
              R"("cancelled": true})");
    EXPECT_TRUE(road.daemonRequests().isEmpty());
    EXPECT_EQ(host.countInLog(kInfoLine), 0);
}

TEST_F(RoadTest, PreferredExtensionIsPerformedWithoutAMenuOrNotAtAll) {
    road.installService({kNorthwind});
    road.installService({kTidecast, "Tidecast"});
    ASSERT_TRUE(road.startDaemon());

    const HostRun found = road.pick({"--preferred", kTidecast});
    expectSetUp(found, kTidecast);
    EXPECT_EQ(found.countInLog("setupSingleExtensionViewWithHostBundleID:preferredExtension:"
                               "iconImage:appName:activities:] found extension"),
              1);
    EXPECT_TRUE(road.menuRecords().isEmpty());

    const HostRun missing = road.pick({"--preferred", "com.test.nowhere"}, [](const HostRun& run) {
        return run.countInLog("did not find extension") > 0;
    });
    EXPECT_TRUE(missing.outcome().isEmpty());
    EXPECT_EQ(missing.countInLog("did not find extension"), 1);
    EXPECT_EQ(missing.countInLog(kPerformLine), 0);
    EXPECT_TRUE(road.menuRecords().isEmpty());
    EXPECT_EQ(road.daemonRequests().size(), 1);  // the first run's only
}

TEST_F(RoadTest, NoServicesShowTheNotInstalledMenuOfTwoDisabledLines) {
    ASSERT_TRUE(road.startDaemon());
    const HostRun host =
        road.pick({"--no-service", "Nothing to broadcast with", "--find-apps", "Get some apps",
                   "--not-installed-title", "Ignored title", "--choose-index", "0"},
                  [this](const HostRun&) { return !road.menuRecords().isEmpty(); });
    const auto menus = road.menuRecords();
    ASSERT_EQ(menus.size(), 1) << host.standardError.toStdString();
    const QJsonArray items = menus[0].value("items").toArray();
    ASSERT_EQ(items.size(), 2);
    EXPECT_EQ(items[0].toObject().value("title").toString(), "Nothing to broadcast with");
    EXPECT_EQ(items[1].toObject().value("title").toString(), "Get some apps");
    EXPECT_FALSE(items[0].toObject().value("enabled").toBool());
    EXPECT_FALSE(items[1].toObject().value("enabled").toBool());
    EXPECT_TRUE(menus[0].value("chosen").isNull());  // a disabled line cannot be chosen
    EXPECT_TRUE(host.outcome().isEmpty());
}

// A service built for Prism gets no view-controller class name (its containing class is not
// even registered, and the principal class serves) and no client parameters.
TEST_F(RoadTest, PrismServiceGetsNoClassNameAndNoClientParameters) {
    road.installService({kTidecast, "Tidecast", 6, "UnregisteredSetupViewController"});
    ASSERT_TRUE(road.startDaemon());
    const HostRun host = road.pick({"--choose", kTidecast});
    expectSetUp(host, kTidecast);
    const auto requests = road.daemonRequests();
    ASSERT_EQ(requests.size(), 1);
    const QJsonObject userInfo = requests[0].value("args").toArray()[3].toObject();
    EXPECT_EQ(userInfo.value("hostAppName").toString(), "Lumaro Host");
    EXPECT_FALSE(userInfo.contains("hostAppClientParameters"));
}

TEST_F(RoadTest, HostWithViewParametersAloneGetsTheStoryboardsControllerEmbedded) {
    road.installService({kNorthwind});
    const HostRun host = road.pick({"--view-parameters", "--width", "410", "--height", "250.5"});
    ASSERT_TRUE(host.finished);
    EXPECT_EQ(host.exitCode, 0) << host.standardError.toStdString();
    const QJsonObject view = host.outcome().value("view").toObject();
    EXPECT_EQ(view.value("width").toDouble(), 410.0) << host.standardOutput.toStdString();
    EXPECT_EQ(view.value("height").toDouble(), 250.5);
    // Two views loaded: the picker's, by the parameters, and that of the controller it took from
    // its storyboard and embedded. No storyboard or context error, and no menu: nothing came
    // from the host but the parameters.
    EXPECT_EQ(
        host.countInLog(" [INFO] -[LMBroadcastActivityExtensionNSViewController loadView]:42 0x"),
        2)
        << host.standardError.toStdString();
    EXPECT_EQ(host.countInLog(" [ERROR] "), 0);
    EXPECT_TRUE(road.menuRecords().isEmpty());
}

// The hand-off's two silent failures: the setup UI cannot start, or it has no controller of the
// class asked for. One error line each; nothing reaches the daemon or the host.
TEST_F(RoadTest, HandOffFailuresLogOneLineAndReportNothing) {
    road.installService(
        {.identifier = kNorthwind, .executable = road.dir().file("no-such-program")});
    road.installService({kTidecast, "Tidecast", 1, "UnregisteredSetupViewController"});
    ASSERT_TRUE(road.startDaemon());

    const QString notBegun = QStringLiteral(
        "LMBroadcastActivityExtensionNSViewController failed to begin extension request with "
        "error: 1");
    const HostRun missing = road.pick(
        {"--choose", kNorthwind}, [&](const HostRun& run) { return run.countInLog(notBegun) > 0; });
    EXPECT_EQ(missing.countInLog(notBegun), 1) << missing.standardError.toStdString();

    const QString noView = QStringLiteral(
        "LMBroadcastActivityExtensionNSViewController failed to instantiate remote view "
        "controller");
    const HostRun unknownClass = road.pick(
        {"--choose", kTidecast}, [&](const HostRun& run) { return run.countInLog(noView) > 0; });
    EXPECT_EQ(unknownClass.countInLog(noView), 1) << unknownClass.standardError.toStdString();
    EXPECT_EQ(unknownClass.countInLog(kSheetArrival), 0);

    for (const HostRun* run : {&missing, &unknownClass}) {
        EXPECT_TRUE(run->outcome().isEmpty());
        EXPECT_EQ(run->countInLog(kFinishArrival), 0);
    }
    EXPECT_TRUE(road.daemonRequests().isEmpty());
}

TEST_F(RoadTest, HostCommandRejectsBadArgumentsAndANotInstalledPicker) {
    const HostRun usage = road.pick({"--timeout", "soon"});
    EXPECT_EQ(usage.exitCode, 2);
    EXPECT_EQ(usage.countInLog("--timeout wants a number"), 1);
    const HostRun both = road.pick({"--dismiss", "--choose", kNorthwind});
    EXPECT_EQ(both.exitCode, 2);

    QFile::remove(road.dir().file(
        QStringLiteral("data/lumaro/extensions/com.vantor.lumaro.broadcast-picker.json")));
    const HostRun noPicker = road.pick({"--icon", road.dir().file("missing.png")});
    EXPECT_EQ(noPicker.exitCode, 1);
    EXPECT_EQ(noPicker.countInLog("cannot read the icon"), 1);
    EXPECT_EQ(noPicker.countInLog("the picker \"com.vantor.lumaro.broadcast-picker\" is not "
                                  "installed"),
              1)
        << noPicker.standardError.toStdString();
}

}  // namespace
