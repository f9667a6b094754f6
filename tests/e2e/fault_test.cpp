// Faults along the road, with real processes on a private bus: a process killed or crashing
// mid-request, a peer sending what the daemon does not take. Each ends in what the survivors can
// know (an error line, the host's one line and status), never a crash, a hang or a process left.
#include <gtest/gtest.h>

#include <signal.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QFile>
#include <atomic>
#include <thread>
#include <tuple>
#include <vector>

#include "daemon/LMDaemonProxy.h"
#include "platform/dispatch/dispatch.h"
#include "platform/log/os_log.h"
#include "tests/e2e/Road.h"

using namespace lumaro::test;
using platform::dispatch::runMainLoopUntil;
using platform::log::LogCapture;

namespace {

// A generous limit that means "hung", not a measurement.
constexpr int kHungMs = 20000;

// The process has ended: it is gone, or it is a zombie nobody has reaped yet.
bool ended(qint64 pid) {
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    const QByteArray line = stat.open(QIODevice::ReadOnly) ? stat.readAll() : QByteArray();
    return line.isEmpty() || line.mid(line.lastIndexOf(')') + 2, 1) == "Z";
}

class FaultTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(road.busRunning()); }

    // Runs a host whose setup UI waits for the user; once the picker asked for the sheet and
    // both children have logged, `fault` is done to them, once. The children's ids are kept.
    HostRun pickAndThen(const std::function<void(const HostRun&)>& fault) {
        road.installService({kNorthwind});
        road.setSetupMode(QStringLiteral("interactive"));
        bool done = false;
        return road.pick({"--choose", kNorthwind}, [&](const HostRun& run) {
            picker = run.pidInLog("lumaro-broadcast-picker");
            setupUI = run.pidInLog("example-setup-ui");
            const bool shown = run.countInLog(kSheetArrival) == 1;
            if (!done && picker != 0 && setupUI != 0 && shown) {
                done = true;
                fault(run);
            }
            return false;
        });
    }

    Road road;
    qint64 picker = 0;
    qint64 setupUI = 0;
};

// The shared daemon proxy, asked for by two threads at once (one object and one connection), each
// sending 500 requests, when the daemon is killed: each request ends once, in its block or in its
// one error line, and the connection serves again once the daemon is back. Runs first: nothing
// has touched the proxy yet.
TEST_F(FaultTest, DaemonKilledWithAThousandRequestsInFlight) {
    constexpr int kRequests = 1000;
    ASSERT_TRUE(road.startDaemon());
    ASSERT_EQ(NSXPCConnection::connectionsCreated(), 0);
    LogCapture capture;
    struct Counts {  // the blocks run on the connection's queue: the counts outlive this frame
        std::vector<std::atomic<int>> blocks = std::vector<std::atomic<int>>(kRequests);
        std::atomic<int> total{0};
    };
    auto counts = std::make_shared<Counts>();
    std::atomic<bool> go{false};
    std::shared_ptr<LMDaemonProxy> proxies[2];
    auto send = [&, counts](int half) {
        while (!go) {
        }
        auto proxy = proxies[half] = LMDaemonProxy::daemonProxy();
        for (int i = half * kRequests / 2; i < (half + 1) * kRequests / 2; ++i) {
            proxy->setupBroadcastWithHostBundleID(
                QStringLiteral("com.example.host"), QStringLiteral("com.example.service"),
                QByteArray(16, 'x'), QVariantMap{{QStringLiteral("i"), i}},
                [counts, i](NSErrorPtr) {
                    counts->blocks[size_t(i)]++;
                    counts->total++;
                });
        }
    };
    std::thread first(send, 0);
    std::thread second(send, 1);
    go = true;
    runMainLoopUntil([&] { return counts->total.load() >= 50; }, kHungMs);
    road.killDaemon();
    first.join();
    second.join();
    EXPECT_TRUE(proxies[0] && proxies[0] == proxies[1]);
    EXPECT_EQ(NSXPCConnection::connectionsCreated(), 1);

    auto ends = [&] {
        return size_t(counts->total.load()) + capture.count("error: 4097") +
               capture.count("error: 4099");
    };
    ASSERT_TRUE(runMainLoopUntil([&] { return ends() >= size_t(kRequests); }, 60000))
        << counts->total.load() << " blocks, " << ends() << " ends";
    EXPECT_EQ(ends(), size_t(kRequests));
    for (int i = 0; i < kRequests; ++i) {
        EXPECT_LE(counts->blocks[size_t(i)].load(), 1) << i;
    }

    // The connection is kept: with the daemon back, requests go through again.
    ASSERT_TRUE(road.startDaemon());
    auto after = std::make_shared<std::atomic<int>>(0);
    proxies[0]->stopInAppCaptureWithHandler([after](NSErrorPtr) { (*after)++; });
    EXPECT_TRUE(runMainLoopUntil([&] { return after->load() == 1; }, kHungMs));
}

