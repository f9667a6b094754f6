// The QtDBus plumbing behind connections and listeners: the queues' threads and contexts, the
// receivers of calls, and the virtual objects that take messages from the bus.
#include <QCoreApplication>
#include <QDBusPendingCallWatcher>
#include <QMetaObject>
#include <condition_variable>
#include <deque>
#include <thread>

#include "platform/log/os_log.h"
#include "platform/xpc/NSXPCConnection_p.h"

namespace platform::xpc {

namespace {

thread_local ConnectionThread* tCurrentThread = nullptr;

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

const QString kReplyInvalidErrorName = QStringLiteral("com.vantor.xpc.Error.ReplyInvalid");

NSErrorPtr connectionError(int64_t code, const QString& why) {
    QVariantMap info;
    if (!why.isEmpty()) {
        info.insert(NSLocalizedDescriptionKey, why);
    }
    return NSError::errorWithDomain(NSPlatformErrorDomain, code, info);
}

void QueueContext::post(std::function<void()> block) {
    {
        platform::xpc::MarkedLock lock(mutex_);
        blocks_.push_back(std::move(block));
    }
    wake();
}

void QueueContext::runNext() {
    std::function<void()> block;
    {
        platform::xpc::MarkedLock lock(mutex_);
        if (blocks_.empty()) {
            return;
        }
        block = std::move(blocks_.front());
        blocks_.pop_front();
    }
    block();
}

ConnectionThread::ConnectionThread(NSXPCConnection* o, const QString& label) : owner(o) {
    setObjectName(label);
}

ConnectionThread* ConnectionThread::current() {
    return tCurrentThread;
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
    // A call already over (refused by the bus library, or answered) is announced all the same,
    // through this thread's event loop.
    auto* watcher = new ReplyWatcher(call, this);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, this,
                     [this](QDBusPendingCallWatcher* finished) { onFinished(finished->reply()); });
}

void CallReceiver::handTo(QThread* thread, const std::optional<QDBusPendingCall>& call) {
    if (call) {
        // A pending call's watcher leaves a helper object of QtDBus's on the thread that makes
        // it, and the call's last owner deletes that helper on whatever thread it lets go. Made
        // on the sender's thread, the helper could be deleted on the queue while the sender's
        // thread still delivered its announcement of an answer that was in before the watcher;
        // and a sender's thread without an event loop would never deliver it. So the watcher is
        // made on the queue, where helper, watcher and receiver live and end on one thread: the
        // block is posted here, before the move, and moves with the receiver.
        QMetaObject::invokeMethod(
            this, [this, watched = *call] { watch(watched); }, Qt::QueuedConnection);
    }
    handOver(this);  // marked before the move, after the last write of the sender's
    moveToThread(thread);
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
            takeOver(thread);  // what the thread did before it ended (Qt's join is out of sight)
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

void reapThread(QThread* thread) {
    ThreadReaper::instance().add(thread);
}

}  // namespace platform::xpc
