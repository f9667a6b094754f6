#include "platform/xpc/NSXPCConnection.h"

#include <QDBusPendingCallWatcher>
#include <QPointer>
#include <climits>
#include <optional>

#include "platform/log/os_log.h"
#include "platform/xpc/NSXPCConnection_p.h"

using platform::xpc::CallReceiver;
using platform::xpc::connectionError;
using platform::xpc::ConnectionThread;
using platform::xpc::ExportedObjectAdaptor;
using platform::xpc::gBusNameCounter;
using platform::xpc::kReplyInvalidErrorName;
using platform::xpc::startQueue;

namespace {

// Replies may take as long as the peer likes (a recording stops when the user says so): no
// timeout of our own; a peer that leaves the bus ends the call with an error.
constexpr int kNoTimeout = INT_MAX;

std::atomic<int> gConnectionsCreated{0};

}  // namespace

namespace platform::xpc {

std::atomic<int> gBusNameCounter{0};

void startQueue(NSXPCConnection* connection, NSXPCConnection::Private& d, const QString& label) {
    d.thread = new ConnectionThread(connection, label);
    d.thread->context = new platform::xpc::QueueContext();
    d.thread->context->moveToThread(d.thread);
    d.thread->start();
}

}  // namespace platform::xpc

// --- NSXPCConnection

NSXPCConnection::NSXPCConnection() : d_(std::make_unique<Private>()) {
    platform::xpc::registerMetaTypes();
    gConnectionsCreated.fetch_add(1);
}

std::shared_ptr<NSXPCConnection> NSXPCConnection::initWithMachServiceName(const QString& name,
                                                                          uint64_t options) {
    std::shared_ptr<NSXPCConnection> c(new NSXPCConnection());
    c->d_->kind = Private::Kind::MachService;
    c->d_->serviceName = name;
    c->d_->options = options;
    startQueue(c.get(), *c->d_, QStringLiteral("xpc.connection.%1").arg(name));
    return c;
}

std::shared_ptr<NSXPCConnection> NSXPCConnection::initWithListenerEndpoint(
    const NSXPCListenerEndpoint& endpoint) {
    std::shared_ptr<NSXPCConnection> c(new NSXPCConnection());
    c->d_->kind = Private::Kind::Peer;
    c->d_->peerAddress = endpoint.address();
    startQueue(c.get(), *c->d_, QStringLiteral("xpc.connection.peer"));
    return c;
}

NSXPCConnection::~NSXPCConnection() {
    invalidate();
    ConnectionThread* thread = d_->thread;
    thread->owner = nullptr;
    // The queue's last block: whatever QtDBus may still post to (receivers of calls nobody is
    // left to answer for) goes on its own thread, before the thread ends.
    auto last = [pending = d_->pending, context = thread->context, d = d_.get()] {
        if (d->linkCheck) {  // written on the queue only
            d->linkCheck->deleteLater();
        }
        std::vector<CallReceiver*> left;
        {
            platform::xpc::PendingCalls::Lock lock(*pending);
            left.assign(pending->live.begin(), pending->live.end());
        }
        for (CallReceiver* receiver : left) {
            if (receiver->thread() == QThread::currentThread()) {
                platform::xpc::handOver(receiver);
                receiver->deleteLater();  // deferred deletes still run as the thread ends
            }
        }
        context->deleteLater();
        QThread::currentThread()->quit();
    };
    if (QThread::currentThread() == thread) {
        last();  // destroyed from a block on its own queue: the reaper joins the thread
        platform::xpc::reapThread(thread);
        return;
    }
    // Once the application has gone its queue may take no more blocks: quit anyway, and what the
    // last block did not get to goes here, with the thread ended.
    auto ran = std::make_shared<std::atomic<bool>>(false);
    dispatchOnQueue([last, ran] {
        ran->store(true);
        last();
    });
    thread->quit();
    thread->wait();
    platform::xpc::takeOver(thread);
    if (!ran->load()) {
        std::vector<CallReceiver*> left;
        {
            platform::xpc::PendingCalls::Lock lock(*d_->pending);
            left.assign(d_->pending->live.begin(), d_->pending->live.end());
        }
        for (CallReceiver* receiver : left) {
            delete receiver;
        }
        delete d_->linkCheck.data();  // a link check still waiting for its answer
        delete thread->context;
    }
    delete thread;
}

const QString& NSXPCConnection::serviceName() const {
    return d_->serviceName;
}
uint64_t NSXPCConnection::options() const {
    return d_->options;
}

