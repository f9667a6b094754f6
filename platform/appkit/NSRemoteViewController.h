// Remote views: a view controller whose view is drawn by a service view controller that runs in
// an extension's process.
//
// The host asks for one with the parameters below while an extension request of the service
// runs; the runtime asks the extension's process to make the service's controller and answers
// a remote view controller bound to it. Under X11 the service's view is a top-level window of
// its own process that the remote view embeds (a window container that fills the remote view's
// bounds and follows them). Without X11 the remote view is a placeholder of the service view's
// size: on Wayland the service shows its view in a window of its own process (see
// NSExtensionMain) and the placeholder says so; without a display it runs on its own (an
// automated setup, for instance).
//
// On Wayland the request also carries the handle (xdg-foreign) of the window this process's
// views are shown in, when there is one, so that the service's window becomes its child: the
// client parameters travel inside a dictionary that holds the handle as well (see
// withParentWindowHandle), and the service's process takes them apart before its controller
// sees them. On X11 the request is unchanged.
//
// Each remote view has a link of its own to the service's process: the remote view controller
// exports `exportedInterface()` with itself as the object (messages arrive in performSelector, on
// the link's queue), and reaches the service's controller through serviceViewControllerProxy().
#pragma once

#include <QString>
#include <QUuid>
#include <QVariant>
#include <functional>
#include <memory>

#include "platform/appkit/NSViewController.h"
#include "platform/foundation/NSError.h"
#include "platform/xpc/NSInvocation.h"
#include "platform/xpc/NSXPCConnection.h"

class QWidget;
class QWindow;

class NSRemoteViewControllerParameters {
public:
    // The service's identifier: the extension's identifier with ".veilnet" appended.
    const QString& serviceBundleIdentifier() const { return serviceBundleIdentifier_; }
    void setServiceBundleIdentifier(const QString& id) { serviceBundleIdentifier_ = id; }
    // The request the view belongs to (as a UUID or its string); empty: the newest one.
    const QVariant& extensionIdentifier() const { return extensionIdentifier_; }
    void setExtensionIdentifier(const QVariant& id) { extensionIdentifier_ = id; }
    // The class of the service's controller; empty: the extension's principal class.
    const QString& serviceViewControllerClassName() const { return className_; }
    void setServiceViewControllerClassName(const QString& name) { className_ = name; }
    // Handed to the service's controller as its hostAppClientParameters (UUIDs in it travel as
    // their strings). A dictionary's "request-identifier" also chooses the request when
    // extensionIdentifier is empty.
    const QVariant& hostAppClientParameters() const { return clientParameters_; }
    void setHostAppClientParameters(const QVariant& parameters) { clientParameters_ = parameters; }

private:
    QString serviceBundleIdentifier_;
    QVariant extensionIdentifier_;
    QString className_;
    QVariant clientParameters_;
};

class NSRemoteViewController : public NSViewController, public NSXPCInvocationTarget {
public:
    using ConnectionHandler =
        std::function<void(std::shared_ptr<NSRemoteViewController> controller, NSErrorPtr error)>;
    using Factory = std::function<std::shared_ptr<NSRemoteViewController>()>;

    NSRemoteViewController();
    ~NSRemoteViewController() override;

    // requestViewController:connectionHandler: — a remote view controller (of this base class)
    // for the parameters. The handler runs once, on the main queue: a controller, or an error.
    static void requestViewController(
        const std::shared_ptr<NSRemoteViewControllerParameters>& parameters,
        ConnectionHandler connectionHandler);
    // requestViewController:fromServiceWithBundleIdentifier:connectionHandler: — the same with a
    // class name and a service identifier; `factory` makes the controller (the class the message
    // is sent to; the base class when empty).
    static void requestViewController(const QString& serviceViewControllerClassName,
                                      const QString& serviceBundleIdentifier,
                                      ConnectionHandler connectionHandler, Factory factory = {});
    template <class C>
    static void requestViewControllerOfClass(const QString& className, const QString& service,
                                             ConnectionHandler handler) {
        requestViewController(className, service, std::move(handler),
                              [] { return std::make_shared<C>(); });
    }

    // The interface of the service's controller (what serviceViewControllerProxy answers), and
    // the interface this controller exports to it. None by default.
    virtual std::shared_ptr<NSXPCInterface> serviceViewControllerInterface() const;
    virtual std::shared_ptr<NSXPCInterface> exportedInterface() const;
    std::shared_ptr<NSXPCRemoteObjectProxy> serviceViewControllerProxy();

    // Messages from the service's controller; the default ignores them.
    void performSelector(const QString& selector, const QVariantList& arguments) override;

    // A view of the service view's size, with the service's window embedded under X11, or a
    // line saying that it is open in a window of its own on Wayland.
    void loadView() override;

    // The window this process's remote views are shown in where nothing can be embedded
    // (Wayland): asked for every request made on the main thread, its handle travels with it.
    // The process's entry sets it (NSExtensionMain); none by default, and none is asked on X11.
    static void setHostWindowSource(std::function<QWindow*()> source);

    const QString& serviceBundleIdentifier() const { return serviceBundleIdentifier_; }
    // The service view's window under X11 (0: none, the view is a placeholder).
    qint64 remoteWindowId() const { return windowId_; }
    NSSize remoteViewSize() const { return remoteSize_; }
    // The window container inside the view, when the service's window is embedded.
    QWidget* remoteWindowContainer() const;

private:
    struct Private;
    std::unique_ptr<Private> d_;
    QString serviceBundleIdentifier_;
    qint64 windowId_ = 0;
    NSSize remoteSize_;
    std::shared_ptr<NSXPCConnection> connection_;

    static QVariant withHostWindow(const QVariant& clientParameters);
    static void request(const QString& serviceBundleIdentifier, const QUuid& requestIdentifier,
                        const QString& className, const QVariant& clientParameters,
                        ConnectionHandler handler, Factory factory);
};

namespace platform::appkit {

// The client parameters of a remote-view request together with the handle of the requesting
// process's window, and the two taken apart again (parameters without a handle come back
// unchanged, with an empty handle).
QVariant withParentWindowHandle(const QVariant& clientParameters, const QString& handle);
QVariant takeParentWindowHandle(const QVariant& sent, QString* handle);

// The name a service's windows and remote views are titled with: the extension's display name
// (CFBundleDisplayName), else its bundle name, else its identifier.
QString extensionDisplayName(const QString& extensionIdentifier);

}  // namespace platform::appkit
