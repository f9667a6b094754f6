#include "picker/LMBroadcastActivityHostRemoteNSViewController.h"

#include "platform/dispatch/dispatch.h"
#include "platform/extension/NSExtensionRequest.h"
#include "service/LMBroadcastActivityViewServiceProtocols.h"

namespace {

using Controller = LMBroadcastActivityHostRemoteNSViewController;

const QString kServiceSuffixFormat = QStringLiteral("%1.veilnet");

QString containingViewControllerClass(const NSExtensionPtr& extension) {
    const auto& plugIn = extension->_plugIn();
    const QVariantMap dictionary = plugIn ? plugIn->plugInDictionary() : extension->attributes();
    return dictionary.value(NSExtensionContainingViewControllerClassKey).toString();
}

// Absent objects arrive as invalid values and stay absent.
QUrl urlArgument(const QVariant& value) {
    return value.isValid() ? value.toUrl() : QUrl();
}
QString stringArgument(const QVariant& value) {
    return value.isValid() ? value.toString() : QString();
}

}  // namespace

void LMBroadcastActivityHostRemoteNSViewController::instantiateViewControllerWithExtension(
    const NSExtensionPtr& extension, std::vector<NSExtensionItemPtr> inputItems,
    ConnectionHandler connectionHandler) {
    const auto handler = [connectionHandler](QUuid identifier, std::shared_ptr<Controller> c,
                                             NSErrorPtr error) {
        if (connectionHandler) {
            connectionHandler(identifier, std::move(c), std::move(error));
        }
    };
    if (!extension) {
        return;  // no extension, no request: the handler is never called
    }
    // The request's host-side context is a host context, so that it can be bound below.
    extension->_setHostContextClass(
        LMBroadcastActivityViewServiceExtensionHostContext::contextClass());
    extension->beginExtensionRequestWithInputItems(
        inputItems, [extension, inputItems, handler](QUuid identifier, NSErrorPtr error) {
            dispatch_async(dispatch_get_main_queue(), [extension, inputItems, handler, identifier,
                                                       error] {
                if (identifier.isNull()) {
                    // One more turn, on purpose: the handler always runs after the decision.
                    dispatch_async(dispatch_get_main_queue(),
                                   [handler, error] { handler({}, nullptr, error); });
                    return;
                }
                const QString service = kServiceSuffixFormat.arg(extension->identifier());
                NSRemoteViewController::requestViewControllerOfClass<Controller>(
                    containingViewControllerClass(extension), service,
                    [extension, inputItems, handler, identifier](
                        std::shared_ptr<NSRemoteViewController> made, NSErrorPtr connectionError) {
                        dispatch_async(
                            dispatch_get_main_queue(),
                            [extension, inputItems, handler, identifier, made, connectionError] {
                                auto controller = std::dynamic_pointer_cast<Controller>(made);
                                if (!controller) {
                                    handler({}, nullptr, connectionError);
                                    return;
                                }
                                controller->setExtension(extension);
                                controller->setInputItems(inputItems);
                                auto context = std::dynamic_pointer_cast<
                                    LMBroadcastActivityViewServiceExtensionHostContext>(
                                    extension->_extensionContextForUUID(identifier));
                                controller->setHostContext(context);
                                if (context) {
                                    context->setHostViewController(controller);
                                }
                                handler(identifier, controller, nullptr);
                            });
                    });
            });
        });
}

// --- Properties.

std::shared_ptr<LMBroadcastActivityHostRemoteNSViewControllerDelegate>
LMBroadcastActivityHostRemoteNSViewController::delegate() const {
    const std::lock_guard lock(mutex_);
    return delegate_.lock();
}
void LMBroadcastActivityHostRemoteNSViewController::setDelegate(
    const std::shared_ptr<LMBroadcastActivityHostRemoteNSViewControllerDelegate>& delegate) {
    const std::lock_guard lock(mutex_);
    delegate_ = delegate;
}
NSExtensionPtr LMBroadcastActivityHostRemoteNSViewController::extension() const {
    const std::lock_guard lock(mutex_);
    return extension_;
}
void LMBroadcastActivityHostRemoteNSViewController::setExtension(NSExtensionPtr extension) {
    const std::lock_guard lock(mutex_);
    extension_ = std::move(extension);
}
std::vector<NSExtensionItemPtr> LMBroadcastActivityHostRemoteNSViewController::inputItems() const {
    const std::lock_guard lock(mutex_);
    return inputItems_;
}
void LMBroadcastActivityHostRemoteNSViewController::setInputItems(
    std::vector<NSExtensionItemPtr> inputItems) {
    const std::lock_guard lock(mutex_);
    inputItems_ = std::move(inputItems);
}
std::shared_ptr<LMBroadcastActivityViewServiceExtensionHostContext>
LMBroadcastActivityHostRemoteNSViewController::hostContext() const {
    const std::lock_guard lock(mutex_);
    return hostContext_;
}
void LMBroadcastActivityHostRemoteNSViewController::setHostContext(
    std::shared_ptr<LMBroadcastActivityViewServiceExtensionHostContext> context) {
    const std::lock_guard lock(mutex_);
    hostContext_ = std::move(context);
}

// --- The view service.

std::shared_ptr<NSXPCInterface>
LMBroadcastActivityHostRemoteNSViewController::serviceViewControllerInterface() const {
    return BroadcastActivityViewServiceExtension::
        __LMBroadcastActivity_viewServiceExtensionInterface();
}

std::shared_ptr<NSXPCInterface> LMBroadcastActivityHostRemoteNSViewController::exportedInterface()
    const {
    return BroadcastActivityViewServiceExtension::__LMBroadcastActivity_viewServiceHostInterface();
}

void LMBroadcastActivityHostRemoteNSViewController::loadView() {
    // The base class makes the new view and lets the platform draw the service's view into it
    // (an embedded window under X11, an empty placeholder otherwise).
    NSRemoteViewController::loadView();
}

void LMBroadcastActivityHostRemoteNSViewController::viewDidLoad() {
    NSRemoteViewController::viewDidLoad();
}

void LMBroadcastActivityHostRemoteNSViewController::presentBroadcastActivitySheet() {
    if (const auto target = delegate()) {
        target->presentBroadcastActivitySheet();
    }
}

void LMBroadcastActivityHostRemoteNSViewController::extensionDidFinishWithLaunchURL(
    const QUrl& launchURL, const QUrl& broadcastURL, const QString& extensionBundleID,
    bool cancelled) {
    if (const auto target = delegate()) {
        target->extensionDidFinishWithLaunchURL(launchURL, broadcastURL, extensionBundleID,
                                                cancelled);
    }
}

void LMBroadcastActivityHostRemoteNSViewController::performSelector(const QString& selector,
                                                                    const QVariantList& arguments) {
    if (selector == QLatin1String(kLMPresentBroadcastActivitySheetSelector.data(),
                                  kLMPresentBroadcastActivitySheetSelector.size())) {
        presentBroadcastActivitySheet();
    } else if (selector == QLatin1String(kLMExtensionDidFinishSelector.data(),
                                         kLMExtensionDidFinishSelector.size()) &&
               arguments.size() == 4) {
        extensionDidFinishWithLaunchURL(urlArgument(arguments[0]), urlArgument(arguments[1]),
                                        stringArgument(arguments[2]), arguments[3].toInt() != 0);
    }
    // Anything else is not part of the interface and is dropped.
}
