// A child for the runtime's tests that connects without the runtime and sends malformed
// messages, then a valid check-in and unreadable items, then exits.
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>

#include "platform/extension/NSExtensionContext.h"
#include "platform/extension/NSExtensionRequest.h"

namespace {

QDBusMessage call(const char* selector, const QVariantList& arguments) {
    const NSXPCProtocolDescription& protocol = platform::extension::requestHostProtocol();
    QDBusMessage message = QDBusMessage::createMethodCall(
        QString(),
        QString::fromLatin1(protocol.objectPath.data(), qsizetype(protocol.objectPath.size())),
        QString::fromLatin1(protocol.dbusInterface.data(),
                            qsizetype(protocol.dbusInterface.size())),
        platform::xpc::memberForSelector(selector));
    message.setArguments(arguments);
    return message;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QDBusConnection peer = QDBusConnection::connectToPeer(
        qEnvironmentVariable(platform::extension::kEnvRequestEndpoint), QStringLiteral("garbage"));
    if (!peer.isConnected()) {
        return 2;
    }
    using T = NSXPCType;
    const QString uuid = qEnvironmentVariable(platform::extension::kEnvRequestIdentifier);
    auto wire = [](const QVariantList& values, const std::vector<T>& types) {
        return platform::xpc::toWireList(values, types).value_or(QVariantList());
    };
    // Unknown member, wrong signature, a foreign identifier, bytes that are no items.
    peer.call(call("noSuchSelector:", {QStringLiteral("x")}), QDBus::Block, 2000);
    peer.call(call("_checkInWithRequestIdentifier:reply:", {42}), QDBus::Block, 2000);
    peer.call(call("_completeRequestReturningItems:reply:", {QByteArray("\xff\x00\x13", 3)}),
              QDBus::Block, 2000);
    peer.call(call("_checkInWithRequestIdentifier:reply:",
                   wire({QUuid::createUuid().toString()}, {T::String})),
              QDBus::Block, 500);
    // The real check-in, then unreadable items.
    const QDBusMessage answer =
        peer.call(call("_checkInWithRequestIdentifier:reply:", wire({uuid}, {T::String})),
                  QDBus::Block, 5000);
    if (answer.type() != QDBusMessage::ReplyMessage) {
        return 3;
    }
    peer.call(call("_completeRequestReturningItems:reply:",
                   wire({QByteArray("not an archive")}, {T::Data})),
              QDBus::Block, 2000);
    return 0;
}