void NSXPCConnection::setExportedObject(std::shared_ptr<NSXPCInvocationTarget> object) {
    platform::xpc::MarkedLock lock(d_->mutex);
    d_->exportedObject = std::move(object);
}
std::shared_ptr<NSXPCInvocationTarget> NSXPCConnection::exportedObject() const {
    platform::xpc::MarkedLock lock(d_->mutex);
    return d_->exportedObject;
}
void NSXPCConnection::setExportedInterface(std::shared_ptr<NSXPCInterface> interface) {
    platform::xpc::MarkedLock lock(d_->mutex);
    d_->exportedInterface = std::move(interface);
}
std::shared_ptr<NSXPCInterface> NSXPCConnection::exportedInterface() const {
    platform::xpc::MarkedLock lock(d_->mutex);
    return d_->exportedInterface;
}
void NSXPCConnection::setRemoteObjectInterface(std::shared_ptr<NSXPCInterface> interface) {
    platform::xpc::MarkedLock lock(d_->mutex);
    d_->remoteInterface = std::move(interface);
}
std::shared_ptr<NSXPCInterface> NSXPCConnection::remoteObjectInterface() const {
    platform::xpc::MarkedLock lock(d_->mutex);
    return d_->remoteInterface;
}
void NSXPCConnection::setDelegate(std::weak_ptr<NSXPCConnectionDelegate> delegate) {
    platform::xpc::MarkedLock lock(d_->mutex);
    d_->delegate = std::move(delegate);
}
std::shared_ptr<NSXPCConnectionDelegate> NSXPCConnection::delegate() const {
    platform::xpc::MarkedLock lock(d_->mutex);
    return d_->delegate.lock();
}

void NSXPCConnection::resume() {
    platform::xpc::MarkedLock lock(d_->mutex);
    if (d_->resumed || d_->invalidated) {
        return;
    }
    d_->resumed = true;
    if (d_->kind == Private::Kind::Accepted) {
        return;  // the listener routes this peer's messages from its own bus
    }
    if (d_->kind != Private::Kind::AcceptedPeer) {
        d_->busName = QStringLiteral("lumaro-xpc-%1").arg(gBusNameCounter.fetch_add(1));
        d_->ownsBus = true;
        if (d_->kind == Private::Kind::MachService) {
            d_->bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, d_->busName);
        } else {
            d_->bus = QDBusConnection::connectToPeer(d_->peerAddress, d_->busName);
        }
        if (!d_->bus->isConnected()) {
            os_log_error(OS_LOG_DEFAULT, "NSXPCConnection: cannot connect to %s: %s",
                         d_->kind == Private::Kind::MachService ? d_->serviceName : d_->peerAddress,
                         d_->bus->lastError().message());
        } else if (d_->kind == Private::Kind::Peer) {
            d_->linkLetIn = false;
            checkLinkLetIn();
        }
    }
    if (d_->exportedInterface && d_->exportedObject && d_->bus && d_->bus->isConnected()) {
        d_->adaptor = new ExportedObjectAdaptor(weak_from_this());
        d_->adaptor->moveToThread(d_->thread);
        platform::xpc::handOver(d_->adaptor);
        d_->bus->registerVirtualObject(d_->exportedInterface->objectPath(), d_->adaptor);
    }
}

void NSXPCConnection::invalidate() {
    platform::xpc::MarkedLock lock(d_->mutex);
    if (d_->invalidated) {
        return;
    }
    d_->invalidated = true;
    // Calls in flight end now, once each, on the queue (unless the queue stops first, when the
    // connection itself goes).
    dispatchOnQueue([pending = d_->pending] {
        std::vector<QPointer<CallReceiver>> inFlight;
        {
            platform::xpc::PendingCalls::Lock pendingLock(*pending);
            inFlight.assign(pending->live.begin(), pending->live.end());
        }
        for (const auto& receiver : inFlight) {
            // One still being handed over by its sender is not ours yet; its call fails alone.
            if (receiver && receiver->thread() == QThread::currentThread()) {
                receiver->fail(NSXPCConnectionInvalid, QStringLiteral("connection invalidated"));
            }
        }
    });
    if (d_->bus && d_->ownsBus) {
        if (d_->adaptor != nullptr && d_->exportedInterface) {
            // Once unregistered QtDBus posts it nothing more; what it posted already is handled
            // (and refused) on its thread before it goes there.
            d_->bus->unregisterObject(d_->exportedInterface->objectPath());
            d_->adaptor->deleteLater();
            d_->adaptor = nullptr;
        }
        if (d_->kind == Private::Kind::Peer || d_->kind == Private::Kind::AcceptedPeer) {
            QDBusConnection::disconnectFromPeer(d_->busName);
        } else {
            QDBusConnection::disconnectFromBus(d_->busName);
        }
    }
    d_->bus.reset();
}

std::shared_ptr<NSXPCRemoteObjectProxy> NSXPCConnection::remoteObjectProxy() {
    return std::make_shared<NSXPCRemoteObjectProxy>(weak_from_this(), NSXPCErrorHandler());
}

