// A broadcast service's setup UI shown inside this process's window: a remote view controller
// bound to the extension request that runs the setup UI, relaying the two host messages that
// the remote side sends back (present the sheet, finish with a result) to its delegate.
//
// Selector to member:
//   +instantiateViewControllerWithExtension:inputItems:connectionHandler:
//                                                   instantiateViewControllerWithExtension
//   -extensionDidFinishWithLaunchURL:broadcastURL:extensionBundleID:cancelled:
//                                                   extensionDidFinishWithLaunchURL
//
// The messages arrive on the remote view's link (the controller exports the host interface
// there) and, through the host context, on the request's auxiliary connection; either way they
// reach the delegate on the queue they were delivered on, with no hop.
#pragma once

#include <QString>
#include <QUrl>
#include <QUuid>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "picker/LMBroadcastActivityViewServiceExtensionHostContext.h"
#include "platform/appkit/NSRemoteViewController.h"
#include "platform/extension/NSExtension.h"
#include "platform/extension/NSExtensionItem.h"

// LMBroadcastActivityHostRemoteNSViewControllerDelegate: the two host messages.
class LMBroadcastActivityHostRemoteNSViewControllerDelegate {
public:
    virtual ~LMBroadcastActivityHostRemoteNSViewControllerDelegate() = default;
    virtual void presentBroadcastActivitySheet() = 0;
    virtual void extensionDidFinishWithLaunchURL(const QUrl& launchURL, const QUrl& broadcastURL,
                                                 const QString& extensionBundleID,
                                                 bool cancelled) = 0;
};

class LMBroadcastActivityHostRemoteNSViewController : public NSRemoteViewController {
public:
    using ConnectionHandler = std::function<void(
        QUuid requestIdentifier,
        std::shared_ptr<LMBroadcastActivityHostRemoteNSViewController> controller,
        NSErrorPtr error)>;

    // Begins a request of `extension` with `inputItems` and asks for a remote view controller
    // of this class for it. The handler runs once, on the main queue: the request identifier
    // and a bound controller, or neither and the error. Callable from any queue.
    static void instantiateViewControllerWithExtension(const NSExtensionPtr& extension,
                                                       std::vector<NSExtensionItemPtr> inputItems,
                                                       ConnectionHandler connectionHandler);

    // --- Properties.
    std::shared_ptr<LMBroadcastActivityHostRemoteNSViewControllerDelegate> delegate() const;
    void setDelegate(
        const std::shared_ptr<LMBroadcastActivityHostRemoteNSViewControllerDelegate>& delegate);
    NSExtensionPtr extension() const;
    void setExtension(NSExtensionPtr extension);
    std::vector<NSExtensionItemPtr> inputItems() const;
    void setInputItems(std::vector<NSExtensionItemPtr> inputItems);
    std::shared_ptr<LMBroadcastActivityViewServiceExtensionHostContext> hostContext() const;
    void setHostContext(
        std::shared_ptr<LMBroadcastActivityViewServiceExtensionHostContext> context);

    // The extension-side interface of the view service, and the host interface this controller
    // exports on the remote view's link.
    std::shared_ptr<NSXPCInterface> serviceViewControllerInterface() const override;
    std::shared_ptr<NSXPCInterface> exportedInterface() const override;

    // A new, empty view; the remote view is drawn into it by the platform.
    void loadView() override;
    void viewDidLoad() override;

    // The relays: the same message to the delegate, arguments unchanged; nothing without one.
    void presentBroadcastActivitySheet();
    void extensionDidFinishWithLaunchURL(const QUrl& launchURL, const QUrl& broadcastURL,
                                         const QString& extensionBundleID, bool cancelled);

    // Host messages from the remote side, by selector; others are ignored with an error line.
    void performSelector(const QString& selector, const QVariantList& arguments) override;

private:
    mutable std::mutex mutex_;  // guards the properties
    std::weak_ptr<LMBroadcastActivityHostRemoteNSViewControllerDelegate> delegate_;
    NSExtensionPtr extension_;
    std::vector<NSExtensionItemPtr> inputItems_;
    std::shared_ptr<LMBroadcastActivityViewServiceExtensionHostContext> hostContext_;
};
