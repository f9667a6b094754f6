// The extension runtime, host side: requests to child processes over private links, and the
// request protocol. Request state changes on the main thread; the listeners and connections hand
// their events there.
#include "platform/extension/NSExtensionRequest.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QPointer>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTimer>
#include <algorithm>
#include <map>
#include <mutex>

#include "platform/dispatch/dispatch.h"
#include "platform/extension/NSExtension.h"
#include "platform/extension/NSExtensionRegistry.h"
#include "platform/foundation/NSKeyedArchiver.h"
#include "platform/log/os_log.h"
#include "platform/xpc/NSInvocation.h"
#include "platform/xpc/NSXPCConnection.h"

namespace platform::extension {
namespace {

using T = NSXPCType;

constexpr char kCheckIn[] = "_checkInWithRequestIdentifier:reply:";
constexpr char kComplete[] = "_completeRequestReturningItems:reply:";
constexpr char kCancel[] = "_cancelRequestWithError:reply:";
constexpr char kRemoteView[] = "_remoteViewWithClassName:clientParameters:reply:";

// How long a stopped child may linger after SIGTERM before it is killed.
constexpr int kTerminateGraceMs = 2000;

std::atomic<int> gStartTimeoutMs{10000};
std::atomic<int> gLiveChildren{0};

NSErrorPtr requestError(int64_t code, const QString& text) {
    return NSError::errorWithDomain(NSExtensionRequestErrorDomain, code,
                                    {{NSLocalizedDescriptionKey, text}});
}

void onMain(std::function<void()> block) {
    dispatch_async(dispatch_get_main_queue(), std::move(block));
}

}  // namespace

const NSXPCProtocolDescription& requestHostProtocol() {
    static const NSXPCProtocolDescription protocol{
        "NSExtensionRequestHostProtocol",
        "com.vantor.lumaro.ExtensionRequestHost",
        "/com/vantor/lumaro/ExtensionRequestHost",
        {
            {kCheckIn, {T::String}, true, {T::Data}},
            {kComplete, {T::Data}, true, {T::SignedChar}},
            {kCancel, {T::Error}, true, {T::SignedChar}},
        }};
    return protocol;
}

const NSXPCProtocolDescription& requestServiceProtocol() {
    static const NSXPCProtocolDescription protocol{
        "NSExtensionRequestServiceProtocol",
        "com.vantor.lumaro.ExtensionRequestService",
        "/com/vantor/lumaro/ExtensionRequestService",
        {
            {kRemoteView, {T::String, T::Object}, true, {T::Endpoint, T::Int64, T::Size, T::Error}},
        }};
    return protocol;
}

namespace {
std::shared_ptr<NSXPCInterface> hostInterface() {
    static const auto interface = NSXPCInterface::interfaceWithProtocol(requestHostProtocol());
    return interface;
}
std::shared_ptr<NSXPCInterface> serviceInterface() {
    static const auto interface = NSXPCInterface::interfaceWithProtocol(requestServiceProtocol());
    return interface;
}
}  // namespace

QByteArray encodeItems(const std::vector<NSExtensionItemPtr>& items) {
    QVariantList values;
    for (const auto& item : items) {
        if (item) {
            values.append(item->toPlainValue());
        }
    }
    NSErrorPtr error;
    QByteArray data = NSKeyedArchiver::archivedDataWithRootObject(values, &error);
    if (error) {
        os_log_error(OS_LOG_DEFAULT, "extension runtime: items cannot be archived: %@", error);
    }
    return data;
}

std::optional<std::vector<NSExtensionItemPtr>> decodeItems(const QByteArray& data) {
    const QVariant root = NSKeyedUnarchiver::unarchiveObjectWithData(data);
    if (root.typeId() != QMetaType::QVariantList) {
        return std::nullopt;
    }
    std::vector<NSExtensionItemPtr> items;
    for (const QVariant& value : root.toList()) {
        QString reason;
        NSExtensionItemPtr item = value.typeId() == QMetaType::QVariantMap
                                      ? NSExtensionItem::fromPlainValue(value.toMap(), &reason)
                                      : nullptr;
        if (item) {
            items.push_back(std::move(item));
        } else {
            os_log_error(
                OS_LOG_DEFAULT, "extension runtime: an item was left out: %{public}s",
                qPrintable(reason.isEmpty() ? QStringLiteral("not a dictionary") : reason));
        }
    }
    return items;
}

// --- Host side.

struct Request;

// One extension's blocks and running requests.
struct RequestTable {
    std::mutex mutex;
    NSExtension::RequestCompletionBlock completion;
    NSExtension::RequestCancellationBlock cancellation;
    NSExtension::RequestInterruptionBlock interruption;
    std::optional<NSExtensionContextClass> hostContextClass;
    std::shared_ptr<NSXPCInvocationTarget> auxiliaryObject;
    std::vector<std::shared_ptr<Request>> requests;  // changed on the main thread, under mutex
};

namespace {

// Every running request of the process, by identifier (main thread only).
std::map<QUuid, std::shared_ptr<Request>>& runningRequests() {
    static auto* requests = new std::map<QUuid, std::shared_ptr<Request>>;
    return *requests;
}

// Accepts the first peer of a listener with a fixed configuration and refuses later ones.
class OnePeerDelegate : public NSXPCListenerDelegate {
public:
    using Configure = std::function<void(const std::shared_ptr<NSXPCConnection>&)>;
    explicit OnePeerDelegate(Configure configure) : configure_(std::move(configure)) {}
    bool listener(NSXPCListener*, const std::shared_ptr<NSXPCConnection>& connection) override {
        if (taken_.exchange(true)) {
            return false;
        }
        configure_(connection);
        return true;
    }

private:
    Configure configure_;
    std::atomic<bool> taken_{false};
};

NSXPCBlock lastBlock(const QVariantList& arguments) {
    return arguments.isEmpty() ? NSXPCBlock() : arguments.last().value<NSXPCBlock>();
}

}  // namespace

struct Request : std::enable_shared_from_this<Request> {
    // Answered: the child ended the request; the host waits for it to exit.
    enum class State { Starting, Running, Answered, Ended };