std::shared_ptr<NSXPCRemoteObjectProxy> NSXPCConnection::remoteObjectProxyWithErrorHandler(
    NSXPCErrorHandler handler) {
    return std::make_shared<NSXPCRemoteObjectProxy>(weak_from_this(), std::move(handler));
}

NSXPCConnection* NSXPCConnection::currentConnection() {
    ConnectionThread* thread = ConnectionThread::current();
    return thread != nullptr ? thread->owner.load() : nullptr;
}

QString NSXPCConnection::queueLabel() const {
    return d_->thread->objectName();
}

QString NSXPCConnection::uniqueBusName() const {
    platform::xpc::MarkedLock lock(d_->mutex);
    return d_->bus ? d_->bus->baseService() : QString();
}

int NSXPCConnection::connectionsCreated() {
    return gConnectionsCreated.load();
}

void NSXPCConnection::dispatchOnQueue(std::function<void()> block) {
    d_->thread->context->post(std::move(block));
}

void NSXPCConnection::fail(const NSXPCErrorHandler& handler, int64_t code, const QString& why) {
    if (!handler) {
        return;
    }
    dispatchOnQueue([handler, code, why] { handler(connectionError(code, why)); });
}

void NSXPCRemoteObjectProxy::send(std::string_view selector, const QVariantList& arguments,
                                  NSXPCBlock reply) {
    if (auto connection = connection_.lock()) {
        connection->send(selector, arguments, std::move(reply), errorHandler_);
    }
    // A proxy that outlived its connection has nowhere to report to, like a dropped message.
}

void NSXPCConnection::send(std::string_view selector, const QVariantList& arguments,
                           NSXPCBlock reply, const NSXPCErrorHandler& errorHandler) {
    std::shared_ptr<NSXPCInterface> iface;
    std::optional<QDBusConnection> bus;
    {
        platform::xpc::MarkedLock lock(d_->mutex);
        iface = d_->remoteInterface;
        bus = d_->bus;
    }
    const NSXPCMethodDescription* method = iface ? iface->methodForSelector(selector) : nullptr;
    if (method == nullptr) {
        os_log_error(OS_LOG_DEFAULT, "NSXPCConnection: %s is not a method of the remote interface",
                     std::string(selector));
        fail(errorHandler, NSXPCConnectionInvalid, QStringLiteral("unknown selector"));
        return;
    }
    // Each value is converted into the message's own list, made once at its final size.
    QVariantList wire;
    bool convertible = size_t(arguments.size()) == method->arguments.size();
    wire.reserve(arguments.size());
    for (size_t i = 0; convertible && i < method->arguments.size(); ++i) {
        auto value = platform::xpc::toWire(arguments[qsizetype(i)], method->arguments[i]);
        if (value) {
            wire.push_back(std::move(*value));
        }
        convertible = value.has_value();
    }
    if (!convertible) {
        os_log_error(OS_LOG_DEFAULT, "NSXPCConnection: arguments of %s do not match the interface",
                     std::string(selector));
        fail(errorHandler, NSXPCConnectionInvalid, QStringLiteral("arguments cannot be sent"));
        return;
    }
    if (!bus || !bus->isConnected()) {
        fail(errorHandler, NSXPCConnectionInvalid, QStringLiteral("not connected"));
        return;
    }
    QDBusMessage message =
        QDBusMessage::createMethodCall(d_->serviceName, iface->objectPath(), iface->dbusInterface(),
                                       iface->memberForMethod(*method));
    message.setArguments(wire);  // shares the list: nothing is copied
    auto* receiver =
        new CallReceiver(weak_from_this(), method, std::move(reply), errorHandler, d_->pending);
    platform::xpc::MarkedLock lock(d_->mutex);  // held calls go out first, and in order
    if (!d_->linkLetIn) {
        receiver->handTo(d_->thread);
        d_->held.emplace_back(message, receiver);
        platform::xpc::handOver(&d_->held);  // read on the queue (see PendingCalls::Lock)
        return;
    }
    receiver->handTo(d_->thread, bus->asyncCall(message, kNoTimeout));  // may be gone at once
}

