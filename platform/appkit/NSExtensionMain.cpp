#include "platform/appkit/NSExtensionMain.h"

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <QApplication>
#include <QPointer>
#include <QResizeEvent>
#include <QWidget>
#include <QWindow>
#include <cstdio>
#include <cstring>
#include <vector>

#include "platform/appkit/NSDisplaySession.h"
#include "platform/appkit/NSForeignWindow.h"
#include "platform/appkit/NSRemoteViewController.h"
#include "platform/appkit/NSStoryboard.h"
#include "platform/appkit/NSViewController.h"
#include "platform/dispatch/dispatch.h"
#include "platform/extension/NSExtensionContext.h"
#include "platform/extension/NSExtensionRequest.h"
#include "platform/log/os_log.h"
#include "platform/xpc/NSXPCConnection.h"

namespace {

using platform::extension::RemoteViewAnswer;
using platform::extension::RemoteViewReply;

// Accepts the one peer of a remote view's listener: the host's remote view controller.
class RemoteViewDelegate : public NSXPCListenerDelegate {
public:
    explicit RemoteViewDelegate(std::shared_ptr<NSViewController> controller)
        : controller_(std::move(controller)) {}
    bool listener(NSXPCListener*, const std::shared_ptr<NSXPCConnection>& connection) override {
        if (taken_.exchange(true)) {
            return false;
        }
        auto service = std::dynamic_pointer_cast<NSServiceViewController>(controller_);
        auto object = std::dynamic_pointer_cast<NSXPCInvocationTarget>(controller_);
        if (service && service->exportedInterface() && object) {
            connection->setExportedInterface(service->exportedInterface());
            connection->setExportedObject(object);
        }
        return true;
    }

private:
    std::shared_ptr<NSViewController> controller_;
    std::atomic<bool> taken_{false};
};

// Keeps a view at the size of its own window, which the compositor (a tiling one, say) or the user
// may change; the view's autoresizing and constraints then place what it holds.
class FollowWindowSize : public QObject {
public:
    FollowWindowSize(QWidget* window, std::weak_ptr<NSView> view)
        : QObject(window), view_(std::move(view)) {
        window->installEventFilter(this);
    }
    bool eventFilter(QObject*, QEvent* event) override {
        const auto view = event->type() == QEvent::Resize ? view_.lock() : nullptr;
        const QSize size = view ? static_cast<QResizeEvent*>(event)->size() : QSize();
        if (view &&
            size != QSize(NSPixel(view->frame().size.width), NSPixel(view->frame().size.height))) {
            view->setFrameSize(NSMakeSize(size.width(), size.height()));
        }
        return false;
    }

private:
    std::weak_ptr<NSView> view_;
};

struct ServedView {
    std::shared_ptr<NSViewController> controller;
    std::shared_ptr<RemoteViewDelegate> delegate;
    std::unique_ptr<NSXPCListener> listener;
};

struct Extension {
    platform::extension::Launch launch;
    std::vector<QPointer<QWidget>> ownWindows;

    // Where no window of another process can be embedded (Wayland), the view is a window of this
    // process: of the remote view's size, titled with the extension's name, and the child of the
    // host's window when the request brought that window's handle (xdg-foreign). Otherwise the
    // compositor places it. Shown once: the window of the principal's view may already be up
    // (hostWindow).
    void showOwnWindow(const std::shared_ptr<NSView>& view, const QString& hostWindowHandle) {
        QWidget* widget = view->widget();
        for (const QPointer<QWidget>& window : ownWindows) {
            if (window == widget) {
                return;
            }
        }
        const NSSize size = view->frame().size;
        widget->resize(qMax(1, NSPixel(size.width)), qMax(1, NSPixel(size.height)));
        new FollowWindowSize(widget, view);
        widget->setWindowTitle(platform::appkit::extensionDisplayName(launch.extensionIdentifier));
        widget->show();
        ownWindows.emplace_back(widget);
        QString why = platform::appkit::foreignWindowsOffered()
                          ? QStringLiteral("no handle of the host's window reaches this process")
                          : QStringLiteral("the compositor offers no xdg-foreign");
        if (!hostWindowHandle.isEmpty() &&
            platform::appkit::setForeignParent(widget->windowHandle(), hostWindowHandle, &why)) {
            os_log(OS_LOG_DEFAULT,
                   "NSExtensionMain: the window \"%{public}s\" is transient for the host's window",
                   qPrintable(widget->windowTitle()));
            return;
        }
        os_log(OS_LOG_DEFAULT,
               "NSExtensionMain: %{public}s; the window \"%{public}s\" is placed by the compositor",
               qPrintable(why), qPrintable(widget->windowTitle()));
    }