// The setup UI aborts mid-request, or returns an item that cannot be loaded: nothing reaches the
// daemon or the host, and the picker stays up. After the crash the host is stopped once the picker
// saw its child end; with the item it gives up after its timeout, without blaming the picker.
TEST_F(FaultTest, SetupUICrashOrUnreadableItemLeavesThePickerUpAndTheHostWithoutAnOutcome) {
    road.installService({kNorthwind});
    ASSERT_TRUE(road.startDaemon());
    const QString childEnded =
        "lumaro-broadcast-picker[%1] <Default> extension runtime: %2 for request ";
    for (const QString mode : {"crash", "fail-item"}) {
        SCOPED_TRACE(mode.toStdString());
        road.setSetupMode(mode);
        const bool crash = mode == "crash";
        const HostRun host = road.pick(
            {"--choose", kNorthwind, "--timeout", crash ? "3600" : "8"}, [&](const HostRun& run) {
                const QString line = childEnded.arg(run.pidInLog("lumaro-broadcast-picker"));
                return crash && run.countInLog(line.arg(kNorthwind)) == 1;
            });
        EXPECT_TRUE(host.standardOutput.isEmpty()) << host.standardOutput.toStdString();
        EXPECT_EQ(host.countInLog("example-setup-ui: aborting as asked"), crash ? 1 : 0);
        // Whether the item failed before or after the sheet was asked for, the host cannot see.
        EXPECT_EQ(host.countInLog("lumaro-broadcast pick: no outcome within 8 s: "), crash ? 0 : 1)
            << host.standardError.toStdString();
        EXPECT_EQ(host.countInLog("picker exited"), 0);
        EXPECT_EQ(host.countInLog("arrived extensionDidFinishWithLaunchURL:"), 0);
        EXPECT_TRUE(road.daemonRequests().isEmpty());
    }
}

TEST_F(FaultTest, PickerKilledIsReportedByTheHostInOneLine) {
    const HostRun host = pickAndThen([this](const HostRun&) { ::kill(pid_t(picker), SIGKILL); });
    ASSERT_TRUE(host.finished) << host.standardError.toStdString();
    EXPECT_EQ(host.exitCode, 1);
    EXPECT_TRUE(host.standardOutput.isEmpty()) << host.standardOutput.toStdString();
    // Its one line, beside the messages it was asked to show (--verbose).
    EXPECT_EQ(host.countInLog("pick: ") - host.countInLog("pick: arrived "), 1);
    EXPECT_EQ(host.countInLog("pick: no outcome: the picker exited before it reported an outcome"),
              1)
        << host.standardError.toStdString();
    // The picker's own child goes with its link.
    EXPECT_TRUE(runMainLoopUntil([this] { return ended(setupUI); }, kHungMs));
}

