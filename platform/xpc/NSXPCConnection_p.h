// Internals of NSXPCConnection that need Qt's meta-object system.
#pragma once

#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QObject>
#include <QThread>
#include <memory>
#include <mutex>
#include <unordered_set>

#include "platform/xpc/NSXPCConnection.h"

namespace platform::xpc {

// The thread behind a connection's private queue.
class ConnectionThread final : public QThread {
    Q_OBJECT
public:
    ConnectionThread(NSXPCConnection* owner, const QString& label);
    void run() override;

    std::atomic<NSXPCConnection*> owner;
    QObject* context = nullptr;  // lives in this thread; target of posted blocks
};

class CallReceiver;

// The receivers of a connection's calls that still exist: those in flight are failed when the
// connection is invalidated, and any left when its queue has stopped are deleted with it.
struct PendingCalls {
    std::mutex mutex;
    std::unordered_set<CallReceiver*> live;
};

// Receives the outcome of one call, on the connection's queue. Exactly one of the reply, the
// error or a local failure is acted on; the object then deletes itself.
class CallReceiver final : public QObject {
    Q_OBJECT
public:
    CallReceiver(std::weak_ptr<NSXPCConnection> connection, const NSXPCMethodDescription* method,
                 NSXPCBlock reply, NSXPCErrorHandler errorHandler,
                 std::shared_ptr<PendingCalls> pending);
    ~CallReceiver() override;

    void fail(int64_t code, const QString& why);

public Q_SLOTS:
    void onReply(const QDBusMessage& reply);
    void onError(const QDBusError& error, const QDBusMessage& message);

private:
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
    Q_OBJECT
public:
    explicit ExportedObjectAdaptor(std::weak_ptr<NSXPCConnection> connection)
        : connection_(std::move(connection)) {}
    QString introspect(const QString& path) const override;
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override;

private:
    std::weak_ptr<NSXPCConnection> connection_;
};

// Every object path of a listener's bus name: routes each message to its peer's connection.
class ListenerAdaptor final : public QDBusVirtualObject {
    Q_OBJECT
public:
    explicit ListenerAdaptor(NSXPCListener* listener) : listener_(listener) {}
    QString introspect(const QString& path) const override;
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override;

    std::shared_ptr<NSXPCInterface> interface;

private:
    NSXPCListener* listener_;
};

}  // namespace platform::xpc