    QUuid uuid;
    QString extensionIdentifier;
    std::shared_ptr<RequestTable> table;
    std::vector<NSExtensionItemPtr> inputItems;
    NSExtension::RequestBeginCompletion begin;
    std::atomic<State> state{State::Starting};
    bool stopping = false;

    std::unique_ptr<NSXPCListener> requestListener;
    std::unique_ptr<NSXPCListener> auxiliaryListener;
    std::shared_ptr<OnePeerDelegate> requestDelegate;
    std::shared_ptr<OnePeerDelegate> auxiliaryDelegate;
    std::shared_ptr<NSXPCConnection> link;  // set on the main thread once the child checked in
    std::shared_ptr<NSXPCConnection> pendingLink;
    std::mutex pendingMutex;
    std::shared_ptr<NSExtensionContext> hostContext;
    QPointer<QProcess> process;
    QPointer<QTimer> startTimer;

    ~Request() {
        if (requestListener) {
            requestListener->invalidate();
        }
        if (auxiliaryListener) {
            auxiliaryListener->invalidate();
        }
    }

    void finishBegin(const QUuid& id, const NSErrorPtr& error) {
        if (startTimer) {
            startTimer->stop();
        }
        if (auto completion = std::exchange(begin, nullptr)) {
            completion(id, error);
        }
    }

    // Ends the request for good: blocks, listeners and the context go; the child is stopped
    // if it still runs and reaped when it ends.
    void end() {
        if (state == State::Ended) {
            return;
        }
        state = State::Ended;
        auto self = shared_from_this();
        runningRequests().erase(uuid);
        {
            std::lock_guard lock(table->mutex);
            std::erase(table->requests, self);
        }
        if (link) {
            link->invalidate();
        }
        if (auto aux = hostContext ? hostContext->_auxiliaryConnection() : nullptr) {
            aux->invalidate();
        }
        if (requestListener) {
            requestListener->invalidate();
        }
        if (auxiliaryListener) {
            auxiliaryListener->invalidate();
        }
        if (startTimer) {
            startTimer->stop();
        }
        stop();
    }

    void stop() {
        if (!process || stopping) {
            return;
        }
        if (process->state() == QProcess::NotRunning) {
            return;  // it deletes itself once it has ended (or failed to start)
        }
        stopping = true;
        process->terminate();
        auto* grace = new QTimer(process);  // goes with the process
        grace->setSingleShot(true);
        QProcess* p = process;
        QObject::connect(grace, &QTimer::timeout, p, [p] {
            if (p->state() != QProcess::NotRunning) {
                p->kill();
            }
        });
        grace->start(kTerminateGraceMs);
    }

    // The host side of the link: the child's messages, moved to the main thread.
    void perform(const QString& selector, const QVariantList& arguments) {
        const NSXPCBlock reply = lastBlock(arguments);
        const std::string s = selector.toStdString();
        std::weak_ptr<Request> weak = weak_from_this();
        if (s == kCheckIn) {
            const QUuid claimed(arguments.value(0).toString());
            onMain([weak, claimed, reply] {
                auto self = weak.lock();
                if (self) {
                    self->checkIn(claimed, reply);
                }
            });
        } else if (s == kComplete || s == kCancel) {
            const QVariant value = arguments.value(0);
            const bool complete = s == kComplete;
            onMain([weak, value, complete, reply] {
                auto self = weak.lock();
                const bool running = self && self->state == State::Running;
                const bool taken =
                    running && (complete ? self->completed(value.toByteArray())
                                         : self->cancelled(value.value<NSErrorPtr>()));
                if (reply) {
                    reply({QVariant(taken ? 1 : 0)});
                }
            });
        }
    }

