// Performing a chosen activity: the hand-off to the service's setup UI.
//
// The steps run as a chain of completions: the extension request begins (main queue), the
// remote view comes back (main queue), the setup UI completes its request (the runtime's queue),
// the returned items load (the loader's queue), the daemon replies (the daemon connection's
// queue), and the outcome goes to the host from there. The request completion block and the
// request-begun path hold the controller strongly; the daemon reply holds it weakly, so a
// controller that went away in the meantime reports nothing.
#include <QUuid>

#include "daemon/LMDaemonProxy.h"
#include "logging/LMLog.h"
#include "picker/LMBroadcastActivityExtensionNSViewController.h"
#include "platform/appkit/NSRemoteViewController.h"
#include "platform/dispatch/dispatch.h"
#include "platform/log/os_log.h"

namespace {

constexpr const char* kPerformMethod =
    "-[LMBroadcastActivityExtensionNSViewController performActionWithStreamingActivity:]";
constexpr const char* kSetupBlockMethod =
    "-[LMBroadcastActivityExtensionNSViewController performActionWithStreamingActivity:]_block_"
    "invoke_2";
constexpr int kSetupBlockLine = 237;

const QString kServiceSuffixFormat = QStringLiteral("%1.veilnet");

using Controller = LMBroadcastActivityExtensionNSViewController;

// Whether the extension was built for Prism: its plug-in's platform number in the registry.
bool isBuiltForPrism(const NSExtensionPtr& extension) {
    const auto& plugIn = extension ? extension->_plugIn() : nullptr;
    return plugIn && plugIn->platform() == kExtensionPlatformPrism;
}

QString containingViewControllerClass(const NSExtensionPtr& extension) {
    const auto& plugIn = extension ? extension->_plugIn() : nullptr;
    const QVariantMap dictionary = plugIn ? plugIn->plugInDictionary() : extension->attributes();
    return dictionary.value(NSExtensionContainingViewControllerClassKey).toString();
}

// The parameters of the setup UI's remote view.
std::shared_ptr<NSRemoteViewControllerParameters> remoteViewParameters(
    const NSExtensionPtr& extension, const QUuid& requestIdentifier, const NSRect& pickerFrame) {
    auto parameters = std::make_shared<NSRemoteViewControllerParameters>();
    parameters->setServiceBundleIdentifier(kServiceSuffixFormat.arg(extension->identifier()));
    if (isBuiltForPrism(extension)) {
        parameters->setExtensionIdentifier(QVariant::fromValue(requestIdentifier));
    } else {
        parameters->setServiceViewControllerClassName(containingViewControllerClass(extension));
        parameters->setHostAppClientParameters(QVariantMap{
            {QStringLiteral("request-identifier"), QVariant::fromValue(requestIdentifier)},
            {QStringLiteral("isPrismApp"), QStringLiteral("NO")},
            {QStringLiteral("view-width"), pickerFrame.size.width},
            {QStringLiteral("view-height"), pickerFrame.size.height},
        });
    }
    return parameters;
}

// The remote view came back (main queue): embed it and ask the host for the sheet.
void embedRemoteView(const std::shared_ptr<Controller>& controller,
                     const std::shared_ptr<NSRemoteViewController>& remote) {
    if (!remote) {
        if (os_log_type_enabled(OS_LOG_DEFAULT, OS_LOG_TYPE_ERROR)) {
            os_log_error(OS_LOG_DEFAULT,
                         "LMBroadcastActivityExtensionNSViewController failed to instantiate "
                         "remote view controller");
        }
        return;
    }
    const std::shared_ptr<NSView> remoteView = remote->view();
    remoteView->setAutoresizingMask(NSViewWidthSizable | NSViewHeightSizable);
    remoteView->setTranslatesAutoresizingMaskIntoConstraints(true);
    const std::shared_ptr<NSView> pickerView =
        controller->isViewLoaded() ? controller->view() : nullptr;
    remoteView->setFrame(pickerView ? pickerView->bounds() : NSZeroRect);
    remote->setPreferredContentSize(remoteView->frame().size);
    controller->addChildViewController(remote);
    if (pickerView) {
        pickerView->addSubview(remoteView);
    }
    controller->presentBroadcastActivitySheet();
}

// The setup UI completed its request (the runtime's queue). `controller` is the one the request
// completion block holds, so the returned items always reach the daemon; only the report after
// the daemon's reply goes through the weak reference.
void setupCompleted(const std::shared_ptr<Controller>& controller,
                    const std::weak_ptr<Controller>& weakController,
                    const std::vector<NSExtensionItemPtr>& items) {
    if (items.empty()) {
        controller->extensionDidFinishWithLaunchURL(QUrl(), QUrl(), QString(), true);
        return;
    }
    controller->loadItems(
        items, [controller, weakController](const QString& extensionBundleID,
                                            const QByteArray& configuration,
                                            const QVariantMap& userInfo, const QUrl& serviceURL) {
            LM_LOG_INFO_AT(kSetupBlockMethod, kSetupBlockLine, "%p setupBroadcastWithHostBundleID",
                           static_cast<const void*>(controller.get()));
            LMDaemonProxy::daemonProxy()->setupBroadcastWithHostBundleID(
                controller->hostBundleID(), extensionBundleID, configuration, userInfo,
                [serviceURL, extensionBundleID, weakController](const NSErrorPtr& error) {
                    if (error && os_log_type_enabled(OS_LOG_DEFAULT, OS_LOG_TYPE_ERROR)) {
                        os_log_error(OS_LOG_DEFAULT, "Error setting up broadcast, error code: %i",
                                     static_cast<int32_t>(error->code()));
                    }
                    if (const auto reporter = weakController.lock()) {
                        reporter->extensionDidFinishWithLaunchURL(QUrl(), serviceURL,
                                                                  extensionBundleID, false);
                    }
                });
        });
}

}  // namespace

