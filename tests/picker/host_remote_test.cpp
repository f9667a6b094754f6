// The setup-UI host controller and the host-side context: the relays to the delegate (values
// unchanged, nothing without a delegate), messages kept until a host view controller is bound,
// and the factory against a real setup-UI process and against one that cannot start.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QThread>
#include <mutex>

#include "picker/LMBroadcastActivityHostRemoteNSViewController.h"
#include "platform/dispatch/dispatch.h"
#include "platform/extension/NSExtensionRequest.h"
#include "platform/log/os_log.h"
#include "service/LMBroadcastActivityViewServiceProtocols.h"
#include "tests/picker/HandOffFixture.h"
#include "tests/support/TestMain.h"

using namespace lumaro::test;

LUMARO_TEST_MAIN(.ownMainBundle = true);  // no storyboard

namespace {

const QString kSheet = QStringLiteral("presentBroadcastActivitySheet");
const QString kFinish =
    QStringLiteral("extensionDidFinishWithLaunchURL:broadcastURL:extensionBundleID:cancelled:");

class RecordingDelegate : public LMBroadcastActivityHostRemoteNSViewControllerDelegate {
public:
    struct Finish {
        QUrl launchURL;
        QUrl broadcastURL;
        QString extensionBundleID;
        bool cancelled;
    };
    void presentBroadcastActivitySheet() override { ++sheets; }
    void extensionDidFinishWithLaunchURL(const QUrl& launchURL, const QUrl& broadcastURL,
                                         const QString& extensionBundleID,
                                         bool cancelled) override {
        finishes.push_back({launchURL, broadcastURL, extensionBundleID, cancelled});
    }
    int sheets = 0;
    std::vector<Finish> finishes;
};

TEST(HostRemoteControllerTest, RelaysReachTheDelegateUnchangedAndNothingWithoutOne) {
    auto controller = std::make_shared<LMBroadcastActivityHostRemoteNSViewController>();
    platform::log::LogCapture capture;
    // No delegate: both relays do nothing.
    controller->performSelector(kSheet, {});
    controller->performSelector(kFinish, {QVariant(), QVariant(), QVariant(), 1});

    auto delegate = std::make_shared<RecordingDelegate>();
    controller->setDelegate(delegate);
    controller->performSelector(kSheet, {});
    controller->performSelector(kFinish, {QVariant(), QVariant(), QVariant(), 1});
    controller->performSelector(
        kFinish, {QVariant(), QUrl("https://watch.test/a b"), QString("com.test.ext"), 0});
    controller->performSelector(kFinish, {QVariant()});  // not of the interface: dropped
    EXPECT_EQ(delegate->sheets, 1);
    ASSERT_EQ(delegate->finishes.size(), 2u);
    EXPECT_TRUE(delegate->finishes[0].launchURL.isEmpty());
    EXPECT_TRUE(delegate->finishes[0].broadcastURL.isEmpty());
    EXPECT_TRUE(delegate->finishes[0].extensionBundleID.isNull());
    EXPECT_TRUE(delegate->finishes[0].cancelled);
    EXPECT_EQ(delegate->finishes[1].broadcastURL, QUrl("https://watch.test/a b"));
    EXPECT_EQ(delegate->finishes[1].extensionBundleID, "com.test.ext");
    EXPECT_FALSE(delegate->finishes[1].cancelled);
    EXPECT_TRUE(capture.records().empty());

    // The delegate is not owned.
    delegate.reset();
    EXPECT_EQ(controller->delegate(), nullptr);
    controller->presentBroadcastActivitySheet();

    EXPECT_EQ(controller->serviceViewControllerInterface(),
              BroadcastActivityViewServiceExtension::
                  __LMBroadcastActivity_viewServiceExtensionInterface());
    EXPECT_EQ(
        controller->exportedInterface(),
        BroadcastActivityViewServiceExtension::__LMBroadcastActivity_viewServiceHostInterface());
}

TEST(HostContextTest, MessagesWaitForTheHostViewControllerAndArriveInOrder) {
    auto context = std::make_shared<LMBroadcastActivityViewServiceExtensionHostContext>();
    context->performSelector(kSheet, {});
    context->performSelector(kFinish, {QVariant(), QVariant(), QVariant(), 1});

    auto controller = std::make_shared<LMBroadcastActivityHostRemoteNSViewController>();
    auto delegate = std::make_shared<RecordingDelegate>();
    controller->setDelegate(delegate);
    context->setHostViewController(controller);
    EXPECT_EQ(context->hostViewController(), controller);
    EXPECT_EQ(delegate->sheets, 1);
    ASSERT_EQ(delegate->finishes.size(), 1u);
    EXPECT_TRUE(delegate->finishes[0].cancelled);

    context->performSelector(kSheet, {});
    EXPECT_EQ(delegate->sheets, 2);

    // Held weakly: once the controller is gone, messages go nowhere.
    controller.reset();
    EXPECT_EQ(context->hostViewController(), nullptr);
    context->performSelector(kSheet, {});
    EXPECT_EQ(delegate->sheets, 2);

    const NSExtensionContextClass cls =
        LMBroadcastActivityViewServiceExtensionHostContext::contextClass();
    EXPECT_NE(
        std::dynamic_pointer_cast<LMBroadcastActivityViewServiceExtensionHostContext>(cls.alloc()),
        nullptr);
    EXPECT_EQ(
        cls._extensionAuxiliaryHostProtocol(),
        BroadcastActivityViewServiceExtension::__LMBroadcastActivity_viewServiceHostInterface());
}

struct FactoryAnswer {
    int calls = 0;
    bool onMainThread = false;
    QUuid identifier;
    std::shared_ptr<LMBroadcastActivityHostRemoteNSViewController> controller;
    NSErrorPtr error;
};

FactoryAnswer instantiate(const NSExtensionPtr& extension,
                          const std::vector<NSExtensionItemPtr>& items) {
    auto answer = std::make_shared<FactoryAnswer>();
    LMBroadcastActivityHostRemoteNSViewController::instantiateViewControllerWithExtension(
        extension, items, [answer](QUuid identifier, auto controller, NSErrorPtr error) {
            ++answer->calls;
            answer->onMainThread =
                QThread::currentThread() == QCoreApplication::instance()->thread();
            answer->identifier = identifier;
            answer->controller = std::move(controller);
            answer->error = std::move(error);
        });
    platform::dispatch::runMainLoopUntil([answer] { return answer->calls > 0; }, 30000);
    // A second answer would come in a later turn.
    platform::dispatch::runMainLoopUntil([] { return false; }, 50);
    return *answer;
}

TEST(HostRemoteFactoryTest, BindsTheControllerToTheRunningRequest) {
    qputenv("LUMARO_EXAMPLE_SETUP_MODE", "interactive");
    InstalledService service("com.test.factory.setupui");
    ASSERT_NE(service.extension(), nullptr);
    const std::vector<NSExtensionItemPtr> items{std::make_shared<NSExtensionItem>()};

    const FactoryAnswer answer = instantiate(service.extension(), items);
    EXPECT_EQ(answer.calls, 1);
    EXPECT_TRUE(answer.onMainThread);
    ASSERT_FALSE(answer.identifier.isNull())
        << (answer.error ? answer.error->description() : QString("no error")).toStdString();
    ASSERT_NE(answer.controller, nullptr);
    EXPECT_EQ(answer.error, nullptr);
    EXPECT_EQ(answer.controller->extension(), service.extension());
    EXPECT_EQ(answer.controller->inputItems(), items);
    EXPECT_EQ(answer.controller->serviceBundleIdentifier(), "com.test.factory.setupui.veilnet");
    const auto context = answer.controller->hostContext();
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(context->_UUID(), answer.identifier);
    EXPECT_EQ(context->hostViewController(), answer.controller);

    service.extension()->cancelExtensionRequestWithIdentifier(answer.identifier);
    EXPECT_TRUE(platform::dispatch::runMainLoopUntil(
        [] { return platform::extension::liveChildCount() == 0; }, 10000));
    qunsetenv("LUMARO_EXAMPLE_SETUP_MODE");
}

TEST(HostRemoteFactoryTest, RequestThatCannotBeginGivesOnlyTheError) {
    TempDir dir;
    InstalledService service("com.test.missing.setupui", 1, "ExampleSetupViewController",
                             dir.file("no-such-program"));
    ASSERT_NE(service.extension(), nullptr);
    platform::log::LogCapture capture;
    const FactoryAnswer answer = instantiate(service.extension(), {});
    EXPECT_EQ(answer.calls, 1);
    EXPECT_TRUE(answer.onMainThread);
    EXPECT_TRUE(answer.identifier.isNull());
    EXPECT_EQ(answer.controller, nullptr);
    ASSERT_NE(answer.error, nullptr);
    EXPECT_EQ(answer.error->domain(), NSExtensionRequestErrorDomain);
    EXPECT_EQ(answer.error->code(), NSExtensionRequestExecutableMissingError);

    // No extension, no request: nothing answers, and no error is made up.
    int calls = 0;
    LMBroadcastActivityHostRemoteNSViewController::instantiateViewControllerWithExtension(
        nullptr, {}, [&calls](QUuid, auto, NSErrorPtr) { ++calls; });
    platform::dispatch::runMainLoopUntil([] { return false; }, 50);
    EXPECT_EQ(calls, 0);
}

}  // namespace
