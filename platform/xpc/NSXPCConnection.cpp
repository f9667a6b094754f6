#include "platform/xpc/NSXPCConnection.h"

#include <QCoreApplication>
#include <QDBusPendingCallWatcher>
#include <QDBusServer>
#include <QDBusServiceWatcher>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMetaObject>
#include <QPointer>
#include <cctype>
#include <climits>
#include <condition_variable>
#include <deque>
#include <thread>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>

#include "platform/log/os_log.h"
#include "platform/xpc/NSXPCConnection_p.h"

using platform::xpc::CallReceiver;
using platform::xpc::ConnectionThread;
using platform::xpc::ExportedObjectAdaptor;
using platform::xpc::ListenerAdaptor;

namespace {

// Replies may take as long as the peer likes (a recording stops when the user says so): no
// timeout of our own; a peer that leaves the bus ends the call with an error.
constexpr int kNoTimeout = INT_MAX;

thread_local ConnectionThread* tCurrentThread = nullptr;
std::atomic<int> gConnectionsCreated{0};
std::atomic<int> gBusNameCounter{0};

NSErrorPtr connectionError(int64_t code, const QString& why) {
    QVariantMap info;
    if (!why.isEmpty()) {
        info.insert(NSLocalizedDescriptionKey, why);
    }
    return NSError::errorWithDomain(NSPlatformErrorDomain, code, info);
}

// The error a peer answers with when its reply block was called with values that do not match the
// interface: the caller sees the same code as for such a reply arriving.
const QString kReplyInvalidErrorName = QStringLiteral("com.vantor.xpc.Error.ReplyInvalid");

int64_t codeForBusError(const QDBusError& error) {
    if (error.name() == kReplyInvalidErrorName) {
        return NSXPCConnectionReplyInvalid;
    }
    switch (error.type()) {
        case QDBusError::NoReply:
        case QDBusError::Disconnected:
        case QDBusError::Timeout:
        case QDBusError::TimedOut:
            return NSXPCConnectionInterrupted;
        default:
            return NSXPCConnectionInvalid;
    }
}

bool isBusHousekeeping(const QDBusMessage& message) {
    const QString iface = message.interface();
    return iface == QLatin1String("org.freedesktop.DBus.Introspectable") ||
           iface == QLatin1String("org.freedesktop.DBus.Peer") ||
           iface == QLatin1String("org.freedesktop.DBus.Properties");
}

}  // namespace

struct NSXPCConnection::Private {
    // MachService and Peer connect by themselves (a bus name, a listener's endpoint); Accepted
    // shares its listener's bus, AcceptedPeer is the link a peer made to an anonymous listener.
    enum class Kind { MachService, Peer, Accepted, AcceptedPeer };
    Kind kind = Kind::MachService;
    QString serviceName;
    QString peerAddress;
    uint64_t options = 0;

    mutable std::mutex mutex;
    std::shared_ptr<NSXPCInvocationTarget> exportedObject;
    std::shared_ptr<NSXPCInterface> exportedInterface;
    std::shared_ptr<NSXPCInterface> remoteInterface;
    std::weak_ptr<NSXPCConnectionDelegate> delegate;
    std::optional<QDBusConnection> bus;
    QString busName;
    bool ownsBus = false;
    bool resumed = false;
    bool invalidated = false;

    ConnectionThread* thread = nullptr;
    ExportedObjectAdaptor* adaptor = nullptr;
    // A link to a listener's endpoint: calls wait until the listener has let the link in.
    bool linkLetIn = true;
    QPointer<QObject> linkCheck;  // the ping that finds out, on the connection's queue
    std::vector<std::pair<QDBusMessage, QPointer<CallReceiver>>> held;
    std::shared_ptr<platform::xpc::PendingCalls> pending =
        std::make_shared<platform::xpc::PendingCalls>();
};

