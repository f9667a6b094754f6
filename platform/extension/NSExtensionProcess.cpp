// The extension runtime, extension side: the child's end of one request.
#include <QCoreApplication>
#include <QTimer>

#include "platform/dispatch/dispatch.h"
#include "platform/extension/NSExtension.h"
#include "platform/extension/NSExtensionRequest_p.h"
#include "platform/log/os_log.h"
#include "platform/xpc/NSInvocation.h"
#include "platform/xpc/NSXPCConnection.h"

namespace platform::extension {
namespace {

// How long the child waits for the host's answer to its check-in and to the request's end.
constexpr int kHostAnswerTimeoutMs = 10000;

QString environment(const char* name) {
    return qEnvironmentVariable(name);
}

}  // namespace

std::optional<Launch> launchFromEnvironment(QString* reason) {
    Launch launch;
    launch.requestEndpoint = environment(kEnvRequestEndpoint);
    launch.auxiliaryEndpoint = environment(kEnvAuxiliaryEndpoint);
    launch.requestIdentifier = QUuid(environment(kEnvRequestIdentifier));
    launch.extensionIdentifier = environment(kEnvExtensionIdentifier);
    launch.principalClass = environment(kEnvPrincipalClass);
    launch.contextClass = environment(kEnvContextClass);
    QString missing;
    if (launch.requestEndpoint.isEmpty()) {
        missing = QString::fromLatin1(kEnvRequestEndpoint);
    } else if (launch.requestIdentifier.isNull()) {
        missing = QString::fromLatin1(kEnvRequestIdentifier);
    }
    if (!missing.isEmpty()) {
        if (reason) {
            *reason = QStringLiteral("%1 is not set or not valid").arg(missing);
        }
        return std::nullopt;
    }
    return launch;
}

struct ExtensionProcess::Private : std::enable_shared_from_this<ExtensionProcess::Private> {
    Launch launch;
    RemoteViewProvider provider;
    std::function<void(std::shared_ptr<NSExtensionContext>, QString)> ready;
    std::function<void()> ended;
    std::shared_ptr<NSXPCConnection> link;
    std::shared_ptr<NSXPCConnection> auxiliary;
    std::shared_ptr<NSExtensionContext> context;
    bool checkedIn = false;
    bool endedCalled = false;
    // Remote-view requests that came before the check-in's answer: the host may ask for a view
    // as soon as it has answered, and the request's controller exists only after the answer.
    std::vector<std::function<void()>> heldViews;

    void serveHeldViews() {
        for (const auto& serve : std::exchange(heldViews, {})) {
            serve();
        }
    }
    void fail(const QString& reason) {
        if (auto r = std::exchange(ready, nullptr)) {
            r(nullptr, reason);
        }
        serveHeldViews();
        finish();
    }
    void finish() {
        if (!std::exchange(endedCalled, true) && ended) {
            ended();
        }
    }

    // Remote-view requests from the host.
    void perform(const QString& selector, const QVariantList& arguments) {
        if (selector.toStdString() != kRemoteView) {
            return;
        }
        const NSXPCBlock reply =
            arguments.isEmpty() ? NSXPCBlock() : arguments.last().value<NSXPCBlock>();
        const QString className = arguments.value(0).toString();
        const QVariant parameters = arguments.value(1);
        std::weak_ptr<Private> weak = weak_from_this();
        const auto serve = [weak, reply, className, parameters] {
            auto self = weak.lock();
            auto answer = [reply](RemoteViewAnswer a) {
                if (reply) {
                    reply({a.endpoint.isNull() ? QVariant() : QVariant::fromValue(a.endpoint),
                           QVariant(qlonglong(a.windowId)), QVariant(a.size),
                           a.error ? QVariant::fromValue(a.error) : QVariant()});
                }
            };
            if (!self || !self->provider) {
                RemoteViewAnswer none;
                none.error = NSError::errorWithDomain(NSExtensionRequestErrorDomain,
                                                      NSExtensionRequestNoViewControllerError);
                answer(none);
                return;
            }
            self->provider(className, parameters, answer);
        };
        dispatch_async(dispatch_get_main_queue(), [weak, serve] {
            auto self = weak.lock();
            if (self && !self->checkedIn) {
                self->heldViews.push_back(serve);
                return;
            }
            serve();
        });
    }

