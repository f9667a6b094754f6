// The view service's identity and its two interfaces on the auxiliary connection of a request:
// what the host offers (two optional one-way messages) and what this process offers (nothing).
//
// The category BroadcastActivityViewServiceExtension on NSXPCInterface is a namespace of that
// name; each of its builders makes its interface once per process and answers that same object
// on every call, from any thread.
#pragma once

#include <QString>
#include <memory>
#include <string_view>

#include "platform/xpc/NSXPCInterface.h"

// The identifier by which hosts name this view service. Exported for other programs.
inline const QString kLMBroadcastActivityViewServiceProtocol =
    QStringLiteral("com.vantor.lumaro.broadcast-picker");

// Selectors of the host protocol.
inline constexpr std::string_view kLMPresentBroadcastActivitySheetSelector =
    "presentBroadcastActivitySheet";
inline constexpr std::string_view kLMExtensionDidFinishSelector =
    "extensionDidFinishWithLaunchURL:broadcastURL:extensionBundleID:cancelled:";

// LMBroadcastActivityViewServiceHostProtocol (adopts NSObject): both methods optional and
// one-way. presentBroadcastActivitySheet takes nothing; extensionDidFinish... takes the launch
// URL, the broadcast URL, the extension bundle identifier (each may be absent) and a one-byte
// cancelled flag.
const NSXPCProtocolDescription& LMBroadcastActivityViewServiceHostProtocol();
// LMBroadcastActivityViewServiceExtensionProtocol (adopts NSObject): no methods.
const NSXPCProtocolDescription& LMBroadcastActivityViewServiceExtensionProtocol();

// The method type encoding of a host-protocol selector ("Vv16@0:8" for the sheet request), or
// nullptr for a selector the protocol does not have.
const char* LMBroadcastActivityViewServiceHostMethodTypeEncoding(std::string_view selector);

namespace BroadcastActivityViewServiceExtension {
// +[NSXPCInterface __LMBroadcastActivity_viewServiceHostInterface]
std::shared_ptr<NSXPCInterface> __LMBroadcastActivity_viewServiceHostInterface();
// +[NSXPCInterface __LMBroadcastActivity_viewServiceExtensionInterface]
std::shared_ptr<NSXPCInterface> __LMBroadcastActivity_viewServiceExtensionInterface();
}  // namespace BroadcastActivityViewServiceExtension