// A listener's side suspends a new peer link until it has accepted it, then lets in what came
// meanwhile, but QtDBus may deliver later messages before those. So a link to a listener's
// endpoint first asks the listener's side something QtDBus itself answers once the link is let
// in and everything before it is delivered (libdbus answers a Ping at once, so not that); calls
// made until then are held, and then sent in order.
void NSXPCConnection::checkLinkLetIn() {
    QDBusMessage ping = QDBusMessage::createMethodCall(
        QString(), QStringLiteral("/"), QStringLiteral("org.freedesktop.DBus.Introspectable"),
        QStringLiteral("Introspect"));
    // Watched on the connection's queue, for the reason CallReceiver::handTo gives.
    std::weak_ptr<NSXPCConnection> weak = weak_from_this();
    dispatchOnQueue([weak, call = d_->bus->asyncCall(ping, kNoTimeout)] {
        auto self = weak.lock();
        if (!self) {
            return;  // the connection is going: nothing is left to send
        }
        auto* watcher = new platform::xpc::ReplyWatcher(call);
        self->d_->linkCheck = watcher;
        QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher,
                         [weak, watcher](QDBusPendingCallWatcher*) {
                             watcher->deleteLater();
                             if (auto self = weak.lock()) {
                                 self->sendHeld();
                             }
                         });
    });
}

void NSXPCConnection::sendHeld() {
    std::vector<QPointer<CallReceiver>> unsent;
    {
        platform::xpc::MarkedLock lock(d_->mutex);  // sends made meanwhile wait, and go after these
        platform::xpc::takeOver(&d_->held);
        d_->linkLetIn = true;
        for (auto& [message, receiver] : d_->held) {
            if (receiver && d_->bus) {
                receiver->watch(d_->bus->asyncCall(message, kNoTimeout));
            } else {
                unsent.push_back(receiver);
            }
        }
        d_->held.clear();
    }
    for (const auto& receiver : unsent) {
        if (receiver) {  // otherwise failed by invalidate() already, and gone
            receiver->fail(NSXPCConnectionInvalid, QStringLiteral("connection invalidated"));
        }
    }
}

void NSXPCConnection::deliver(NSInvocation& invocation, bool isReply) {
    auto delegate = this->delegate();
    if (delegate && delegate->respondsToHandleInvocation()) {
        delegate->connection(this, invocation, isReply);
    } else {
        invocation.invoke();
    }
}

void NSXPCConnection::handleIncoming(const QDBusMessage& message) {
    std::shared_ptr<NSXPCInterface> iface;
    std::shared_ptr<NSXPCInvocationTarget> object;
    std::optional<QDBusConnection> bus;
    {
        platform::xpc::MarkedLock lock(d_->mutex);
        iface = d_->exportedInterface;
        object = d_->exportedObject;
        bus = d_->bus;
    }
    if (!bus) {
        return;
    }
    auto refuse = [&](QDBusError::ErrorType type, const QString& why) {
        os_log_error(OS_LOG_DEFAULT, "NSXPCConnection: refused %s.%s from %s: %s",
                     message.interface(), message.member(), message.service(), why);
        bus->send(message.createErrorReply(type, why));
    };
    if (!iface || !object || message.path() != iface->objectPath()) {
        refuse(QDBusError::UnknownObject, QStringLiteral("no object at %1").arg(message.path()));
        return;
    }
    if (!message.interface().isEmpty() && message.interface() != iface->dbusInterface()) {
        refuse(QDBusError::UnknownInterface, QStringLiteral("no such interface"));
        return;
    }
    const NSXPCMethodDescription* method = iface->methodForMember(message.member());
    if (method == nullptr) {
        refuse(QDBusError::UnknownMethod, QStringLiteral("no such method"));
        return;
    }
    auto args = platform::xpc::fromWireList(message.arguments(), method->arguments);
    if (!args) {
        refuse(QDBusError::InvalidArgs,
               QStringLiteral("arguments (%1) do not match the method").arg(message.signature()));
        return;
    }
    if (method->hasReply) {
        auto once = std::make_shared<std::atomic<bool>>(false);
        // The block holds the connection weakly, not the link: a block kept past invalidate()
        // must not keep a peer-to-peer link open, and it then answers nobody.
        std::weak_ptr<NSXPCConnection> weak = weak_from_this();
        NSXPCBlock block = [weak, message, method, once](const QVariantList& params) {
            if (once->exchange(true)) {
                return;  // a reply block answers once
            }
            std::optional<QDBusConnection> replyBus;
            if (auto self = weak.lock()) {
                std::lock_guard lock(self->d_->mutex);
                replyBus = self->d_->bus;
            }
            if (!replyBus) {
                return;
            }
            auto wire = platform::xpc::toWireList(params, method->replyArguments);
            if (!wire) {
                os_log_error(OS_LOG_DEFAULT, "NSXPCConnection: reply values of %s do not match",
                             std::string(method->selector));
                replyBus->send(message.createErrorReply(
                    kReplyInvalidErrorName, QStringLiteral("reply values do not match")));
                return;
            }
            replyBus->send(message.createReply(*wire));
        };
        args->push_back(QVariant::fromValue(block));
    } else if (message.isReplyRequired()) {
        bus->send(message.createReply());
    }
    NSInvocation invocation(
        QString::fromLatin1(method->selector.data(), qsizetype(method->selector.size())), *args,
        object);
    deliver(invocation, false);
}