    // The window that remote views of this process are shown in (Wayland): the principal's, shown
    // now if the host has not asked for it yet, so that their windows can be its children. None
    // where the compositor could not name it to other processes.
    QWindow* hostWindow() {
        if (!principal || !principal->isViewLoaded() ||
            !platform::appkit::foreignWindowsOffered()) {
            return nullptr;
        }
        const std::shared_ptr<NSView> view = principal->view();
        if (QWidget* widget = view->widget()) {
            showOwnWindow(view, {});
            return widget->windowHandle();
        }
        return nullptr;
    }

    // The request ended: its windows go with it.
    void closeOwnWindows() {
        for (const QPointer<QWidget>& window : ownWindows) {
            if (window) {
                window->close();
            }
        }
        ownWindows.clear();
    }

    std::shared_ptr<NSExtensionContext> context;
    std::shared_ptr<NSViewController> principal;
    std::vector<ServedView> views;

    std::shared_ptr<NSViewController> controllerFor(const QString& className) {
        if (className.isEmpty() || (principal && className == launch.principalClass)) {
            return principal;
        }
        auto controller = NSStoryboard::makeViewController(className);
        if (controller) {
            controller->beginRequestWithExtensionContext(context);
        }
        return controller;
    }

    void serveRemoteView(const QString& className, const QVariant& clientParameters,
                         const RemoteViewReply& reply) {
        RemoteViewAnswer answer;
        std::shared_ptr<NSViewController> controller = controllerFor(className);
        if (!controller) {
            os_log_error(OS_LOG_DEFAULT, "NSExtensionMain: no view controller of class %{public}s",
                         qPrintable(className.isEmpty() ? launch.principalClass : className));
            answer.error = NSError::errorWithDomain(NSExtensionRequestErrorDomain,
                                                    NSExtensionRequestNoViewControllerError);
            reply(answer);
            return;
        }
        QString hostWindowHandle;
        const QVariant parameters =
            platform::appkit::takeParentWindowHandle(clientParameters, &hostWindowHandle);
        if (auto service = std::dynamic_pointer_cast<NSServiceViewController>(controller)) {
            service->setHostAppClientParameters(parameters);
        }
        std::shared_ptr<NSView> view = controller->view();
        answer.size = QSizeF(view->frame().size.width, view->frame().size.height);
        if (QWidget* widget = view->widget();
            widget && QGuiApplication::platformName() == QLatin1String("xcb")) {
            widget->show();  // a top-level window that the host embeds
            answer.windowId = qint64(widget->winId());
        } else if (widget && QGuiApplication::platformName().startsWith(QLatin1String("wayland"))) {
            showOwnWindow(view, hostWindowHandle);
        }
        ServedView served;
        served.controller = controller;
        served.delegate = std::make_shared<RemoteViewDelegate>(controller);
        served.listener = NSXPCListener::anonymousListener();
        served.listener->setDelegate(served.delegate);
        if (served.listener->resume()) {
            answer.endpoint = served.listener->endpoint();
        }
        views.push_back(std::move(served));
        reply(answer);
        std::weak_ptr<NSViewController> shown = controller;
        dispatch_async(dispatch_get_main_queue(), [shown] {
            if (auto c = shown.lock()) {
                c->viewDidAppear();
            }
        });
    }
};

}  // namespace

const char* NSExtensionMainUsage() {
    return "This program is an extension: the extension runtime starts it, one process per\n"
           "request, and hands it the request through its environment (LUMARO_EXTENSION_*).\n"
           "It is not meant to be run by hand.\n";
}

