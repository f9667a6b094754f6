// Performing an activity in process, against a real setup-UI process and the reference daemon on
// a private bus: the remote view is embedded filling the picker's view and follows its size, the
// host hears the sheet request and then the outcome, the daemon gets the set-up with the
// client parameters, and the exact log lines are written.
#include <gtest/gtest.h>

#include <QJsonArray>
#include <mutex>

#include "picker/LMBroadcastActivityKeys.h"
#include "platform/appkit/NSRemoteViewController.h"
#include "platform/dispatch/dispatch.h"
#include "platform/extension/NSExtensionRequest.h"
#include "platform/xpc/NSXPCConnection.h"
#include "service/LMBroadcastActivityViewServiceProtocols.h"
#include "tests/picker/HandOffFixture.h"
#include "tests/picker/PickerFixture.h"
#include "tests/platform/xpc/TestBus.h"

using namespace lumaro::test;

namespace {

using Host = RecordingHost;

// One bus, daemon and host for the whole suite: the process's session-bus connection and its
// daemon proxy are made once and stay bound to the first bus.
struct Scene {
    Scene() {
        bus.exportToEnvironment();
        daemon = std::make_unique<ChildProcess>(
            buildPath("programs/lumarod-reference/lumarod-reference"),
            QStringList{"--record", dir.file("daemon.jsonl")});
        ready = bus.isRunning() && daemon->start() &&
                bus.waitForName("com.vantor.lumarod", true, 20000);
        host->self = host;
        listener = std::make_unique<NSXPCListener>("com.test.performhost");
        listener->setDelegate(host);
        ready = ready && listener->resume();
    }
    ~Scene() { listener->invalidate(); }
    QList<QJsonObject> setups() const {
        QList<QJsonObject> found;
        for (const QJsonObject& line : readJsonLines(dir.file("daemon.jsonl"))) {
            if (line.value("selector").toString().startsWith("setupBroadcastWithHostBundleID:")) {
                found.append(line);
            }
        }
        return found;
    }

    TempDir dir;
    PrivateBus bus;
    std::unique_ptr<ChildProcess> daemon;
    std::shared_ptr<Host> host = std::make_shared<Host>();
    std::unique_ptr<NSXPCListener> listener;
    bool ready = false;
};

class PerformTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { scene = new Scene(); }
    static void TearDownTestSuite() {
        delete scene;
        scene = nullptr;
    }
    void SetUp() override {
        ASSERT_TRUE(scene->ready);
        {
            std::lock_guard lock(host->mutex);
            host->messages.clear();
        }
        auto connection = NSXPCConnection::initWithMachServiceName("com.test.performhost", 0);
        connection->setRemoteObjectInterface(
            LMBroadcastActivityViewServiceExtensionContext::_extensionAuxiliaryHostProtocol());
        connection->resume();
        context = makeRequest({requestItem({{kLMBroadcastActivityExtensionLedraKeyWidth, 400},
                                            {kLMBroadcastActivityExtensionLedraKeyHeight, 300}})});
        context->_setAuxiliaryConnection(connection);
        qputenv("LUMARO_EXAMPLE_SETUP_MODE", "complete");
    }
    void TearDown() override {
        qunsetenv("LUMARO_EXAMPLE_SETUP_MODE");
        if (context && context->_auxiliaryConnection()) {
            context->_auxiliaryConnection()->invalidate();
        }
    }

    static inline Scene* scene = nullptr;
    std::shared_ptr<Host> host = scene ? scene->host : nullptr;
    std::shared_ptr<LMBroadcastActivityViewServiceExtensionContext> context;
};