    void checkIn(const QUuid& claimed, const NSXPCBlock& reply) {
        std::shared_ptr<NSXPCConnection> peer;
        {
            std::lock_guard lock(pendingMutex);
            peer = pendingLink;
        }
        if (state != State::Starting || claimed != uuid || !peer) {
            os_log_error(OS_LOG_DEFAULT, "extension runtime: a check-in for %{public}s refused",
                         qPrintable(claimed.toString()));
            return;  // no reply: the child gives up
        }
        state = State::Running;
        link = peer;
        if (reply) {
            reply({encodeItems(inputItems)});
        }
        finishBegin(uuid, nullptr);
    }

    // The child's answers; false when the answer is refused (the request then runs on until
    // the child ends it properly or goes).
    bool completed(const QByteArray& data) {
        std::optional<std::vector<NSExtensionItemPtr>> items = decodeItems(data);
        if (!items) {
            os_log_error(OS_LOG_DEFAULT,
                         "extension runtime: request %{public}s returned unreadable items",
                         qPrintable(uuid.toString()));
            return false;
        }
        state = State::Answered;
        NSExtension::RequestCompletionBlock block;
        {
            std::lock_guard lock(table->mutex);
            block = table->completion;
        }
        const QUuid id = uuid;
        // The context stays reachable while the completion block runs.
        auto keep = shared_from_this();
        if (block) {
            block(id, std::move(*items));
        }
        return true;
    }

    bool cancelled(const NSErrorPtr& error) {
        state = State::Answered;
        NSExtension::RequestCancellationBlock block;
        {
            std::lock_guard lock(table->mutex);
            block = table->cancellation;
        }
        auto keep = shared_from_this();
        if (block) {
            block(uuid, error);
        }
        return true;
    }

