// The extension runtime's request protocol on the wire: what each side offers on the request
// link, and the input and returned items as bytes.
#include "platform/extension/NSExtensionRequest_p.h"
#include "platform/foundation/NSKeyedArchiver.h"
#include "platform/log/os_log.h"

namespace platform::extension {

using T = NSXPCType;

const NSXPCProtocolDescription& requestHostProtocol() {
    static const NSXPCProtocolDescription protocol{
        "NSExtensionRequestHostProtocol",
        "com.vantor.lumaro.ExtensionRequestHost",
        "/com/vantor/lumaro/ExtensionRequestHost",
        {
            {kCheckIn, {T::String}, true, {T::Data}},
            {kComplete, {T::Data}, true, {T::SignedChar}},
            {kCancel, {T::Error}, true, {T::SignedChar}},
        }};
    return protocol;
}

const NSXPCProtocolDescription& requestServiceProtocol() {
    static const NSXPCProtocolDescription protocol{
        "NSExtensionRequestServiceProtocol",
        "com.vantor.lumaro.ExtensionRequestService",
        "/com/vantor/lumaro/ExtensionRequestService",
        {
            {kRemoteView, {T::String, T::Object}, true, {T::Endpoint, T::Int64, T::Size, T::Error}},
        }};
    return protocol;
}

std::shared_ptr<NSXPCInterface> hostInterface() {
    static const auto interface = NSXPCInterface::interfaceWithProtocol(requestHostProtocol());
    return interface;
}
std::shared_ptr<NSXPCInterface> serviceInterface() {
    static const auto interface = NSXPCInterface::interfaceWithProtocol(requestServiceProtocol());
    return interface;
}

QByteArray encodeItems(const std::vector<NSExtensionItemPtr>& items) {
    QVariantList values;
    for (const auto& item : items) {
        if (item) {
            values.append(item->toPlainValue());
        }
    }
    NSErrorPtr error;
    QByteArray data = NSKeyedArchiver::archivedDataWithRootObject(values, &error);
    if (error) {
        os_log_error(OS_LOG_DEFAULT, "extension runtime: items cannot be archived: %@", error);
    }
    return data;
}

std::optional<std::vector<NSExtensionItemPtr>> decodeItems(const QByteArray& data) {
    const QVariant root = NSKeyedUnarchiver::unarchiveObjectWithData(data);
    if (root.typeId() != QMetaType::QVariantList) {
        return std::nullopt;
    }
    std::vector<NSExtensionItemPtr> items;
    for (const QVariant& value : root.toList()) {
        QString reason;
        NSExtensionItemPtr item = value.typeId() == QMetaType::QVariantMap
                                      ? NSExtensionItem::fromPlainValue(value.toMap(), &reason)
                                      : nullptr;
        if (item) {
            items.push_back(std::move(item));
        } else {
            os_log_error(
                OS_LOG_DEFAULT, "extension runtime: an item was left out: %{public}s",
                qPrintable(reason.isEmpty() ? QStringLiteral("not a dictionary") : reason));
        }
    }
    return items;
}

}  // namespace platform::extension