void LMBroadcastActivityExtensionNSViewController::performActionWithStreamingActivity(
    const std::shared_ptr<LMStreamingActivity>& activity) {
    NSLog("%s", kPerformMethod);
    const auto self = strongSelf();
    const NSExtensionPtr extension = activity ? activity->applicationExtension() : nullptr;
    if (!self || !extension) {
        return;  // no extension to ask: nothing happens
    }
    const std::weak_ptr<Controller> weakSelf = self;

    // The last activity performed owns the extension's completion. The block keeps the
    // controller alive for as long as the extension keeps the block.
    extension->setRequestCompletionBlock(
        [self, weakSelf](QUuid /*requestIdentifier*/, std::vector<NSExtensionItemPtr> items) {
            setupCompleted(self, weakSelf, items);
        });

    extension->beginExtensionRequestWithInputItems(
        {applicationInfoExtensionItem()},
        [activity, self](QUuid requestIdentifier, NSErrorPtr error) {
            dispatch_async(dispatch_get_main_queue(), [activity, self, requestIdentifier, error] {
                if (requestIdentifier.isNull()) {
                    if (os_log_type_enabled(OS_LOG_DEFAULT, OS_LOG_TYPE_ERROR)) {
                        os_log_error(OS_LOG_DEFAULT,
                                     "LMBroadcastActivityExtensionNSViewController failed to "
                                     "begin extension request with error: %i",
                                     static_cast<int32_t>(error ? error->code() : 0));
                    }
                    return;
                }
                const NSRect pickerFrame =
                    self->isViewLoaded() ? self->view()->frame() : NSZeroRect;
                const auto parameters = remoteViewParameters(activity->applicationExtension(),
                                                             requestIdentifier, pickerFrame);
                NSRemoteViewController::requestViewController(
                    parameters,
                    [self](std::shared_ptr<NSRemoteViewController> remote, NSErrorPtr /*error*/) {
                        dispatch_async(dispatch_get_main_queue(),
                                       [self, remote] { embedRemoteView(self, remote); });
                    });
            });
        });
}
