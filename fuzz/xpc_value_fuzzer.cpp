// Values off the wire, as a connection receives them. The input is one D-Bus message in its wire
// format. libdbus checks it as it checks every message it reads (a peer that sends an invalid one
// loses its link) and sends it as a call over a real peer-to-peer link to a QtDBus server in this
// process, so that its arguments arrive exactly as QtDBus makes them on receipt (QDBusArgument
// for arrays, dictionaries and structures, QDBusVariant for variants). There they go through the
// connection's decoding: the argument list as the receiving method of the project's interfaces
// that has the message's member (and as its reply), and every argument as each value type. A
// value that decodes must be of its type and go back on the wire as a reply block sends it.
#include <dbus/dbus.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusServer>
#include <QDBusVirtualObject>
#include <QDir>
#include <QSemaphore>
#include <QThread>
#include <QtEndian>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "daemon/LMDaemonProtocol.h"
#include "fuzz/FuzzSupport.h"
#include "platform/extension/NSExtensionRequest.h"
#include "platform/xpc/NSXPCInterface.h"
#include "platform/xpc/NSXPCValue.h"
#include "service/LMBroadcastActivityViewServiceProtocols.h"

namespace {

constexpr char kPath[] = "/com/vantor/lumaro/Fuzz";
constexpr char kInterface[] = "com.vantor.lumaro.Fuzz";
constexpr int kDeliveryTimeoutMs = 10000;

// Every protocol that a connection of the project receives calls or replies of.
const std::vector<std::shared_ptr<NSXPCInterface>>& receivingInterfaces() {
    static const std::vector<std::shared_ptr<NSXPCInterface>> interfaces{
        NSXPCInterface::interfaceWithProtocol(LMDaemonProtocol()),
        NSXPCInterface::interfaceWithProtocol(LMClientProtocol()),
        NSXPCInterface::interfaceWithProtocol(platform::extension::requestHostProtocol()),
        NSXPCInterface::interfaceWithProtocol(platform::extension::requestServiceProtocol()),
        NSXPCInterface::interfaceWithProtocol(LMBroadcastActivityViewServiceHostProtocol()),
    };
    return interfaces;
}

void decode(const QDBusMessage& message) {
    const QVariantList wire = message.arguments();
    for (const auto& interface : receivingInterfaces()) {
        if (const NSXPCMethodDescription* method = interface->methodForMember(message.member())) {
            (void)platform::xpc::fromWireList(wire, method->arguments);
            (void)platform::xpc::fromWireList(wire, method->replyArguments);
        }
    }
    for (const QVariant& argument : wire) {
        (void)platform::xpc::plainValue(argument);
        for (int t = 0; t <= static_cast<int>(NSXPCType::Size); ++t) {
            const auto type = static_cast<NSXPCType>(t);
            const std::optional<QVariant> value = platform::xpc::fromWire(argument, type);
            if (!value) {
                continue;
            }
            if (!platform::xpc::matchesType(*value, type)) {
                fprintf(stderr, "a value decoded as %s is not one\n", NSXPCTypeName(type));
                abort();
            }
            if (!platform::xpc::toWire(*value, type)) {
                fprintf(stderr, "a value decoded as %s cannot be sent back\n", NSXPCTypeName(type));
                abort();
            }
            if (type == NSXPCType::Error && value->isValid()) {
                (void)value->value<NSErrorPtr>()->description();
            }
        }
    }
}

// The server's object: decodes each call on a thread of its own (QtDBus hands calls to the thread
// of the object), as the connection's adaptors do on theirs.
class Receiver final : public QDBusVirtualObject {
public:
    QString introspect(const QString&) const override { return {}; }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection&) override {
        decode(message);
        delivered.release();
        return true;
    }
    QSemaphore delivered;
};

// The link's two ends and the receiving thread, for the life of the process.
QDBusServer* gServer = nullptr;
QDBusConnection* gServerSide = nullptr;
QThread* gReceivingThread = nullptr;
Receiver* gReceiver = nullptr;
DBusConnection* gClient = nullptr;