namespace platform::xpc {

void QueueContext::post(std::function<void()> block) {
    {
        platform::xpc::MarkedLock lock(mutex_);
        blocks_.push_back(std::move(block));
    }
    auto* wake = new QEvent(QEvent::User);
    handOver(this);
    QCoreApplication::postEvent(this, wake);
}

bool QueueContext::event(QEvent* event) {
    takeOver(this);
    if (event->type() != QEvent::User) {
        return QObject::event(event);
    }
    std::function<void()> block;
    {
        platform::xpc::MarkedLock lock(mutex_);
        if (blocks_.empty()) {
            return true;
        }
        block = std::move(blocks_.front());
        blocks_.pop_front();
    }
    block();
    return true;
}

ConnectionThread::ConnectionThread(NSXPCConnection* o, const QString& label) : owner(o) {
    setObjectName(label);
}

void ConnectionThread::run() {
    tCurrentThread = this;
    exec();
    // What the queue deletes last goes now, and whoever joins the thread takes over after it
    // (Qt's join is out of the thread sanitizer's sight).
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    tCurrentThread = nullptr;
    handOver(this);
}

CallReceiver::CallReceiver(std::weak_ptr<NSXPCConnection> connection,
                           const NSXPCMethodDescription* method, NSXPCBlock reply,
                           NSXPCErrorHandler errorHandler, std::shared_ptr<PendingCalls> pending)
    : connection_(std::move(connection)),
      method_(method),
      reply_(std::move(reply)),
      errorHandler_(std::move(errorHandler)),
      pending_(std::move(pending)) {
    PendingCalls::Lock lock(*pending_);
    pending_->live.insert(this);
}

CallReceiver::~CallReceiver() {
    PendingCalls::Lock lock(*pending_);
    pending_->live.erase(this);
}

bool CallReceiver::finish() {
    if (done_) {
        return false;
    }
    done_ = true;
    handOver(this);
    deleteLater();  // on this thread, which is the receiver's own
    return true;
}

void CallReceiver::watch(const QDBusPendingCall& call) {
    takeOver(this);
    watcher_ = new ReplyWatcher(call, this);
    QObject::connect(watcher_, &QDBusPendingCallWatcher::finished, this,
                     [this](QDBusPendingCallWatcher* finished) { onFinished(finished->reply()); });
    if (watcher_->isFinished()) {
        // Over before it was watched (the bus refused it): QtDBus announces that on the sender's
        // thread, which may run no event loop. The answer comes once either way (see finish()).
        QMetaObject::invokeMethod(
            this, [this] { onFinished(watcher_->reply()); }, Qt::QueuedConnection);
    }
}

void CallReceiver::handTo(QThread* thread) {
    // Marked before the move, after the last read of our own: the answer may be waiting
    // already, and run there at once.
    if (watcher_ != nullptr) {
        handOver(watcher_);
    }
    handOver(this);
    moveToThread(thread);  // its watcher, a child, moves with it
}

void CallReceiver::fail(int64_t code, const QString& why) {
    if (finish() && errorHandler_) {
        errorHandler_(connectionError(code, why));
    }
}

void CallReceiver::onFinished(const QDBusMessage& answer) {
    takeOver(this);
    if (answer.type() != QDBusMessage::ReplyMessage) {
        const QDBusError error(answer);
        if (finish() && errorHandler_) {
            errorHandler_(connectionError(codeForBusError(error), error.message()));
        }
        return;
    }
    if (!finish() || !method_->hasReply) {
        return;  // a method without a reply block: its empty return only confirms delivery
    }
    auto params = fromWireList(answer.arguments(), method_->replyArguments);
    if (!params) {
        os_log_error(OS_LOG_DEFAULT, "NSXPCConnection: reply to %s does not match its block (%s)",
                     std::string(method_->selector), answer.signature());
        if (errorHandler_) {
            errorHandler_(connectionError(NSXPCConnectionReplyInvalid,
                                          QStringLiteral("reply does not match its block")));
        }
        return;
    }
    NSInvocation invocation(
        QString::fromLatin1(method_->selector.data(), qsizetype(method_->selector.size())), *params,
        std::make_shared<NSXPCBlockTarget>(std::move(reply_)));
    if (auto connection = connection_.lock()) {
        connection->deliver(invocation, true);
    } else {
        invocation.invoke();
    }
}

QString ExportedObjectAdaptor::introspect(const QString&) const {
    auto connection = connection_.lock();
    auto iface = connection ? connection->exportedInterface() : nullptr;
    return iface ? iface->introspectionXml() : QString();
}

bool ExportedObjectAdaptor::handleMessage(const QDBusMessage& message, const QDBusConnection&) {
    if (isBusHousekeeping(message)) {
        return false;
    }
    auto connection = connection_.lock();
    if (!connection) {
        return false;
    }
    message.setDelayedReply(true);
    connection->handleIncoming(message);  // this object lives on the connection's queue
    return true;
}

QString ListenerAdaptor::introspect(const QString& path) const {
    return interface && path == interface->objectPath() ? interface->introspectionXml() : QString();
}

bool ListenerAdaptor::handleMessage(const QDBusMessage& message, const QDBusConnection&) {
    if (isBusHousekeeping(message)) {
        return false;
    }
    message.setDelayedReply(true);
    listener_->route(message);
    return true;
}

}  // namespace platform::xpc

