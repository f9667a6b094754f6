// The items a host and a setup UI send, as the picker and the host read them. The input is the
// keyed archive of item values that arrives on a request link. The picker's controller reads the
// items as a host's input items (the first item's user info: the request's texts, view size and
// menu point; the host-information item: names, the preferred extension, the icon's image data)
// and as the items a setup UI returns (bundle identifier, configuration, user info, service URL).
// The setup result then goes on as the picker sends it: to the daemon as the set-up request, and
// to the host, whose request reads the outcome.
#include <QUrl>
#include <QUuid>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <thread>

#include "daemon/LMDaemonProtocol.h"
#include "fuzz/FuzzSupport.h"
#include "host/LMBroadcastHostRequest.h"
#include "picker/LMBroadcastActivityExtensionNSViewController.h"
#include "picker/LMBroadcastValues.h"
#include "platform/extension/NSExtensionRequest.h"
#include "platform/xpc/NSXPCInterface.h"
#include "platform/xpc/NSXPCValue.h"
#include "service/LMBroadcastActivityViewServiceExtensionContext.h"
#include "service/LMBroadcastActivityViewServiceProtocols.h"

namespace {

using platform::xpc::arguments;

constexpr std::string_view kSetupSelector =
    "setupBroadcastWithHostBundleID:broadcastExtensionBundleID:broadcastConfigurationData:"
    "userInfo:handler:";

const NSXPCMethodDescription& method(const NSXPCProtocolDescription& protocol,
                                     std::string_view selector) {
    for (const NSXPCMethodDescription& m : protocol.methods) {
        if (m.selector == selector) {
            return m;
        }
    }
    fprintf(stderr, "request_items_fuzzer: no method %s\n", std::string(selector).c_str());
    abort();
}

// What the picker does with a setup result: the daemon's set-up request, then the outcome to the
// host, each in its wire form and, for the host, decoded and read as the host reads it.
void sendOn(const QString& extensionBundleID, const QByteArray& configuration,
            const QVariantMap& userInfo, const QUrl& serviceURL) {
    static const NSXPCMethodDescription& setup = method(LMDaemonProtocol(), kSetupSelector);
    (void)platform::xpc::toWireList(
        arguments(QStringLiteral("com.vantor.fuzz"), extensionBundleID, configuration, userInfo),
        setup.arguments);
    static const NSXPCMethodDescription& finish =
        method(LMBroadcastActivityViewServiceHostProtocol(), kLMExtensionDidFinishSelector);
    const auto wire = platform::xpc::toWireList(
        arguments(QUrl(), serviceURL, extensionBundleID, static_cast<signed char>(0)),
        finish.arguments);
    const auto received =
        wire ? platform::xpc::fromWireList(*wire, finish.arguments) : std::nullopt;
    if (!received) {
        fprintf(stderr, "request_items_fuzzer: the host cannot read the outcome\n");
        abort();
    }
    auto request = std::make_shared<LMBroadcastHostRequest>(LMBroadcastHostRequestOptions{});
    request->setHandlers({.outcome = [](const LMBroadcastHostOutcome& outcome) {
        (void)outcome.toJson();
    }});
    request->received(
        QString::fromLatin1(kLMExtensionDidFinishSelector.data(),
                            static_cast<qsizetype>(kLMExtensionDidFinishSelector.size())),
        *received);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    lumaro::fuzz::setUpProcess();
    platform::xpc::registerMetaTypes();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    const std::optional<std::vector<NSExtensionItemPtr>> items =
        platform::extension::decodeItems(bytes);
    if (!items) {
        return 0;
    }
    auto context = std::make_shared<LMBroadcastActivityViewServiceExtensionContext>();
    context->initWithInputItems(*items, nullptr, QUuid());
    auto controller = std::make_shared<LMBroadcastActivityExtensionNSViewController>();
    controller->loadView();
    (void)controller->menuAnchor();

    // Every handler holds the token; the loads are over when only this function holds it.
    auto token = std::make_shared<int>(0);
    const QString title = controller->localizedBroadcastTitle();
    controller->loadHostApplicationInfo(
        [token, title](const QString&, const QString& appName, const std::shared_ptr<NSImage>&,
                       const QString&, const QString&, const QString&) {
            (void)LMBroadcastValues::formatWithObject(title, appName);
        });
    controller->loadItems(*items,
                          [token](const QString& extensionBundleID, const QByteArray& configuration,
                                  const QVariantMap& userInfo, const QUrl& serviceURL) {
                              sendOn(extensionBundleID, configuration, userInfo, serviceURL);
                          });
    while (token.use_count() > 1) {
        std::this_thread::yield();
    }
    return 0;
}