    void checkedInWith(const QByteArray& data) {
        if (checkedIn) {
            return;
        }
        checkedIn = true;
        std::optional<std::vector<NSExtensionItemPtr>> items = decodeItems(data);
        if (!items) {
            fail(QStringLiteral("the host sent unreadable input items"));
            return;
        }
        const QString className = launch.contextClass.isEmpty()
                                      ? QStringLiteral("NSExtensionContext")
                                      : launch.contextClass;
        const NSExtensionContextClass* cls = NSExtensionLookupContextClass(className);
        if (!cls) {
            fail(QStringLiteral("unknown context class %1").arg(className));
            return;
        }
        std::shared_ptr<NSExtensionContext> allocated = cls->alloc();
        auto endpoint = std::make_shared<NSXPCListenerEndpoint>(launch.auxiliaryEndpoint);
        context = allocated ? allocated->initWithInputItems(std::move(*items), endpoint,
                                                            launch.requestIdentifier)
                            : nullptr;
        if (!context) {
            fail(QStringLiteral("the context class %1 made no context").arg(className));
            return;
        }
        _NSExtensionContextVendor::_sharedExtensionContextVendor()->_setExtensionContext(context);

        // The auxiliary connection, with the interfaces that the class hooks name.
        if (!launch.auxiliaryEndpoint.isEmpty()) {
            auxiliary = NSXPCConnection::initWithListenerEndpoint(*endpoint);
            if (cls->_extensionAuxiliaryHostProtocol) {
                auxiliary->setRemoteObjectInterface(cls->_extensionAuxiliaryHostProtocol());
            }
            if (cls->_extensionAuxiliaryVendorProtocol) {
                auxiliary->setExportedInterface(cls->_extensionAuxiliaryVendorProtocol());
                auto object = std::dynamic_pointer_cast<NSXPCInvocationTarget>(context);
                auxiliary->setExportedObject(
                    object ? object : std::shared_ptr<NSXPCInvocationTarget>(NSNull::null()));
            }
            auxiliary->resume();
            context->_setAuxiliaryConnection(auxiliary);
        }

        std::weak_ptr<Private> weak = weak_from_this();
        context->_setRequestEndHandler(
            [weak](std::vector<NSExtensionItemPtr> items, NSErrorPtr error) {
                auto self = weak.lock();
                if (!self || !self->link) {
                    return false;
                }
                auto done = [weak] {
                    dispatch_async(dispatch_get_main_queue(), [weak] {
                        if (auto s = weak.lock()) {
                            s->finish();
                        }
                    });
                };
                auto proxy = self->link->remoteObjectProxyWithErrorHandler(
                    [done](const NSErrorPtr&) { done(); });
                const NSXPCBlock reply = [done](const QVariantList&) {
                    done();
                };
                if (error) {
                    proxy->send(kCancel, {QVariant::fromValue(error)}, reply);
                } else {
                    proxy->send(kComplete, {encodeItems(items)}, reply);
                }
                return true;
            });
        if (auto r = std::exchange(ready, nullptr)) {
            r(context, QString());
        }
        serveHeldViews();
    }
};

std::shared_ptr<ExtensionProcess> ExtensionProcess::start(
    const Launch& launch, RemoteViewProvider provider,
    std::function<void(std::shared_ptr<NSExtensionContext>, QString)> ready,
    std::function<void()> ended) {
    auto process = std::shared_ptr<ExtensionProcess>(new ExtensionProcess());
    auto d = std::make_shared<Private>();
    process->d_ = d;
    d->launch = launch;
    d->provider = std::move(provider);
    d->ready = std::move(ready);
    d->ended = std::move(ended);

    std::weak_ptr<Private> weak = d;
    d->link =
        NSXPCConnection::initWithListenerEndpoint(NSXPCListenerEndpoint(launch.requestEndpoint));
    d->link->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol(requestHostProtocol()));
    d->link->setExportedInterface(NSXPCInterface::interfaceWithProtocol(requestServiceProtocol()));
    d->link->setExportedObject(std::make_shared<NSXPCFunctionTarget>(
        [weak](const QString& selector, const QVariantList& arguments) {
            if (auto self = weak.lock()) {
                self->perform(selector, arguments);
            }
        }));
    d->link->resume();

    auto onMain = [weak](std::function<void(Private&)> step) {
        dispatch_async(dispatch_get_main_queue(), [weak, step] {
            if (auto self = weak.lock()) {
                step(*self);
            }
        });
    };
    auto proxy = d->link->remoteObjectProxyWithErrorHandler([onMain](const NSErrorPtr& error) {
        onMain([error](Private& self) {
            if (!self.checkedIn) {
                self.fail(QStringLiteral("cannot reach the host: %1")
                              .arg(error ? error->localizedDescription() : QString()));
            }
        });
    });
    proxy->send(kCheckIn, {launch.requestIdentifier.toString()},
                [onMain](const QVariantList& values) {
                    const QByteArray data = values.value(0).toByteArray();
                    onMain([data](Private& self) { self.checkedInWith(data); });
                });
    QTimer::singleShot(kHostAnswerTimeoutMs, QCoreApplication::instance(), [weak] {
        auto self = weak.lock();
        if (self && !self->checkedIn) {
            self->fail(QStringLiteral("the host did not answer the check-in"));
        }
    });
    return process;
}

ExtensionProcess::~ExtensionProcess() {
    if (d_) {
        if (d_->auxiliary) {
            d_->auxiliary->invalidate();
        }
        if (d_->link) {
            d_->link->invalidate();
        }
    }
}

}  // namespace platform::extension
