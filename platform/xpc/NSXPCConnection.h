// Connections between processes over D-Bus.
//
// A connection made with a mach service name talks to the session-bus name of the same text (its
// own private link to the bus, so that the peer sees one client per connection). Messages to the
// remote object go through a proxy; every send is asynchronous and returns at once. Each
// connection owns one thread with an event loop, its private queue: replies, error handlers and
// calls from the remote side run there, never on the sender's thread nor on the main queue.
//
// Every incoming invocation (a call on the exported object, or a reply for a reply block) is handed
// to the delegate's connection:handleInvocation:isReply: hook when the delegate has one; otherwise
// the connection invokes it itself. A transport failure (no owner of the name, peer gone, bus gone,
// arguments that cannot be sent) reaches the send's error handler exactly once, with
// NSXPCConnectionInterrupted or NSXPCConnectionInvalid in NSPlatformErrorDomain, and the reply
// block is then never called. A reply whose values do not match the interface reaches the error
// handler with NSXPCConnectionReplyInvalid.
#pragma once

#include <QString>
#include <QVariantList>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>

#include "platform/foundation/NSError.h"
#include "platform/xpc/NSInvocation.h"
#include "platform/xpc/NSXPCInterface.h"
#include "platform/xpc/NSXPCValue.h"

class NSXPCConnection;
class QDBusConnection;
class QDBusMessage;
class QThread;
class QObject;

namespace platform::xpc {
class ConnectionThread;
class CallReceiver;
class ExportedObjectAdaptor;
class ListenerAdaptor;
}  // namespace platform::xpc

class NSXPCConnectionDelegate {
public:
    virtual ~NSXPCConnectionDelegate() = default;
    // Whether the delegate implements the invocation hook below.
    virtual bool respondsToHandleInvocation() const { return false; }
    // connection:handleInvocation:isReply: — receives every incoming invocation and must invoke it.
    virtual void connection(NSXPCConnection* connection, NSInvocation& handleInvocation,
                            bool isReply) {}
};

using NSXPCErrorHandler = std::function<void(const NSErrorPtr&)>;

// The stand-in for the remote object: each send is one asynchronous message.
class NSXPCRemoteObjectProxy {
public:
    NSXPCRemoteObjectProxy(std::weak_ptr<NSXPCConnection> connection, NSXPCErrorHandler handler)
        : connection_(std::move(connection)), errorHandler_(std::move(handler)) {}

    // Sends `selector` of the remote interface with `arguments` (without the reply block) and,
    // for methods that have one, the reply block.
    void send(std::string_view selector, const QVariantList& arguments, NSXPCBlock reply = {});

private:
    std::weak_ptr<NSXPCConnection> connection_;
    NSXPCErrorHandler errorHandler_;
};

class NSXPCConnection : public std::enable_shared_from_this<NSXPCConnection> {
public:
    struct Private;

    // initWithMachServiceName:options: — the options value is kept as given.
    static std::shared_ptr<NSXPCConnection> initWithMachServiceName(const QString& name,
                                                                    uint64_t options);
    // initWithListenerEndpoint: — a peer-to-peer connection to the listener at that address.
    static std::shared_ptr<NSXPCConnection> initWithListenerEndpoint(
        const NSXPCListenerEndpoint& endpoint);

    ~NSXPCConnection();
    NSXPCConnection(const NSXPCConnection&) = delete;
    NSXPCConnection& operator=(const NSXPCConnection&) = delete;

    const QString& serviceName() const;
    uint64_t options() const;

    void setExportedObject(std::shared_ptr<NSXPCInvocationTarget> object);
    std::shared_ptr<NSXPCInvocationTarget> exportedObject() const;
    void setExportedInterface(std::shared_ptr<NSXPCInterface> interface);
    std::shared_ptr<NSXPCInterface> exportedInterface() const;
    void setRemoteObjectInterface(std::shared_ptr<NSXPCInterface> interface);
    std::shared_ptr<NSXPCInterface> remoteObjectInterface() const;
    // The delegate is held weakly.
    void setDelegate(std::weak_ptr<NSXPCConnectionDelegate> delegate);
    std::shared_ptr<NSXPCConnectionDelegate> delegate() const;

    // Connects and starts taking messages for the exported object.
    void resume();
    // Drops the link; later sends fail with NSXPCConnectionInvalid.
    void invalidate();

    std::shared_ptr<NSXPCRemoteObjectProxy> remoteObjectProxy();
    std::shared_ptr<NSXPCRemoteObjectProxy> remoteObjectProxyWithErrorHandler(
        NSXPCErrorHandler handler);

    // The connection whose private queue runs the caller, or null.
    static NSXPCConnection* currentConnection();
    // The label of this connection's private queue (also its thread's name).
    QString queueLabel() const;
    // The peer's name on the bus (a well-known name, a unique name, or empty for peer-to-peer).
    QString uniqueBusName() const;
    // How many NSXPCConnection objects this process has made so far.
    static int connectionsCreated();

    // Runs `block` on the connection's private queue.
    void dispatchOnQueue(std::function<void()> block);

private:
    friend class NSXPCRemoteObjectProxy;
    friend class NSXPCListener;
    friend class platform::xpc::CallReceiver;
    friend class platform::xpc::ExportedObjectAdaptor;
    friend class platform::xpc::ListenerAdaptor;

    NSXPCConnection();
    void send(std::string_view selector, const QVariantList& arguments, NSXPCBlock reply,
              const NSXPCErrorHandler& errorHandler);
    void fail(const NSXPCErrorHandler& handler, int64_t code, const QString& why);
    void deliver(NSInvocation& invocation, bool isReply);
    void handleIncoming(const QDBusMessage& message);
    void checkLinkLetIn();
    void sendHeld();

    std::unique_ptr<Private> d_;
};

class NSXPCListener;

class NSXPCListenerDelegate {
public:
    virtual ~NSXPCListenerDelegate() = default;
    // listener:shouldAcceptNewConnection: — configure the connection (exported interface and
    // object, remote interface, delegate) and answer whether to accept it. The listener resumes
    // accepted connections.
    virtual bool listener(NSXPCListener* listener,
                          const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) = 0;
};

// Either owns a session-bus name and makes one connection per peer that sends it a message, or
// (anonymousListener) listens on a private socket of its own and makes one connection per peer
// that connects to its endpoint with initWithListenerEndpoint:, with no bus in between.
class NSXPCListener {
public:
    explicit NSXPCListener(QString machServiceName);
    // A listener without a name, reached only through its endpoint.
    static std::unique_ptr<NSXPCListener> anonymousListener();
    ~NSXPCListener();
    NSXPCListener(const NSXPCListener&) = delete;
    NSXPCListener& operator=(const NSXPCListener&) = delete;

    void setDelegate(std::weak_ptr<NSXPCListenerDelegate> delegate);
    // The interface that introspection shows (connections still choose their own).
    void setExportedInterface(std::shared_ptr<NSXPCInterface> interface);
    // Connects to the bus and asks for the name (or, anonymous, starts listening); false (with
    // `error` set) when that fails.
    bool resume(QString* error = nullptr);
    // Releases the name and the bus, or stops listening and drops every peer.
    void invalidate();
    // Where an anonymous listener can be reached once resumed (a null endpoint otherwise).
    NSXPCListenerEndpoint endpoint() const;

private:
    friend class platform::xpc::ListenerAdaptor;
    void route(const QDBusMessage& message);
    void acceptPeer(const QDBusConnection& peer);
    bool askDelegate(const std::shared_ptr<NSXPCConnection>& connection);
    struct Private;
    std::unique_ptr<Private> d_;
};