int NSExtensionMain(int argc, char** argv) {
    // The host's end: the process goes with the host that started it.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    const pid_t parent = getppid();

    QString reason;
    const std::optional<platform::extension::Launch> launch =
        platform::extension::launchFromEnvironment(&reason);
    if (!launch) {
        std::fprintf(stderr, "%s: %s\n%s", argc > 0 ? argv[0] : "extension", qPrintable(reason),
                     NSExtensionMainUsage());
        return 64;
    }
    if (parent == 1) {
        return 1;  // the host is already gone
    }
    // Without a display the views are drawn off screen. A display that cannot be reached ends
    // the request (below) instead of the process inside Qt.
    const platform::appkit::DisplayChoice display = platform::appkit::chooseDisplaySession();
    const bool displayLost = !display.error.isEmpty();
    if (displayLost) {
        const char* slash = argc > 0 ? std::strrchr(argv[0], '/') : nullptr;
        std::fprintf(stderr, "%s: %s; the request ends\n",
                     slash != nullptr ? slash + 1 : (argc > 0 ? argv[0] : "extension"),
                     qPrintable(display.error));
        qputenv("QT_QPA_PLATFORM", "offscreen");
    } else {
        platform::appkit::applyDisplayChoice(display);
    }
    QApplication app(argc, argv);
    app.setQuitOnLastWindowClosed(false);
    platform::extension::useBuildTreeExtensions();

    auto extension = std::make_shared<Extension>();
    extension->launch = *launch;
    int status = 0;
    std::weak_ptr<Extension> weak = extension;
    auto process = platform::extension::ExtensionProcess::start(
        *launch,
        [weak](const QString& className, const QVariant& parameters, RemoteViewReply reply) {
            if (auto self = weak.lock()) {
                self->serveRemoteView(className, parameters, reply);
            }
        },
        [weak, &status, displayLost](std::shared_ptr<NSExtensionContext> context, QString why) {
            auto self = weak.lock();
            if (!self) {
                return;
            }
            if (!context) {
                os_log_error(OS_LOG_DEFAULT, "NSExtensionMain: the request cannot run: %{public}s",
                             qPrintable(why));
                status = 1;
                return;
            }
            if (displayLost) {
                context->cancelRequestWithError(NSError::errorWithDomain(
                    NSExtensionRequestErrorDomain, NSExtensionRequestCannotStartError));
                status = 1;
                return;
            }
            self->context = context;
            self->principal = NSStoryboard::makeViewController(self->launch.principalClass);
            if (!self->principal) {
                os_log_error(OS_LOG_DEFAULT,
                             "NSExtensionMain: the principal class %{public}s is not registered",
                             qPrintable(self->launch.principalClass));
                context->cancelRequestWithError(NSError::errorWithDomain(
                    NSExtensionRequestErrorDomain, NSExtensionRequestNoViewControllerError));
                status = 1;
                return;
            }
            self->principal->beginRequestWithExtensionContext(context);
            NSRemoteViewController::setHostWindowSource([weak] {
                auto extension = weak.lock();
                return extension ? extension->hostWindow() : nullptr;
            });
            // A request without input items is a host showing the view with view-service
            // parameters: the view loads when that host asks for it, parameters first.
            if (context->inputItems().empty()) {
                return;
            }
            std::weak_ptr<NSViewController> principal = self->principal;
            dispatch_async(dispatch_get_main_queue(), [principal] {
                if (auto controller = principal.lock()) {
                    controller->loadViewIfNeeded();
                }
            });
        },
        [weak] {
            if (auto self = weak.lock()) {
                self->closeOwnWindows();
            }
            QCoreApplication::exit(0);
        });
    const int code = app.exec();
    // The request's context (and its connections) goes while the application is still there:
    // a connection's thread is ended through the event loop.
    if (extension->context) {
        _NSExtensionContextVendor::_sharedExtensionContextVendor()->_removeExtensionContext(
            extension->context->_UUID());
    }
    extension.reset();
    process.reset();
    return status != 0 ? status : code;
}
