#include "platform/appkit/NSRemoteViewController.h"

#include <QEvent>
#include <QGuiApplication>
#include <QLabel>
#include <QPointer>
#include <QThread>
#include <QWidget>
#include <QWindow>

#include "platform/appkit/NSDisplaySession.h"
#include "platform/appkit/NSForeignWindow.h"
#include "platform/dispatch/dispatch.h"
#include "platform/extension/NSExtension.h"
#include "platform/extension/NSExtensionRequest.h"
#include "platform/log/os_log.h"

namespace {

const QString kServiceSuffix = QStringLiteral(".veilnet");
const QString kParentWindowHandleKey = QStringLiteral("NSRemoteViewParentWindowHandle");
const QString kClientParametersKey = QStringLiteral("NSRemoteViewClientParameters");

std::function<QWindow*()>& hostWindowSource() {
    static std::function<QWindow*()> source;
    return source;
}

bool onWayland() {
    return platform::appkit::currentPlatformName().startsWith(QLatin1String("wayland"));
}

// Keeps a child (the window container, or the placeholder's line) at the size of the view's
// widget.
class FollowBounds : public QObject {
public:
    FollowBounds(QWidget* host, QWidget* container) : QObject(host), container_(container) {}
    bool eventFilter(QObject* watched, QEvent* event) override {
        if (event->type() == QEvent::Resize && container_) {
            container_->setGeometry(static_cast<QWidget*>(watched)->rect());
        }
        return false;
    }

private:
    QPointer<QWidget> container_;
};

// The remote view's exported object: messages go to the controller while it lives.
class Relay : public NSXPCInvocationTarget {
public:
    explicit Relay(std::weak_ptr<NSViewController> controller)
        : controller_(std::move(controller)) {}
    void performSelector(const QString& selector, const QVariantList& arguments) override {
        auto controller = std::dynamic_pointer_cast<NSRemoteViewController>(controller_.lock());
        if (controller) {
            controller->performSelector(selector, arguments);
        }
    }

private:
    std::weak_ptr<NSViewController> controller_;
};

// Identifiers travel as their strings.
QVariant sendable(const QVariant& value) {
    if (value.typeId() == QMetaType::QUuid) {
        return value.toUuid().toString();
    }
    if (value.typeId() == QMetaType::QVariantMap) {
        QVariantMap map = value.toMap();
        for (auto it = map.begin(); it != map.end(); ++it) {
            it.value() = sendable(it.value());
        }
        return map;
    }
    return value;
}

QUuid uuidOf(const QVariant& value) {
    if (value.typeId() == QMetaType::QUuid) {
        return value.toUuid();
    }
    return QUuid(value.toString());
}

}  // namespace

struct NSRemoteViewController::Private {
    QPointer<QWidget> container;
};

NSRemoteViewController::NSRemoteViewController() : d_(std::make_unique<Private>()) {}

NSRemoteViewController::~NSRemoteViewController() {
    if (connection_) {
        connection_->invalidate();
    }
}

std::shared_ptr<NSXPCInterface> NSRemoteViewController::serviceViewControllerInterface() const {
    return nullptr;
}

std::shared_ptr<NSXPCInterface> NSRemoteViewController::exportedInterface() const {
    return nullptr;
}

std::shared_ptr<NSXPCRemoteObjectProxy> NSRemoteViewController::serviceViewControllerProxy() {
    return connection_ ? connection_->remoteObjectProxy() : nullptr;
}

void NSRemoteViewController::performSelector(const QString&, const QVariantList&) {}

QWidget* NSRemoteViewController::remoteWindowContainer() const {
    return d_->container.data();
}

void NSRemoteViewController::loadView() {
    auto view = NSView::initWithFrame(NSMakeRect(0, 0, remoteSize_.width, remoteSize_.height));
    setView(view);
    QWidget* host = view->widget();
    if (host != nullptr && windowId_ == 0 && onWayland()) {
        // The service's view is in a window of the service's process: say so where it would be.
        auto* line = new QLabel(
            QStringLiteral("%1 is open in its own window.")
                .arg(platform::appkit::extensionDisplayName(serviceBundleIdentifier_.chopped(
                    qMin(serviceBundleIdentifier_.size(), kServiceSuffix.size())))),
            host);
        // At the top: a compositor may put the service's window over the middle of this one.
        line->setAlignment(Qt::AlignHCenter | Qt::AlignTop);
        line->setContentsMargins(12, 24, 12, 12);
        line->setWordWrap(true);
        line->setGeometry(host->rect());
        line->show();
        host->installEventFilter(new FollowBounds(host, line));
        return;
    }
    if (windowId_ == 0 || host == nullptr || QGuiApplication::platformName() != "xcb") {
        return;  // a placeholder of the service view's size
    }
    QWindow* window = QWindow::fromWinId(WId(windowId_));
    if (window == nullptr) {
        os_log_error(OS_LOG_DEFAULT, "NSRemoteViewController: cannot embed window %lld",
                     static_cast<long long>(windowId_));
        return;
    }
    QWidget* container = QWidget::createWindowContainer(window, host);
    container->setGeometry(host->rect());
    container->show();
    host->installEventFilter(new FollowBounds(host, container));
    d_->container = container;
}