// --- NSXPCConnection

NSXPCConnection::NSXPCConnection() : d_(std::make_unique<Private>()) {
    platform::xpc::registerMetaTypes();
    gConnectionsCreated.fetch_add(1);
}

static void startQueue(NSXPCConnection* connection, NSXPCConnection::Private& d,
                       const QString& label) {
    d.thread = new ConnectionThread(connection, label);
    d.thread->context = new platform::xpc::QueueContext();
    d.thread->context->moveToThread(d.thread);
    d.thread->start();
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

namespace platform::xpc {

// Joins and deletes the threads of connections that were destroyed on their own queue, where a
// thread cannot wait for itself. Joined at process exit.
class ThreadReaper {
public:
    static ThreadReaper& instance() {
        static ThreadReaper reaper;
        return reaper;
    }
    void add(QThread* thread) {
        {
            platform::xpc::MarkedLock lock(mutex_);
            threads_.push_back(thread);
        }
        wake_.notify_one();
    }
    ~ThreadReaper() {
        {
            platform::xpc::MarkedLock lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_one();
        worker_.join();
    }

private:
    ThreadReaper() : worker_([this] { run(); }) {}
    void run() {
        std::unique_lock lock(mutex_);
        for (;;) {
            wake_.wait(lock, [this] { return stopping_ || !threads_.empty(); });
            if (threads_.empty()) {
                return;  // stopping, and every thread handed over is joined
            }
            QThread* thread = threads_.front();
            threads_.pop_front();
            lock.unlock();
            thread->wait();
            delete thread;
            lock.lock();
        }
    }
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<QThread*> threads_;
    bool stopping_ = false;
    std::thread worker_;
};

}  // namespace platform::xpc

NSXPCConnection::~NSXPCConnection() {
    invalidate();
    ConnectionThread* thread = d_->thread;
    thread->owner = nullptr;
    // The queue's last block: whatever QtDBus may still post to (receivers of calls nobody is
    // left to answer for) goes on its own thread, before the thread ends.
    auto last = [pending = d_->pending, context = thread->context, check = d_->linkCheck] {
        if (check) {
            check->deleteLater();
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
        platform::xpc::ThreadReaper::instance().add(thread);
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
    return tCurrentThread != nullptr ? tCurrentThread->owner.load() : nullptr;
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
    auto wire = platform::xpc::toWireList(arguments, method->arguments);
    if (!wire) {
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
                                       platform::xpc::memberForSelector(selector));
    message.setArguments(*wire);
    auto* receiver =
        new CallReceiver(weak_from_this(), method, std::move(reply), errorHandler, d_->pending);
    platform::xpc::MarkedLock lock(d_->mutex);  // held calls go out first, and in order
    if (!d_->linkLetIn) {
        receiver->handTo(d_->thread);
        d_->held.emplace_back(message, receiver);
        platform::xpc::handOver(&d_->held);  // read on the queue (see PendingCalls::Lock)
        return;
    }
    receiver->watch(bus->asyncCall(message, kNoTimeout));
    receiver->handTo(d_->thread);
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
    auto* watcher = new platform::xpc::ReplyWatcher(d_->bus->asyncCall(ping, kNoTimeout));
    d_->linkCheck = watcher;
    std::weak_ptr<NSXPCConnection> weak = weak_from_this();
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher,
                     [weak, watcher](QDBusPendingCallWatcher*) {
                         watcher->deleteLater();
                         if (auto self = weak.lock()) {
                             self->sendHeld();
                         }
                     });
    platform::xpc::handOver(watcher);
    watcher->moveToThread(d_->thread);
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

// --- NSXPCListener

namespace platform::xpc {

// A new folder, mode 0700, under $XDG_RUNTIME_DIR (or the temporary folder), for one listener's
// socket; empty when none can be made.
QString makePrivateSocketFolder() {
    const QByteArray runtime = qgetenv("XDG_RUNTIME_DIR");
    const QString base = !runtime.isEmpty() && QFileInfo(QFile::decodeName(runtime)).isDir()
                             ? QFile::decodeName(runtime)
                             : QDir::tempPath();
    QByteArray pattern = QFile::encodeName(base + QStringLiteral("/lumaro-xpc-XXXXXX"));
    const char* made = ::mkdtemp(pattern.data());  // mkdtemp makes it 0700
    return made != nullptr ? QFile::decodeName(made) : QString();
}

// A D-Bus address value: bytes outside the optionally-escaped set as %XX.
QString escapedAddressValue(const QString& value) {
    QString out;
    for (const char c : QFile::encodeName(value)) {
        const auto u = static_cast<unsigned char>(c);
        if (std::isalnum(u) || std::strchr("-_/.\\*", c) != nullptr) {
            out += QLatin1Char(c);
        } else {
            out += QStringLiteral("%%%1").arg(u, 2, 16, QLatin1Char('0'));
        }
    }
    return out;
}

}  // namespace platform::xpc

struct NSXPCListener::Private {
    QString name;  // empty: anonymous
    QDBusServer* server = nullptr;
    QString socketFolder;  // anonymous: the private folder that holds the listening socket
    std::weak_ptr<NSXPCListenerDelegate> delegate;
    std::optional<QDBusConnection> bus;
    QString busName;
    QThread thread;
    platform::xpc::QueueContext* context = nullptr;  // runs blocks on the listener's thread
    ListenerAdaptor* adaptor = nullptr;  // moved to the listener's thread once registered
    QDBusServiceWatcher* watcher = nullptr;
    std::map<QString, std::shared_ptr<NSXPCConnection>> peers;  // touched on the listener's thread
    std::mutex mutex;
};

NSXPCListener::NSXPCListener(QString machServiceName) : d_(std::make_unique<Private>()) {
    platform::xpc::registerMetaTypes();
    d_->name = std::move(machServiceName);
    d_->adaptor = new ListenerAdaptor(this);
    d_->context = new platform::xpc::QueueContext();
    d_->thread.setObjectName(QStringLiteral("xpc.listener.%1").arg(d_->name));
    d_->context->moveToThread(&d_->thread);
    d_->thread.start();
}

std::unique_ptr<NSXPCListener> NSXPCListener::anonymousListener() {
    return std::make_unique<NSXPCListener>(QString());
}

NSXPCListener::~NSXPCListener() {
    invalidate();
    // What QtDBus's thread posts to goes on the listener's thread, which is then joined.
    auto last = [this] {
        d_->peers.clear();
        delete d_->adaptor;
        d_->adaptor = nullptr;
        d_->context->deleteLater();
        QThread::currentThread()->quit();
    };
    if (d_->thread.isRunning()) {
        auto ran = std::make_shared<std::atomic<bool>>(false);
        d_->context->post([last, ran] {
            ran->store(true);
            last();
        });
        d_->thread.quit();  // as for a connection's queue
        d_->thread.wait();
        if (!ran->load()) {
            d_->peers.clear();
            delete d_->adaptor;
            delete d_->context;
        }
    } else {
        last();
        delete d_->context;
    }
    if (!d_->socketFolder.isEmpty()) {
        QDir(d_->socketFolder).removeRecursively();
    }
}

void NSXPCListener::setDelegate(std::weak_ptr<NSXPCListenerDelegate> delegate) {
    platform::xpc::MarkedLock lock(d_->mutex);
    d_->delegate = std::move(delegate);
}

void NSXPCListener::setExportedInterface(std::shared_ptr<NSXPCInterface> interface) {
    d_->adaptor->interface = std::move(interface);
}

bool NSXPCListener::resume(QString* error) {
    platform::xpc::MarkedLock lock(d_->mutex);
    if (d_->name.isEmpty()) {
        if (d_->server != nullptr) {
            return d_->server->isConnected();
        }
        // The server lives on the listener's thread: QtDBus announces each new peer there and
        // lets its messages in only after the announcement has been handled, so the peer's
        // exported object is in place before its first message.
        // The socket sits in a folder of its own that only this user can enter, so nobody
        // else can even reach it to try the D-Bus handshake.
        d_->socketFolder = platform::xpc::makePrivateSocketFolder();
        if (d_->socketFolder.isEmpty()) {
            if (error) {
                *error = QStringLiteral("cannot make a private folder for the socket");
            }
            return false;
        }
        d_->server = new platform::xpc::PeerServer(
            QStringLiteral("unix:dir=") + platform::xpc::escapedAddressValue(d_->socketFolder));
        if (!d_->server->isConnected()) {
            if (error) {
                *error = QStringLiteral("cannot listen: %1").arg(d_->server->lastError().message());
            }
            return false;
        }
        d_->server->moveToThread(&d_->thread);
        QObject::connect(d_->server, &QDBusServer::newConnection, d_->server,
                         [this](const QDBusConnection& peer) { acceptPeer(peer); });
        platform::xpc::handOver(d_->server);
        return true;
    }
    d_->busName = QStringLiteral("lumaro-xpc-listener-%1").arg(gBusNameCounter.fetch_add(1));
    d_->bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, d_->busName);
    if (!d_->bus->isConnected()) {
        if (error) {
            *error = QStringLiteral("cannot connect to the session bus: %1")
                         .arg(d_->bus->lastError().message());
        }
        return false;
    }
    // Registered before the adaptor moves to the listener's thread: for a sub-path registration
    // QtDBus gives the object a helper child, made on the registering thread, which moves with it.
    const bool registered =
        d_->bus->registerVirtualObject(QStringLiteral("/"), d_->adaptor, QDBusConnection::SubPath);
    d_->adaptor->moveToThread(&d_->thread);
    if (!registered) {
        if (error) {
            *error = QStringLiteral("cannot register the object tree");
        }
        return false;
    }
    if (!d_->bus->registerService(d_->name)) {
        if (error) {
            *error =
                QStringLiteral("cannot own %1: %2").arg(d_->name, d_->bus->lastError().message());
        }
        return false;
    }
    d_->watcher = new QDBusServiceWatcher();
    d_->watcher->setConnection(*d_->bus);
    d_->watcher->setWatchMode(QDBusServiceWatcher::WatchForUnregistration);
    d_->watcher->moveToThread(&d_->thread);
    QObject::connect(d_->watcher, &QDBusServiceWatcher::serviceUnregistered, d_->adaptor,
                     [this](const QString& peer) {
                         d_->watcher->removeWatchedService(peer);
                         d_->peers.erase(peer);
                     });
    platform::xpc::handOver(d_->adaptor);
    return true;
}

NSXPCListenerEndpoint NSXPCListener::endpoint() const {
    platform::xpc::MarkedLock lock(d_->mutex);
    if (d_->server == nullptr || !d_->server->isConnected()) {
        return {};
    }
    return NSXPCListenerEndpoint(d_->server->address());
}

void NSXPCListener::acceptPeer(const QDBusConnection& peer) {
    std::shared_ptr<NSXPCListenerDelegate> delegate;
    {
        platform::xpc::MarkedLock lock(d_->mutex);
        delegate = d_->delegate.lock();
    }
    // Peers that went away since the last one came are dropped now.
    std::erase_if(d_->peers, [](const auto& entry) {
        auto& peerData = *entry.second->d_;
        platform::xpc::MarkedLock peerLock(peerData.mutex);
        return !peerData.bus || !peerData.bus->isConnected();
    });
    std::shared_ptr<NSXPCConnection> connection(new NSXPCConnection());
    connection->d_->kind = NSXPCConnection::Private::Kind::AcceptedPeer;
    connection->d_->bus = peer;
    connection->d_->busName = peer.name();
    connection->d_->ownsBus = true;
    startQueue(connection.get(), *connection->d_, QStringLiteral("xpc.connection.peer"));
    if (!delegate || !delegate->listener(this, connection)) {
        os_log(OS_LOG_DEFAULT, "NSXPCListener: refused a peer connection");
        return;  // the connection goes with its last reference, and the link with it
    }
    connection->resume();
    d_->peers.emplace(peer.name(), connection);
}

void NSXPCListener::invalidate() {
    QDBusServer* server = nullptr;
    std::optional<QDBusConnection> bus;
    {
        // From here on route() takes no more messages, so it makes no new connections.
        platform::xpc::MarkedLock lock(d_->mutex);
        std::swap(server, d_->server);
        std::swap(bus, d_->bus);
    }
    // Stop listening and end every peer's connection, on the thread that owns them, the thread
    // QtDBus posts the listener's messages to. Nothing may keep a copy of the link afterwards (the
    // watcher holds one), or it would stay open and the peers' calls in flight would wait for ever.
    auto stop = [this, server, bus = std::move(bus)]() mutable {
        delete server;
        delete d_->watcher;
        d_->watcher = nullptr;
        for (auto& entry : d_->peers) {
            entry.second->invalidate();
        }
        d_->peers.clear();
        if (bus) {
            bus->unregisterService(d_->name);
            bus->unregisterObject(QStringLiteral("/"), QDBusConnection::UnregisterTree);
            bus.reset();
            QDBusConnection::disconnectFromBus(d_->busName);
        }
    };
    if (QThread::currentThread() == &d_->thread || !d_->thread.isRunning()) {
        stop();
        return;
    }
    // Waits by polling an atomic flag: rare, short, and plain to the thread sanitizer.
    auto done = std::make_shared<std::atomic<bool>>(false);
    d_->context->post([stop = std::move(stop), done]() mutable {
        stop();
        done->store(true, std::memory_order_release);
    });
    while (!done->load(std::memory_order_acquire)) {
        QThread::usleep(200);
    }
}

void NSXPCListener::route(const QDBusMessage& message) {
    std::shared_ptr<NSXPCListenerDelegate> delegate;
    std::optional<QDBusConnection> bus;
    {
        platform::xpc::MarkedLock lock(d_->mutex);
        delegate = d_->delegate.lock();
        bus = d_->bus;
    }
    if (!bus) {
        return;
    }
    const QString peer = message.service();
    auto found = d_->peers.find(peer);
    std::shared_ptr<NSXPCConnection> connection;
    if (found != d_->peers.end()) {
        connection = found->second;
    } else {
        connection.reset(new NSXPCConnection());
        connection->d_->kind = NSXPCConnection::Private::Kind::Accepted;
        connection->d_->serviceName = peer;
        connection->d_->bus = bus;
        startQueue(connection.get(), *connection->d_,
                   QStringLiteral("xpc.connection.%1").arg(peer));
        if (!delegate || !delegate->listener(this, connection)) {
            bus->send(message.createErrorReply(QDBusError::AccessDenied,
                                               QStringLiteral("connection refused")));
            return;
        }
        connection->resume();
        d_->peers.emplace(peer, connection);
        if (d_->watcher != nullptr) {
            d_->watcher->addWatchedService(peer);
        }
    }
    connection->dispatchOnQueue([connection, message] { connection->handleIncoming(message); });
}
