// The extension runtime's child launcher: a request's two listeners, its host context and the
// extension's process, with the environment that describes the request to it.
#include <QFileInfo>
#include <QProcessEnvironment>

#include "platform/extension/NSExtensionRequest_p.h"
#include "platform/log/os_log.h"

namespace platform::extension {

void launchRequest(const std::shared_ptr<RequestTable>& table,
                   const std::shared_ptr<Request>& request, const QString& executable,
                   const QString& principalClass, const QString& contextClassName) {
    auto fail = [&](int64_t code, const QString& text) {
        os_log_error(OS_LOG_DEFAULT,
                     "extension runtime: cannot begin a request of %{public}s: %{public}s",
                     qPrintable(request->extensionIdentifier), qPrintable(text));
        request->state = Request::State::Ended;
        request->finishBegin({}, requestError(code, text));
    };
    const QFileInfo info(executable);
    if (executable.isEmpty() || !info.isFile() || !info.isExecutable()) {
        fail(NSExtensionRequestExecutableMissingError,
             QStringLiteral("no executable at %1").arg(executable));
        return;
    }

    // The host-side context and what the host offers on the auxiliary connection.
    NSExtensionContextClass hostClass;
    std::shared_ptr<NSXPCInvocationTarget> auxiliaryObject;
    {
        std::lock_guard lock(table->mutex);
        if (table->hostContextClass) {
            hostClass = *table->hostContextClass;
        }
        auxiliaryObject = table->auxiliaryObject;
    }
    if (!hostClass.alloc) {
        hostClass.alloc = [] {
            return std::make_shared<NSExtensionContext>();
        };
        if (const NSExtensionContextClass* known =
                NSExtensionLookupContextClass(contextClassName)) {
            hostClass._extensionAuxiliaryHostProtocol = known->_extensionAuxiliaryHostProtocol;
            hostClass._extensionAuxiliaryVendorProtocol = known->_extensionAuxiliaryVendorProtocol;
        }
    }
    std::shared_ptr<NSExtensionContext> allocated = hostClass.alloc();
    request->hostContext =
        allocated ? allocated->initWithInputItems(request->inputItems, nullptr, request->uuid)
                  : nullptr;
    if (!request->hostContext) {
        request->hostContext = std::make_shared<NSExtensionContext>();
        request->hostContext->initWithInputItems(request->inputItems, nullptr, request->uuid);
    }
    if (!auxiliaryObject) {
        auxiliaryObject = std::dynamic_pointer_cast<NSXPCInvocationTarget>(request->hostContext);
    }
    std::weak_ptr<Request> weak = request;
    // The host ends the request through its context: the child is stopped.
    request->hostContext->_setRequestEndHandler([weak](auto, NSErrorPtr) {
        onMain([weak] {
            if (auto self = weak.lock()) {
                self->end();
            }
        });
        return true;
    });

    // The two listeners.
    auto exported = std::make_shared<NSXPCFunctionTarget>(
        [weak](const QString& selector, const QVariantList& arguments) {
            if (auto self = weak.lock()) {
                self->perform(selector, arguments);
            }
        });
    request->requestDelegate = std::make_shared<OnePeerDelegate>(
        [weak, exported](const std::shared_ptr<NSXPCConnection>& connection) {
            connection->setExportedInterface(hostInterface());
            connection->setExportedObject(exported);
            connection->setRemoteObjectInterface(serviceInterface());
            if (auto self = weak.lock()) {
                std::lock_guard lock(self->pendingMutex);
                self->pendingLink = connection;
            }
        });
    std::shared_ptr<NSXPCInterface> auxHost = hostClass._extensionAuxiliaryHostProtocol
                                                  ? hostClass._extensionAuxiliaryHostProtocol()
                                                  : nullptr;
    std::shared_ptr<NSXPCInterface> auxVendor = hostClass._extensionAuxiliaryVendorProtocol
                                                    ? hostClass._extensionAuxiliaryVendorProtocol()
                                                    : nullptr;
    std::weak_ptr<NSExtensionContext> weakContext = request->hostContext;
    request->auxiliaryDelegate =
        std::make_shared<OnePeerDelegate>([auxHost, auxVendor, auxiliaryObject, weakContext](
                                              const std::shared_ptr<NSXPCConnection>& connection) {
            if (auxHost) {
                connection->setExportedInterface(auxHost);
                connection->setExportedObject(auxiliaryObject ? auxiliaryObject : NSNull::null());
            }
            if (auxVendor) {
                connection->setRemoteObjectInterface(auxVendor);
            }
            if (auto context = weakContext.lock()) {
                context->_setAuxiliaryConnection(connection);
            }
        });
    request->requestListener = NSXPCListener::anonymousListener();
    request->auxiliaryListener = NSXPCListener::anonymousListener();
    request->requestListener->setDelegate(request->requestDelegate);
    request->auxiliaryListener->setDelegate(request->auxiliaryDelegate);
    QString why;
    if (!request->requestListener->resume(&why) || !request->auxiliaryListener->resume(&why)) {
        fail(NSExtensionRequestCannotStartError, why);
        return;
    }

    // The child.
    auto* process = new QProcess();
    request->process = process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(kEnvRequestEndpoint, request->requestListener->endpoint().address());
    env.insert(kEnvAuxiliaryEndpoint, request->auxiliaryListener->endpoint().address());
    env.insert(kEnvRequestIdentifier, request->uuid.toString());
    env.insert(kEnvExtensionIdentifier, request->extensionIdentifier);
    env.insert(kEnvPrincipalClass, principalClass);
    env.insert(kEnvContextClass, contextClassName);
    process->setProcessEnvironment(env);
    process->setProgram(executable);
    process->setArguments({});
    process->setProcessChannelMode(QProcess::ForwardedChannels);
    process->setInputChannelMode(QProcess::ForwardedInputChannel);
    QObject::connect(process, &QProcess::finished, process,
                     [weak](int code, QProcess::ExitStatus status) {
                         if (auto self = weak.lock()) {
                             self->processEnded(code, status);
                         }
                     });
    // The process object outlives its request until the child has been reaped; it is deleted
    // in a later turn of the main queue, outside its own signals.
    ++gLiveChildren;
    auto reaped = [process] {
        dispatch_async(dispatch_get_main_queue(), [process] {
            delete process;
            --gLiveChildren;
        });
    };
    QObject::connect(process, &QProcess::finished, process, reaped);
    QObject::connect(
        process, &QProcess::errorOccurred, process, [weak, reaped](QProcess::ProcessError e) {
            if (e != QProcess::FailedToStart) {
                return;
            }
            reaped();
            auto self = weak.lock();
            if (!self) {
                return;
            }
            self->finishBegin({},
                              requestError(NSExtensionRequestCannotStartError,
                                           QStringLiteral("the extension could not be started")));
            self->end();
        });

    runningRequests().emplace(request->uuid, request);
    {
        std::lock_guard lock(table->mutex);
        table->requests.push_back(request);
    }

    auto* timer = new QTimer(process);  // goes with the process
    request->startTimer = timer;
    timer->setSingleShot(true);
    QObject::connect(timer, &QTimer::timeout, timer, [weak] {
        auto self = weak.lock();
        if (!self || self->state != Request::State::Starting) {
            return;
        }
        os_log_error(OS_LOG_DEFAULT, "extension runtime: %{public}s did not connect in time",
                     qPrintable(self->extensionIdentifier));
        self->finishBegin({},
                          requestError(NSExtensionRequestTimeoutError,
                                       QStringLiteral("the extension did not connect in time")));
        self->end();
    });
    timer->start(gStartTimeoutMs.load());
    process->start();
}

}  // namespace platform::extension