// The host is killed outright: its picker and the setup UI see their links close and end; none
// lingers.
TEST_F(FaultTest, HostKilledEndsThePickerAndTheSetupUI) {
    const HostRun host = pickAndThen([](const HostRun& run) { ::kill(pid_t(run.pid), SIGKILL); });
    ASSERT_TRUE(picker != 0 && setupUI != 0) << host.standardError.toStdString();
    EXPECT_TRUE(runMainLoopUntil([this] { return ended(picker) && ended(setupUI); }, kHungMs))
        << host.standardError.toStdString();
}

// Messages the daemon's interface does not hold, straight off the bus: each is refused with an
// error reply and one error line, and the same peer's next good request is served.
TEST_F(FaultTest, MalformedMessagesToTheDaemonAreRefusedAndTheLinkStaysUsable) {
    ASSERT_TRUE(road.startDaemon());
    QDBusConnection peer = QDBusConnection::connectToBus(
        road.environment().value(QStringLiteral("DBUS_SESSION_BUS_ADDRESS")),
        QStringLiteral("malformed-peer"));
    ASSERT_TRUE(peer.isConnected());
    const QString daemon = QStringLiteral("com.vantor.lumarod.Daemon");
    const auto call = [&](const QString& interface, const QString& member,
                          const QVariantList& arguments) {
        QDBusMessage message = QDBusMessage::createMethodCall(QStringLiteral("com.vantor.lumarod"),
                                                              QStringLiteral("/com/vantor/lumarod"),
                                                              interface, member);
        message.setArguments(arguments);
        return peer.call(message, QDBus::Block, kHungMs);
    };
    const QString setup = QStringLiteral(
        "setupBroadcastWithHostBundleID_broadcastExtensionBundleID_broadcastConfigurationData_"
        "userInfo_handler_");
    const auto one = [](const QVariant& value) {
        return QVariant::fromValue(QVariantList{value});
    };
    const QVariantList good{one(QStringLiteral("com.example.host")), one(QStringLiteral("b")),
                            one(QByteArray("c")), one(QVariantMap{})};
    QVariantList huge = good;
    huge[0] = QVariant::fromValue(QVariantList(1000000, QStringLiteral("x")));
    QVariantList twoInOne = good;
    twoInOne[0] = QVariant::fromValue(QVariantList{QStringLiteral("a"), QStringLiteral("b")});
    // The interface, member and arguments, and the error's name.
    const std::vector<std::tuple<QString, QString, QVariantList, QString>> cases = {
        {daemon, setup, {42, QStringLiteral("b"), QByteArray("c"), 1}, "InvalidArgs"},
        {daemon, setup, huge, "InvalidArgs"},
        {daemon, setup, good.mid(1), "InvalidArgs"},
        {daemon, setup, twoInOne, "InvalidArgs"},
        {daemon, "noSuchRequest_", {}, "UnknownMethod"},
        {daemon, setup + "_1", good, "UnknownMethod"},
        {"com.example.Other", setup, good, "UnknownInterface"},
    };
    for (const auto& [interface, member, arguments, error] : cases) {
        SCOPED_TRACE(error.toStdString());
        const QDBusMessage answer = call(interface, member, arguments);
        EXPECT_EQ(answer.errorName(), "org.freedesktop.DBus.Error." + error);
        QString log;
        EXPECT_TRUE(runMainLoopUntil(
            [&] {
                log += QString::fromUtf8(road.readDaemonLog());
                return log.contains(QStringLiteral("<Error> NSXPCConnection: refused "));
            },
            kHungMs));
        EXPECT_EQ(log.count(QStringLiteral("<Error> ")), 1) << log.toStdString();
    }
    EXPECT_EQ(call(daemon, setup, good).type(), QDBusMessage::ReplyMessage);
    EXPECT_EQ(road.daemonRequests().size(), 1);
    QDBusConnection::disconnectFromBus(QStringLiteral("malformed-peer"));
}

}  // namespace
