// Internals shared by connections, listeners and the QtDBus plumbing behind them.
#pragma once

#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDBusPendingCallWatcher>
#include <QDBusServer>
#include <QDBusVirtualObject>
#include <QObject>
#include <QPointer>
#include <QThread>
#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/dispatch/handover.h"
#include "platform/dispatch/waker.h"
#include "platform/xpc/NSXPCConnection.h"

namespace platform::xpc {

// Objects made on one thread and used on a connection's or listener's thread reach it through
// Qt's event queues: the sender hands each over once written, the receiving object's event()
// takes it over before reading anything; the connection layer's locks are marked locks.
using platform::dispatch::handOver;
using platform::dispatch::MarkedLock;
using platform::dispatch::takeOver;

// The QObjects below have no signals or slots of their own and so no Q_OBJECT: QtDBus's thread
// calls metaObject() on registered objects, and Qt's own version of it is not instrumented code
// racing with our constructors in the thread sanitizer's eyes.

// Runs blocks posted to it on its thread, in order, one per wake-up.
class QueueContext final : public platform::dispatch::Waker {
public:
    QueueContext() : Waker([this] { runNext(); }) {}
    void post(std::function<void()> block);

private:
    void runNext();
    std::mutex mutex_;
    std::deque<std::function<void()>> blocks_;
};

// The thread behind a connection's private queue.
class ConnectionThread final : public QThread {
    Q_OBJECT
public:
    ConnectionThread(NSXPCConnection* owner, const QString& label);
    void run() override;
    // The connection thread running the caller, or null.
    static ConnectionThread* current();

    std::atomic<NSXPCConnection*> owner;
    QueueContext* context = nullptr;  // lives in this thread; runs posted blocks
};

class CallReceiver;

// A QObject of Qt's whose events arrive on the thread it was handed to: its event() takes it
// over before Qt runs anything connected to it.
template <class Base>
class TakenOver final : public Base {
public:
    using Base::Base;
    bool event(QEvent* event) override {
        takeOver(this);
        return Base::event(event);
    }
};

// A pending call's watcher whose answer arrives on the thread it was handed to.
using ReplyWatcher = TakenOver<QDBusPendingCallWatcher>;

// The receivers of a connection's calls that still exist: those in flight are failed when the
// connection is invalidated, and any left when its queue has stopped are deleted with it.
struct PendingCalls {
    // Holds the lock, marked to the thread sanitizer as well: Qt frees memory out of its sight,
    // and a lock placed where such memory was can look already destroyed to it, its pairs lost.
    class Lock {
    public:
        explicit Lock(PendingCalls& calls) : calls_(calls), lock_(calls.mutex) {
            takeOver(&calls_.live);
        }
        ~Lock() { handOver(&calls_.live); }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

    private:
        PendingCalls& calls_;
        std::lock_guard<std::mutex> lock_;
    };
    std::mutex mutex;
    std::unordered_set<CallReceiver*> live;
};

// Receives the outcome of one call, on the connection's queue. Exactly one of the reply, the
// error or a local failure is acted on; the object then deletes itself, on its own thread.
// QtDBus never holds a pointer to it: the answer comes through a pending-call watcher, its child,
// whose queued signal connection Qt cuts safely when the receiver goes, whatever thread answers.
class CallReceiver final : public QObject {
public:
    CallReceiver(std::weak_ptr<NSXPCConnection> connection, const NSXPCMethodDescription* method,
                 NSXPCBlock reply, NSXPCErrorHandler errorHandler,
                 std::shared_ptr<PendingCalls> pending);
    ~CallReceiver() override;

    // Watches `call`; called on the thread the receiver lives on.
    void watch(const QDBusPendingCall& call);
    // From here on the receiver belongs to `thread` (the caller must not touch it again); with
    // `call`, it watches that call there.
    void handTo(QThread* thread, const std::optional<QDBusPendingCall>& call = std::nullopt);
    void fail(int64_t code, const QString& why);
    bool event(QEvent* event) override {
        takeOver(this);
        return QObject::event(event);
    }

private:
    void onFinished(const QDBusMessage& answer);
    bool finish();
    std::weak_ptr<NSXPCConnection> connection_;
    const NSXPCMethodDescription* method_;
    NSXPCBlock reply_;
    NSXPCErrorHandler errorHandler_;
    std::shared_ptr<PendingCalls> pending_;
    bool done_ = false;
};

// The exported object as D-Bus sees it on a connection of its own.
class ExportedObjectAdaptor final : public QDBusVirtualObject {
public:
    explicit ExportedObjectAdaptor(std::weak_ptr<NSXPCConnection> connection)
        : connection_(std::move(connection)) {}
    QString introspect(const QString& path) const override;
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override;
    bool event(QEvent* event) override {
        takeOver(this);
        return QDBusVirtualObject::event(event);
    }

private:
    std::weak_ptr<NSXPCConnection> connection_;
};

// Every object path of a listener's bus name: routes each message to its peer's connection.
class ListenerAdaptor final : public QDBusVirtualObject {
public:
    explicit ListenerAdaptor(NSXPCListener* listener) : listener_(listener) {}
    QString introspect(const QString& path) const override;
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override;
    bool event(QEvent* event) override {
        takeOver(this);
        return QDBusVirtualObject::event(event);
    }

    std::shared_ptr<NSXPCInterface> interface;

private:
    NSXPCListener* listener_;
};

// An anonymous listener's server: announces new peers on the listener's thread.
using PeerServer = TakenOver<QDBusServer>;

// The error a peer answers with when its reply block was called with values that do not match the
// interface: the caller sees the same code as for such a reply arriving.
extern const QString kReplyInvalidErrorName;

// Numbers the private bus links that connections and listeners open.
extern std::atomic<int> gBusNameCounter;

// A connection failure in NSPlatformErrorDomain, `why` as its description.
NSErrorPtr connectionError(int64_t code, const QString& why);

// Starts the thread behind a connection's private queue.
void startQueue(NSXPCConnection* connection, NSXPCConnection::Private& d, const QString& label);

// Joins and deletes, on a thread of its own, the thread of a connection destroyed on its own queue.
void reapThread(QThread* thread);

}  // namespace platform::xpc

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

    platform::xpc::ConnectionThread* thread = nullptr;
    platform::xpc::ExportedObjectAdaptor* adaptor = nullptr;
    // A link to a listener's endpoint: calls wait until the listener has let the link in.
    bool linkLetIn = true;
    QPointer<QObject> linkCheck;  // the ping that finds out, on the connection's queue
    std::vector<std::pair<QDBusMessage, QPointer<platform::xpc::CallReceiver>>> held;
    std::shared_ptr<platform::xpc::PendingCalls> pending =
        std::make_shared<platform::xpc::PendingCalls>();
};