[[noreturn]] void fail(const char* what) {
    fprintf(stderr, "xpc_value_fuzzer: %s\n", what);
    abort();
}

void sendAndWait(DBusMessage* message) {
    dbus_message_set_no_reply(message, TRUE);
    if (!dbus_connection_send(gClient, message, nullptr)) {
        fail("out of memory sending a message");
    }
    dbus_connection_flush(gClient);
    if (!gReceiver->delivered.tryAcquire(1, kDeliveryTimeoutMs)) {
        fail("a valid message was not delivered");
    }
}

// Sets the header's body length to what follows the header fields, so that a mutation that adds
// or removes bytes in the body still makes a message (most would be refused for the length).
void fitBodyLength(QByteArray& bytes) {
    const bool little = bytes[0] == 'l';
    auto* raw = reinterpret_cast<uchar*>(bytes.data());
    const quint32 fields =
        little ? qFromLittleEndian<quint32>(raw + 12) : qFromBigEndian<quint32>(raw + 12);
    const quint64 bodyStart = (16 + static_cast<quint64>(fields) + 7) / 8 * 8;
    if (bodyStart > static_cast<quint64>(bytes.size())) {
        return;
    }
    const auto body = static_cast<quint32>(static_cast<quint64>(bytes.size()) - bodyStart);
    little ? qToLittleEndian(body, raw + 4) : qToBigEndian(body, raw + 4);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    lumaro::fuzz::setUpProcess();
    platform::xpc::registerMetaTypes();
    gServer = new QDBusServer(QStringLiteral("unix:tmpdir=%1").arg(QDir::tempPath()));
    gReceiver = new Receiver();
    gReceivingThread = new QThread();
    gReceivingThread->start();
    gReceiver->moveToThread(gReceivingThread);
    std::atomic<bool> connected{false};
    QObject::connect(gServer, &QDBusServer::newConnection,
                     [&connected](const QDBusConnection& connection) {
                         gServerSide = new QDBusConnection(connection);
                         gServerSide->registerVirtualObject(QString::fromLatin1(kPath), gReceiver,
                                                            QDBusConnection::SubPath);
                         connected = true;
                     });
    DBusError error;
    dbus_error_init(&error);
    gClient = dbus_connection_open_private(gServer->address().toUtf8().constData(), &error);
    if (gClient == nullptr) {
        fail(error.message);
    }
    // The first call drives the authentication; it is delivered once the server has taken the
    // link in on the main thread.
    DBusMessage* hello = dbus_message_new_method_call(nullptr, kPath, kInterface, "hello");
    dbus_message_set_no_reply(hello, TRUE);
    dbus_connection_send(gClient, hello, nullptr);
    dbus_connection_flush(gClient);
    dbus_message_unref(hello);
    while (!connected) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    }
    if (!gReceiver->delivered.tryAcquire(1, kDeliveryTimeoutMs)) {
        fail("the link did not come up");
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 16) {
        return 0;  // shorter than a message's fixed header
    }
    QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    bytes[1] = DBUS_MESSAGE_TYPE_METHOD_CALL;  // whatever it was, it arrives as a call
    fitBodyLength(bytes);
    DBusError error;
    dbus_error_init(&error);
    DBusMessage* message =
        dbus_message_demarshal(bytes.constData(), static_cast<int>(size), &error);
    if (message == nullptr) {
        dbus_error_free(&error);
        return 0;  // libdbus refuses it on receipt, and drops the link
    }
    // File descriptors cannot come with bytes; a message that names one is refused on receipt.
    if (std::strchr(dbus_message_get_signature(message), DBUS_TYPE_UNIX_FD) == nullptr) {
        dbus_message_set_path(message, kPath);
        dbus_message_set_interface(message, kInterface);
        dbus_message_set_destination(message, nullptr);
        sendAndWait(message);
    }
    dbus_message_unref(message);
    return 0;
}