void NSRemoteViewController::requestViewController(
    const std::shared_ptr<NSRemoteViewControllerParameters>& parameters,
    ConnectionHandler connectionHandler) {
    if (!parameters) {
        request({}, {}, {}, {}, std::move(connectionHandler), {});
        return;
    }
    QUuid id = uuidOf(parameters->extensionIdentifier());
    if (id.isNull()) {
        id = uuidOf(parameters->hostAppClientParameters().toMap().value(
            QStringLiteral("request-identifier")));
    }
    request(parameters->serviceBundleIdentifier(), id, parameters->serviceViewControllerClassName(),
            parameters->hostAppClientParameters(), std::move(connectionHandler), {});
}

void NSRemoteViewController::requestViewController(const QString& serviceViewControllerClassName,
                                                   const QString& serviceBundleIdentifier,
                                                   ConnectionHandler connectionHandler,
                                                   Factory factory) {
    request(serviceBundleIdentifier, {}, serviceViewControllerClassName, {},
            std::move(connectionHandler), std::move(factory));
}

void NSRemoteViewController::setHostWindowSource(std::function<QWindow*()> source) {
    hostWindowSource() = std::move(source);
}

QVariant NSRemoteViewController::withHostWindow(const QVariant& clientParameters) {
    // The window lives on the main thread; a request made elsewhere goes without it.
    const bool onMain = QCoreApplication::instance() != nullptr &&
                        QThread::currentThread() == QCoreApplication::instance()->thread();
    QWindow* window = hostWindowSource() && onMain && onWayland() ? hostWindowSource()() : nullptr;
    if (window == nullptr) {
        return clientParameters;
    }
    QString why;
    const QString handle = platform::appkit::exportForeignWindow(window, &why);
    if (handle.isEmpty()) {
        os_log_error(OS_LOG_DEFAULT,
                     "NSRemoteViewController: this process's window has no handle: %{public}s",
                     qPrintable(why));
        return clientParameters;
    }
    return platform::appkit::withParentWindowHandle(clientParameters, handle);
}

void NSRemoteViewController::request(const QString& serviceBundleIdentifier,
                                     const QUuid& requestIdentifier, const QString& className,
                                     const QVariant& clientParameters, ConnectionHandler handler,
                                     Factory factory) {
    auto answer = [handler](std::shared_ptr<NSRemoteViewController> c, NSErrorPtr e) {
        if (handler) {
            handler(std::move(c), std::move(e));
        }
    };
    if (!serviceBundleIdentifier.endsWith(kServiceSuffix) ||
        serviceBundleIdentifier.size() == kServiceSuffix.size()) {
        NSErrorPtr error = NSError::errorWithDomain(
            NSExtensionRequestErrorDomain, NSExtensionRequestNotRunningError,
            {{NSLocalizedDescriptionKey,
              QStringLiteral("not a view service: %1").arg(serviceBundleIdentifier)}});
        dispatch_async(dispatch_get_main_queue(), [answer, error] { answer(nullptr, error); });
        return;
    }
    const QString extensionIdentifier = serviceBundleIdentifier.chopped(kServiceSuffix.size());
    platform::extension::requestRemoteView(
        extensionIdentifier, requestIdentifier, className,
        withHostWindow(sendable(clientParameters)),
        [answer, factory, serviceBundleIdentifier](platform::extension::RemoteViewAnswer reply) {
            if (reply.error) {
                answer(nullptr, reply.error);
                return;
            }
            std::shared_ptr<NSRemoteViewController> controller =
                factory ? factory() : std::make_shared<NSRemoteViewController>();
            if (!controller) {
                answer(nullptr, nullptr);
                return;
            }
            controller->serviceBundleIdentifier_ = serviceBundleIdentifier;
            controller->windowId_ = reply.windowId;
            controller->remoteSize_ = NSMakeSize(reply.size.width(), reply.size.height());
            if (!reply.endpoint.isNull()) {
                auto connection = NSXPCConnection::initWithListenerEndpoint(reply.endpoint);
                if (auto exported = controller->exportedInterface()) {
                    connection->setExportedInterface(exported);
                    connection->setExportedObject(std::make_shared<Relay>(controller));
                }
                if (auto remote = controller->serviceViewControllerInterface()) {
                    connection->setRemoteObjectInterface(remote);
                }
                connection->resume();
                controller->connection_ = connection;
            }
            answer(controller, nullptr);
        });
}

namespace platform::appkit {

QVariant withParentWindowHandle(const QVariant& clientParameters, const QString& handle) {
    QVariantMap sent{{kParentWindowHandleKey, handle}};
    if (clientParameters.isValid()) {
        sent.insert(kClientParametersKey, clientParameters);
    }
    return sent;
}

QVariant takeParentWindowHandle(const QVariant& sent, QString* handle) {
    const QVariantMap map = sent.typeId() == QMetaType::QVariantMap ? sent.toMap() : QVariantMap();
    const QVariant value = map.value(kParentWindowHandleKey);
    if (value.typeId() != QMetaType::QString) {
        handle->clear();
        return sent;
    }
    *handle = value.toString();
    return map.value(kClientParametersKey);
}

QString extensionDisplayName(const QString& extensionIdentifier) {
    NSErrorPtr error;
    if (NSExtensionPtr extension =
            NSExtension::extensionWithIdentifier(extensionIdentifier, &error)) {
        for (const QString& key : {kCFBundleDisplayNameKey, kCFBundleNameKey}) {
            const QString name = extension->infoDictionary().value(key).toString();
            if (!name.isEmpty()) {
                return name;
            }
        }
    }
    return extensionIdentifier;
}

}  // namespace platform::appkit
