// The setup-UI host controller and the host-side context: relays with no delegate or the wrong
// arguments, messages kept until a host view controller is bound, and the factory for a service
// that cannot start. The factory's binding to a running request is the end-to-end road's.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QThread>
#include <mutex>

#include "picker/LMBroadcastActivityExtensionNSViewController.h"
#include "picker/LMBroadcastActivityHostRemoteNSViewController.h"
#include "platform/dispatch/dispatch.h"
#include "platform/extension/NSExtensionRequest.h"
#include "platform/log/os_log.h"
#include "service/LMBroadcastActivityViewServiceProtocols.h"
#include "tests/picker/HandOffFixture.h"
#include "tests/support/TestMain.h"

using namespace lumaro::test;

// No storyboard; the picker's classes registered as the picker's program registers them.
LUMARO_TEST_MAIN(.ownMainBundle = true, .prepare = LMBroadcastPickerRegisterClasses);

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

// What reaches the delegate with values is the end-to-end road's; here what must not.
TEST(HostRemoteControllerTest, RelaysGoNowhereWithoutADelegateOrWithTheWrongArguments) {
    auto controller = std::make_shared<LMBroadcastActivityHostRemoteNSViewController>();
    platform::log::LogCapture capture;
    controller->performSelector(kSheet, {});
    controller->performSelector(kFinish, {QVariant(), QVariant(), QVariant(), 1});

    auto delegate = std::make_shared<RecordingDelegate>();
    controller->setDelegate(delegate);
    controller->performSelector(kFinish, {QVariant()});  // not of the interface: dropped
    controller->performSelector(kFinish, {QVariant(), QVariant(), QVariant(), 1});
    EXPECT_EQ(delegate->sheets, 0);
    ASSERT_EQ(delegate->finishes.size(), 1u);
    EXPECT_TRUE(delegate->finishes[0].extensionBundleID.isNull());
    EXPECT_TRUE(delegate->finishes[0].cancelled);
    EXPECT_TRUE(capture.records().empty());

    // The delegate is not owned.
    delegate.reset();
    EXPECT_EQ(controller->delegate(), nullptr);
    controller->presentBroadcastActivitySheet();
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