TEST_F(PerformTest, SetupIsEmbeddedSentToTheDaemonAndReportedAfterTheSheet) {
    InstalledService service("com.test.perform.setupui");
    ASSERT_NE(service.extension(), nullptr);
    auto controller = std::make_shared<LMBroadcastActivityExtensionNSViewController>();
    controller->loadViewIfNeeded();
    controller->setHostBundleID("com.test.notes");
    controller->archiveHostData("Notes", "com.test.notes", nullptr);
    auto activity = LMStreamingActivity::initWithApplicationExtension(service.extension());
    // However the test ends: the setup UI is stopped and the controller let go.
    const std::shared_ptr<void> cleanup(nullptr, [&](void*) {
        for (const QUuid& id : service.extension()->_runningRequestIdentifiers()) {
            service.extension()->cancelExtensionRequestWithIdentifier(id);
        }
        controller->setActivities({});
        service.extension()->setRequestCompletionBlock({});
    });

    platform::log::LogCapture capture;
    controller->performActionWithStreamingActivity(activity);
    ASSERT_TRUE(
        platform::dispatch::runMainLoopUntil([&] { return host->received().size() >= 2; }, 30000));

    const auto messages = host->received();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0].first, "presentBroadcastActivitySheet");
    EXPECT_EQ(messages[1].first,
              "extensionDidFinishWithLaunchURL:broadcastURL:extensionBundleID:cancelled:");
    ASSERT_EQ(messages[1].second.size(), 4);
    EXPECT_FALSE(messages[1].second[0].isValid());
    EXPECT_TRUE(messages[1].second[1].toUrl().toString().startsWith(
        "https://live.example.com/com.test.perform.setupui/"));
    EXPECT_EQ(messages[1].second[2].toString(), "com.test.perform.broadcast");
    EXPECT_EQ(messages[1].second[3].toInt(), 0);

    // The remote view fills the picker's view and follows its size.
    const auto children = controller->childViewControllers();
    ASSERT_EQ(children.size(), 1u);
    auto remote = std::dynamic_pointer_cast<NSRemoteViewController>(children[0]);
    ASSERT_NE(remote, nullptr);
    const auto remoteView = remote->view();
    EXPECT_EQ(remoteView->superview(), controller->view());
    EXPECT_EQ(remoteView->autoresizingMask(), 18u);
    EXPECT_EQ(remoteView->frame(), NSMakeRect(0, 0, 400, 300));
    EXPECT_EQ(remote->preferredContentSize(), NSMakeSize(400, 300));
    controller->view()->setFrameSize(NSMakeSize(500, 350));
    EXPECT_EQ(remoteView->frame(), NSMakeRect(0, 0, 500, 350));

    ASSERT_TRUE(
        platform::dispatch::runMainLoopUntil([] { return !scene->setups().isEmpty(); }, 10000));
    EXPECT_EQ(scene->setups()[0].value("args").toArray()[0].toString(), "com.test.notes");

    const auto records = capture.records();
    const auto nslog =
        std::find_if(records.begin(), records.end(), [](const auto& r) { return r.isNSLog; });
    ASSERT_NE(nslog, records.end());
    EXPECT_EQ(
        nslog->text,
        "-[LMBroadcastActivityExtensionNSViewController performActionWithStreamingActivity:]");
    EXPECT_EQ(
        capture.count(" [INFO] -[LMBroadcastActivityExtensionNSViewController "
                      "performActionWithStreamingActivity:]_block_invoke_2:237 " +
                      QString::asprintf("%p", static_cast<void*>(controller.get())).toStdString() +
                      " setupBroadcastWithHostBundleID"),
        1u);

    EXPECT_TRUE(platform::dispatch::runMainLoopUntil(
        [] { return platform::extension::liveChildCount() == 0; }, 10000));
}

TEST_F(PerformTest, RequestThatCannotBeginLogsItsErrorCodeAndReportsNothing) {
    TempDir programs;
    InstalledService service("com.test.nowhere.setupui", 1, "ExampleSetupViewController",
                             programs.file("missing"));
    ASSERT_NE(service.extension(), nullptr);
    const auto setupsBefore = scene->setups().size();
    auto controller = std::make_shared<LMBroadcastActivityExtensionNSViewController>();
    platform::log::LogCapture capture;
    controller->performActionWithStreamingActivity(
        LMStreamingActivity::initWithApplicationExtension(service.extension()));
    const std::string line =
        "LMBroadcastActivityExtensionNSViewController failed to begin extension request with "
        "error: 1";
    ASSERT_TRUE(
        platform::dispatch::runMainLoopUntil([&] { return capture.count(line) > 0; }, 10000));
    platform::dispatch::runMainLoopUntil([] { return false; }, 100);
    EXPECT_EQ(capture.count(line), 1u);
    EXPECT_TRUE(host->received().empty());
    EXPECT_TRUE(controller->childViewControllers().empty());
    EXPECT_EQ(scene->setups().size(), setupsBefore);
    service.extension()->setRequestCompletionBlock({});
}

}  // namespace
