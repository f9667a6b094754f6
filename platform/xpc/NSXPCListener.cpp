#include <QDBusServer>
#include <QDBusServiceWatcher>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>

#include "platform/log/os_log.h"
#include "platform/xpc/NSXPCConnection.h"
#include "platform/xpc/NSXPCConnection_p.h"

using platform::xpc::gBusNameCounter;
using platform::xpc::ListenerAdaptor;
using platform::xpc::startQueue;

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

// Asks the delegate whether to take `connection`. The delegate is held only for the question:
// what follows a refusal (the link closing) can let its owner drop it, and its last owner must
// not be this thread, since a delegate may own this listener, which cannot end on its own thread.
bool NSXPCListener::askDelegate(const std::shared_ptr<NSXPCConnection>& connection) {
    std::shared_ptr<NSXPCListenerDelegate> delegate;
    {
        platform::xpc::MarkedLock lock(d_->mutex);
        delegate = d_->delegate.lock();
    }
    return delegate && delegate->listener(this, connection);
}

void NSXPCListener::acceptPeer(const QDBusConnection& peer) {
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
    if (!askDelegate(connection)) {
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
    std::optional<QDBusConnection> bus;
    {
        platform::xpc::MarkedLock lock(d_->mutex);
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
        if (!askDelegate(connection)) {
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
