// The extension runtime, host side: the state of each request to a child process, remote-view
// requests to it, and NSExtension's request methods. Request state changes on the main thread;
// the listeners and connections hand their events there.
#include "platform/extension/NSExtensionRequest_p.h"

#include <algorithm>

#include "platform/extension/NSExtensionRegistry.h"
#include "platform/log/os_log.h"

namespace platform::extension {

std::atomic<int> gStartTimeoutMs{10000};
std::atomic<int> gLiveChildren{0};

namespace {

// How long a stopped child may linger after SIGTERM before it is killed.
constexpr int kTerminateGraceMs = 2000;

NSXPCBlock lastBlock(const QVariantList& arguments) {
    return arguments.isEmpty() ? NSXPCBlock() : arguments.last().value<NSXPCBlock>();
}

QString plugInString(const NSExtension& extension, const QString& key) {
    const QVariantMap& plugIn =
        extension._plugIn() ? extension._plugIn()->plugInDictionary() : extension.attributes();
    return plugIn.value(key).toString();
}

std::mutex gTableMutex;

}  // namespace

std::map<QUuid, std::shared_ptr<Request>>& runningRequests() {
    static auto* requests = new std::map<QUuid, std::shared_ptr<Request>>;
    return *requests;
}

Request::~Request() {
    if (requestListener) {
        requestListener->invalidate();
    }
    if (auxiliaryListener) {
        auxiliaryListener->invalidate();
    }
}

void Request::finishBegin(const QUuid& id, const NSErrorPtr& error) {
    if (startTimer) {
        startTimer->stop();
    }
    if (auto completion = std::exchange(begin, nullptr)) {
        completion(id, error);
    }
}

void Request::end() {
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

void Request::stop() {
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

void Request::perform(const QString& selector, const QVariantList& arguments) {
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
            const bool taken = running && (complete ? self->completed(value.toByteArray())
                                                    : self->cancelled(value.value<NSErrorPtr>()));
            if (reply) {
                reply({QVariant(taken ? 1 : 0)});
            }
        });
    }
}

void Request::checkIn(const QUuid& claimed, const NSXPCBlock& reply) {
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

bool Request::completed(const QByteArray& data) {
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

bool Request::cancelled(const NSErrorPtr& error) {
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

void Request::processEnded(int exitCode, QProcess::ExitStatus status) {
    os_log(OS_LOG_DEFAULT,
           "extension runtime: %{public}s for request %{public}s ended (%{public}s %d)",
           qPrintable(extensionIdentifier), qPrintable(uuid.toString()),
           status == QProcess::CrashExit ? "signal" : "exit", exitCode);
    if (state == State::Starting) {
        finishBegin({}, requestError(NSExtensionRequestExitedError,
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
            platform::extension::launchRequest(table, request, executable, principal, contextClass);
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