    void processEnded(int exitCode, QProcess::ExitStatus status) {
        os_log(OS_LOG_DEFAULT,
               "extension runtime: %{public}s for request %{public}s ended (%{public}s %d)",
               qPrintable(extensionIdentifier), qPrintable(uuid.toString()),
               status == QProcess::CrashExit ? "signal" : "exit", exitCode);
        if (state == State::Starting) {
            finishBegin({},
                        requestError(NSExtensionRequestExitedError,
                                     QStringLiteral("the extension ended before it connected")));
        } else if (state == State::Running) {
            NSExtension::RequestInterruptionBlock block;
            {
                std::lock_guard lock(table->mutex);
                block = table->interruption;
            }
            if (block) {
                block(uuid);
            }
        }
        end();
    }
};

namespace {

QString plugInString(const NSExtension& extension, const QString& key) {
    const QVariantMap& plugIn =
        extension._plugIn() ? extension._plugIn()->plugInDictionary() : extension.attributes();
    return plugIn.value(key).toString();
}

void beginOnMain(const std::shared_ptr<RequestTable>& table,
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

std::mutex gTableMutex;

}  // namespace

void requestRemoteView(const QString& extensionIdentifier, const QUuid& requestIdentifier,
                       const QString& className, const QVariant& clientParameters,
                       RemoteViewReply reply) {
    onMain([=] {
        std::shared_ptr<Request> found;
        for (const auto& [id, request] : runningRequests()) {
            if (request->extensionIdentifier != extensionIdentifier ||
                request->state != Request::State::Running) {
                continue;
            }
            if (requestIdentifier.isNull() ? true : id == requestIdentifier) {
                found = request;
                if (!requestIdentifier.isNull()) {
                    break;
                }
            }
        }
        // Without an identifier, the newest running request (the table keeps them in order).
        if (requestIdentifier.isNull() && found) {
            std::lock_guard lock(found->table->mutex);
            for (const auto& request : found->table->requests) {
                if (request->state == Request::State::Running) {
                    found = request;
                }
            }
        }
        if (!found || !found->link) {
            RemoteViewAnswer answer;
            answer.error =
                requestError(NSExtensionRequestNotRunningError,
                             QStringLiteral("no running request of %1").arg(extensionIdentifier));
            reply(answer);
            return;
        }
        auto once = std::make_shared<std::atomic<bool>>(false);
        auto deliver = [reply, once](RemoteViewAnswer answer) {
            if (once->exchange(true)) {
                return;
            }
            onMain([reply, answer] { reply(answer); });
        };
        auto proxy = found->link->remoteObjectProxyWithErrorHandler([deliver](const NSErrorPtr& e) {
            RemoteViewAnswer answer;
            answer.error = e;
            deliver(answer);
        });
        proxy->send(kRemoteView, {QVariant(className), clientParameters},
                    [deliver](const QVariantList& values) {
                        RemoteViewAnswer answer;
                        answer.endpoint = values.value(0).value<NSXPCListenerEndpoint>();
                        answer.windowId = values.value(1).toLongLong();
                        answer.size = values.value(2).toSizeF();
                        answer.error = values.value(3).value<NSErrorPtr>();
                        deliver(answer);
                    });
    });
}

int runningRequestCount() {
    return int(runningRequests().size());
}

int liveChildCount() {
    return gLiveChildren.load();
}

}  // namespace platform::extension

// --- NSExtension's request methods.

using platform::extension::Request;
using platform::extension::RequestTable;

std::shared_ptr<RequestTable> NSExtension::_requestTable() const {
    std::lock_guard lock(platform::extension::gTableMutex);
    if (!requestTable_) {
        requestTable_ = std::make_shared<RequestTable>();
    }
    return requestTable_;
}

void NSExtension::beginExtensionRequestWithInputItems(std::vector<NSExtensionItemPtr> inputItems,
                                                      RequestBeginCompletion completion) {
    auto request = std::make_shared<Request>();
    request->uuid = QUuid::createUuid();
    request->extensionIdentifier = identifier_;
    request->table = _requestTable();
    for (auto& item : inputItems) {
        if (item) {
            request->inputItems.push_back(std::move(item));
        }
    }
    request->begin = [completion = std::move(completion)](QUuid id, NSErrorPtr error) {
        if (completion) {
            completion(id, error);
        }
    };
    const QString executable = plugIn_ ? plugIn_->executableUrl().toLocalFile() : QString();
    const QString principal =
        platform::extension::plugInString(*this, NSExtensionPrincipalClassKey);
    const QString contextClass =
        platform::extension::plugInString(*this, NSExtensionContextClassKey);
    auto table = request->table;
    dispatch_async(
        dispatch_get_main_queue(), [table, request, executable, principal, contextClass] {
            platform::extension::beginOnMain(table, request, executable, principal, contextClass);
        });
}

void NSExtension::setRequestCompletionBlock(RequestCompletionBlock block) {
    auto table = _requestTable();
    std::lock_guard lock(table->mutex);
    table->completion = std::move(block);
}

void NSExtension::setRequestCancellationBlock(RequestCancellationBlock block) {
    auto table = _requestTable();
    std::lock_guard lock(table->mutex);
    table->cancellation = std::move(block);
}

void NSExtension::setRequestInterruptionBlock(RequestInterruptionBlock block) {
    auto table = _requestTable();
    std::lock_guard lock(table->mutex);
    table->interruption = std::move(block);
}

void NSExtension::cancelExtensionRequestWithIdentifier(const QUuid& requestIdentifier) {
    auto table = _requestTable();
    dispatch_async(dispatch_get_main_queue(), [table, requestIdentifier] {
        std::vector<std::shared_ptr<Request>> requests;
        {
            std::lock_guard lock(table->mutex);
            requests = table->requests;
        }
        for (const auto& request : requests) {
            if (request->uuid == requestIdentifier) {
                request->finishBegin({}, platform::extension::requestError(
                                             NSExtensionRequestExitedError,
                                             QStringLiteral("the request was cancelled")));
                request->end();
            }
        }
    });
}

std::shared_ptr<NSExtensionContext> NSExtension::_extensionContextForUUID(const QUuid& uuid) const {
    auto table = _requestTable();
    std::lock_guard lock(table->mutex);
    for (const auto& request : table->requests) {
        if (request->uuid == uuid && request->state != Request::State::Ended) {
            return request->hostContext;
        }
    }
    return {};
}

std::vector<QUuid> NSExtension::_runningRequestIdentifiers() const {
    std::vector<QUuid> ids;
    auto table = _requestTable();
    std::lock_guard lock(table->mutex);
    for (const auto& request : table->requests) {
        if (request->state == Request::State::Running) {
            ids.push_back(request->uuid);
        }
    }
    return ids;
}

void NSExtension::_setHostContextClass(const NSExtensionContextClass& cls) {
    auto table = _requestTable();
    std::lock_guard lock(table->mutex);
    table->hostContextClass = cls;
}

void NSExtension::_setAuxiliaryExportedObject(std::shared_ptr<NSXPCInvocationTarget> object) {
    auto table = _requestTable();
    std::lock_guard lock(table->mutex);
    table->auxiliaryObject = std::move(object);
}

void NSExtension::_setRequestStartTimeout(int milliseconds) {
    platform::extension::gStartTimeoutMs = std::max(1, milliseconds);
}

int NSExtension::_requestStartTimeout() {
    return platform::extension::gStartTimeoutMs.load();
}
