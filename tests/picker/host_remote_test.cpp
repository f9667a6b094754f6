// The setup-UI host controller and the host-side context: relays with no delegate or the wrong
// arguments, messages kept until a host view controller is bound, and the factory without an
// extension. The factory's request, begun or failing, is the end-to-end roads'.
#include <gtest/gtest.h>

#include "picker/LMBroadcastActivityHostRemoteNSViewController.h"
#include "picker/LMBroadcastActivityViewServiceExtensionHostContext.h"
#include "platform/dispatch/dispatch.h"
#include "platform/log/os_log.h"

namespace {

const QString kSheet = QStringLiteral("presentBroadcastActivitySheet");
const QString kFinish =
    QStringLiteral("extensionDidFinishWithLaunchURL:broadcastURL:extensionBundleID:cancelled:");

class RecordingDelegate : public LMBroadcastActivityHostRemoteNSViewControllerDelegate {
public:
    struct Finish {
        QString extensionBundleID;
        bool cancelled;
    };
    void presentBroadcastActivitySheet() override { ++sheets; }
    void extensionDidFinishWithLaunchURL(const QUrl&, const QUrl&, const QString& extensionBundleID,
                                         bool cancelled) override {
        finishes.push_back({extensionBundleID, cancelled});
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
}

// No extension, no request: nothing answers, and no error is made up.
TEST(HostRemoteFactoryTest, NoExtensionGetsNoAnswer) {
    int calls = 0;
    LMBroadcastActivityHostRemoteNSViewController::instantiateViewControllerWithExtension(
        nullptr, {}, [&calls](QUuid, auto, NSErrorPtr) { ++calls; });
    platform::dispatch::runMainLoopUntil([] { return false; }, 50);
    EXPECT_EQ(calls, 0);
}

}  // namespace
