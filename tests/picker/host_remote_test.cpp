// The host-side context keeps messages until a host view controller is bound. The relays with
// their values and the setup-UI host controller's factory are the end-to-end roads'; calls whose
// arguments do not match the interface never pass the link (the connection refuses them).
#include <gtest/gtest.h>

#include "picker/LMBroadcastActivityHostRemoteNSViewController.h"
#include "picker/LMBroadcastActivityViewServiceExtensionHostContext.h"

namespace {

const QString kSheet = QStringLiteral("presentBroadcastActivitySheet");
const QString kFinish =
    QStringLiteral("extensionDidFinishWithLaunchURL:broadcastURL:extensionBundleID:cancelled:");

class RecordingDelegate : public LMBroadcastActivityHostRemoteNSViewControllerDelegate {
public:
    void presentBroadcastActivitySheet() override { calls << "sheet"; }
    void extensionDidFinishWithLaunchURL(const QUrl&, const QUrl&, const QString&,
                                         bool cancelled) override {
        calls << (cancelled ? "cancelled" : "finished");
    }
    QStringList calls;
};

TEST(HostContextTest, MessagesWaitForTheHostViewControllerAndArriveInOrder) {
    auto context = std::make_shared<LMBroadcastActivityViewServiceExtensionHostContext>();
    context->performSelector(kSheet, {});
    context->performSelector(kFinish, {QVariant(), QVariant(), QVariant(), 1});

    auto controller = std::make_shared<LMBroadcastActivityHostRemoteNSViewController>();
    auto delegate = std::make_shared<RecordingDelegate>();
    controller->setDelegate(delegate);
    context->setHostViewController(controller);
    EXPECT_EQ(context->hostViewController(), controller);
    EXPECT_EQ(delegate->calls, (QStringList{"sheet", "cancelled"}));
    context->performSelector(kSheet, {});

    // Held weakly: once the controller is gone, messages go nowhere.
    controller.reset();
    EXPECT_EQ(context->hostViewController(), nullptr);
    context->performSelector(kSheet, {});
    EXPECT_EQ(delegate->calls, (QStringList{"sheet", "cancelled", "sheet"}));
}

}  // namespace
